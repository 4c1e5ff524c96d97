// /proc/net/snmp and /proc/net/netstat: TCP and UDP. Each group is a line of names and one of
// numbers; the names differ between kernels.
#include <span>

#include "performance/source.h"
#include "performance/text_cursor.h"

namespace {

struct ColumnRow {
    std::string_view group;
    std::string_view column;
    SeriesRow series;
};

class ProtocolSource : public Source {
  public:
    ProtocolSource(const char* path, std::span<const ColumnRow> rows)
        : m_file(path), m_rows(rows), m_series(rows.size()), m_values(rows.size()) {}

    void Sample(SampleContext& context) override {
        std::fill(m_values.begin(), m_values.end(), kAbsent);
        m_groups.Begin();
        const std::string_view text = m_file.Read(context);
        for (TextCursor cursor(text); !cursor.AtEnd();) {
            Group& group = m_groups.Next(cursor.Line());
            if (!group.isLearnt) Learn(group);
            TextCursor numbers = cursor;
            cursor.NextLine();
            (void)numbers.Word();
            ReadColumns(group, numbers);
        }
        if (!text.empty()) m_groups.End(context.table);
        for (size_t i = 0; i < m_rows.size(); ++i) {
            if (m_values[i] != kAbsent) {
                m_series[i].Set(context.table, m_rows[i].series, m_values[i]);
            } else {
                m_series[i].Clear(context.table);
            }
        }
    }
    void AddNotes(std::vector<std::string>& notes) const override {
        const std::string first = m_rows.front().series.name;
        m_file.AddNote(notes, (first.substr(0, first.rfind('_')) + "_*").c_str());
    }

  private:
    static constexpr uint64_t kAbsent = UINT64_MAX;

    struct Place {
        size_t column;
        size_t row;
    };
    // A line of names, and which of them are wanted.
    struct Group {
        explicit Group(std::string_view line) : name(line) {}
        std::string name;
        std::vector<Place> places;  // in the order of their columns
        bool isLearnt = false;
        void Clear(SeriesTable&) const {}
        void Remove(SeriesTable&) const {}
    };

    void Learn(Group& group) const {
        TextCursor names(group.name);
        const std::string_view title = names.Word();
        size_t column = 0;
        for (auto name = names.Word(); !name.empty(); name = names.Word(), ++column) {
            const auto row =
                std::find_if(m_rows.begin(), m_rows.end(), [&](const ColumnRow& wanted) {
                    return wanted.group == title && wanted.column == name;
                });
            if (row == m_rows.end()) continue;
            group.places.push_back({column, static_cast<size_t>(row - m_rows.begin())});
        }
        group.isLearnt = true;
    }
    void ReadColumns(const Group& group, TextCursor& numbers) {
        size_t column = 0;
        for (const Place& place : group.places) {
            for (; column < place.column; ++column) (void)numbers.Word();
            if (!numbers.Number(m_values[place.row])) return;
            ++column;
        }
    }

    SourceFile m_file;
    std::span<const ColumnRow> m_rows;
    std::vector<LazySeries> m_series;
    std::vector<uint64_t> m_values;
    DeviceList<Group> m_groups;
};

constexpr ColumnRow kProtocols[] = {
    {"Tcp:", "InSegs", {"tcp_segments_received", "", "TCP segments received"}},
    {"Tcp:", "OutSegs", {"tcp_segments_sent", "", "TCP segments sent, repeated ones not counted"}},
    {"Tcp:", "RetransSegs", {"tcp_segments_retransmitted", "", "TCP segments sent again"}},
    {"Tcp:", "ActiveOpens", {"tcp_opens_active", "", "TCP connections begun from here"}},
    {"Tcp:", "PassiveOpens", {"tcp_opens_passive", "", "TCP connections accepted"}},
    {"Tcp:", "EstabResets", {"tcp_resets_received", "", "Established TCP connections reset"}},
    {"Tcp:", "OutRsts", {"tcp_resets_sent", "", "TCP segments sent that reset"}},
    {"Tcp:",
     "CurrEstab",
     {"tcp_established", "", "Established TCP connections", SeriesKind::kGauge}},
    {"Udp:", "InDatagrams", {"udp_datagrams_received", "", "UDP datagrams delivered (IPv4)"}},
    {"Udp:", "OutDatagrams", {"udp_datagrams_sent", "", "UDP datagrams sent (IPv4)"}},
    {"Udp:", "InErrors", {"udp_errors", "", "UDP datagrams that could not be delivered (IPv4)"}},
};
constexpr ColumnRow kListen[] = {
    {"TcpExt:",
     "ListenOverflows",
     {"tcp_listen_overflows", "", "Connections refused: the queue of the listener was full"}},
    {"TcpExt:",
     "ListenDrops",
     {"tcp_listen_drops", "", "Connections refused by a listener for any reason"}},
};

}  // namespace

void AddProtocolSources(Sources& sources) {
    sources.push_back(std::make_unique<ProtocolSource>("/proc/net/snmp", kProtocols));
    sources.push_back(std::make_unique<ProtocolSource>("/proc/net/netstat", kListen));
}
