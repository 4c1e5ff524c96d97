// Network interfaces, all in one request to the kernel.
#include <cstring>

#include "kemd/network.h"
#include "network/view.h"
#include "performance/source.h"

namespace {

struct FieldRow {
    uint32_t field;
    SeriesRow series;
};
constexpr FieldRow kRows[] = {
    {KEMD_NET_RX_BYTES, {"network_received_bytes", "bytes", "Bytes received"}},
    {KEMD_NET_TX_BYTES, {"network_transmitted_bytes", "bytes", "Bytes transmitted"}},
    {KEMD_NET_RX_PACKETS, {"network_received_packets", "", "Packets received"}},
    {KEMD_NET_TX_PACKETS, {"network_transmitted_packets", "", "Packets transmitted"}},
    {KEMD_NET_RX_ERRORS, {"network_received_errors", "", "Packets received with errors"}},
    {KEMD_NET_TX_ERRORS, {"network_transmitted_errors", "", "Packets not sent because of errors"}},
    {KEMD_NET_RX_DROPPED, {"network_received_drops", "", "Packets received and dropped"}},
    {KEMD_NET_TX_DROPPED,
     {"network_transmitted_drops", "", "Packets dropped before they were sent"}},
};

class Interface {
  public:
    explicit Interface(std::string_view text) : name(text) {}

    void Read(SeriesTable& table, const KemdNetworkInterface* interface) {
        for (size_t i = 0; i < m_series.size(); ++i) {
            uint64_t value = 0;
            if (KemdNetworkNumber(interface, kRows[i].field, &value) != 0) {
                m_series[i].Clear(table);
                continue;
            }
            if (!m_series[i].IsAdded()) {
                m_series[i].Add(table, kRows[i].series, SeriesLabel("interface", name));
            }
            m_series[i].Set(table, value);
        }
    }
    void Clear(SeriesTable& table) const {
        for (const LazySeries& series : m_series) series.Clear(table);
    }
    void Remove(SeriesTable& table) {
        for (LazySeries& series : m_series) series.Remove(table);
    }

    std::string name;

  private:
    std::array<LazySeries, std::size(kRows)> m_series;
};

class InterfaceSource : public Source {
  public:
    void Sample(SampleContext& context) override {
        const auto snapshot = Take(context.now);
        if (snapshot == nullptr) return m_interfaces.Clear(context.table);
        m_interfaces.Begin();
        for (size_t i = 0;; ++i) {
            const KemdNetworkInterface* const interface = KemdNetworkAt(snapshot.get(), i);
            if (interface == nullptr) break;
            char name[64];
            size_t size = sizeof name;
            if (KemdNetworkText(interface, KEMD_NET_NAME, name, &size) != 0) continue;
            m_interfaces.Next({name, size - 1}).Read(context.table, interface);
        }
        m_interfaces.End(context.table);
    }
    void AddNotes(std::vector<std::string>& notes) const override {
        if (m_error == 0) return;
        notes.push_back("network interfaces: " + std::string(std::strerror(m_error)) +
                        ": no network_*");
    }

  private:
    std::unique_ptr<KemdNetworkSnapshot, NetworkCloser> Take(int64_t now) {
        if (now < m_retryAt) return nullptr;
        KemdNetwork* network = m_network.get();
        m_error = network == nullptr ? KemdNetworkOpen(&network, KEMD_NETWORK_HERE) : 0;
        if (m_network == nullptr) m_network.reset(network);
        KemdNetworkSnapshot* snapshot = nullptr;
        if (m_error == 0) m_error = KemdNetworkTake(network, 0, &snapshot);
        if (m_error != 0) {
            m_network.reset();
            m_retryAt = now + kRareNs;
        }
        return std::unique_ptr<KemdNetworkSnapshot, NetworkCloser>(snapshot);
    }

    NetworkHandle m_network;
    DeviceList<Interface> m_interfaces;
    int64_t m_retryAt = 0;
    int m_error = 0;
};

}  // namespace

void AddInterfaceSource(Sources& sources) {
    sources.push_back(std::make_unique<InterfaceSource>());
}
