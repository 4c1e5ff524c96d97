// Network interfaces, all in one request to the kernel.
#include <cstring>

#include "kemd/network.h"
#include "network/view.h"
#include "performance/source.h"

namespace {

struct CounterRow {
    uint64_t KemdNetworkCounters::*counter = nullptr;
    SeriesRow series;
};
using Counters = KemdNetworkCounters;
constexpr CounterRow kCounterRows[] = {
    {&Counters::rxBytes, {"network_received_bytes", "bytes", "Bytes received"}},
    {&Counters::txBytes, {"network_transmitted_bytes", "bytes", "Bytes transmitted"}},
    {&Counters::rxPackets, {"network_received_packets", "", "Packets received"}},
    {&Counters::txPackets, {"network_transmitted_packets", "", "Packets transmitted"}},
    {&Counters::rxErrors, {"network_received_errors", "", "Packets received with errors"}},
    {&Counters::txErrors, {"network_transmitted_errors", "", "Packets not sent: errors"}},
    {&Counters::rxDropped, {"network_received_drops", "", "Packets received and dropped"}},
    {&Counters::txDropped, {"network_transmitted_drops", "", "Packets dropped, not sent"}},
};

class Interface {
  public:
    explicit Interface(std::string_view text) : name(text) {}

    void Read(SeriesTable& table, const Counters& counters) {
        for (size_t i = 0; i < m_series.size(); ++i) {
            const uint64_t value = counters.*kCounterRows[i].counter;
            m_series[i].Set(table, kCounterRows[i].series, "interface", name, value);
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
    std::array<LazySeries, std::size(kCounterRows)> m_series;
};

class InterfaceSource : public Source {
  public:
    void Sample(SampleContext& context) override {
        m_table = &context.table;
        m_interfaces.Begin();
        if (context.now >= m_retryAt) m_error = Read();
        if (m_error == 0) return m_interfaces.End(context.table);
        m_interfaces.Clear(context.table);
        if (context.now < m_retryAt) return;
        m_network.reset();
        m_retryAt = context.now + kRareNs;
    }
    void AddNotes(std::vector<std::string>& notes) const override {
        if (m_error == 0) return;
        notes.push_back("network interfaces: " + std::string(std::strerror(m_error)) +
                        ": no network_*");
    }

  private:
    int Read() {
        KemdNetwork* network = m_network.get();
        const int error = network == nullptr ? KemdNetworkOpen(&network, KEMD_NETWORK_HERE) : 0;
        if (error != 0) return error;
        if (m_network == nullptr) m_network.reset(network);
        return KemdNetworkReadCounters(
            network,
            [](void* user, const Counters* counters) {
                auto& source = *static_cast<InterfaceSource*>(user);
                source.m_interfaces.Next(counters->name).Read(*source.m_table, *counters);
            },
            this);
    }

    NetworkHandle m_network;
    DeviceList<Interface> m_interfaces;
    SeriesTable* m_table = nullptr;
    int64_t m_retryAt = 0;
    int m_error = 0;
};

}  // namespace

void AddInterfaceSource(Sources& sources) {
    sources.push_back(std::make_unique<InterfaceSource>());
}
