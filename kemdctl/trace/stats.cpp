#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "kemdctl/trace/reports.h"
#include "kemdctl/trace/stats_counts.h"
#include "kemdctl/trace/trace_files.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/record.h"
#include "trace_reader/trace_merge.h"
#include "trace_reader/trace_source.h"

namespace {

struct TraceGap {
    int64_t begin;
    int64_t length;  // milliseconds
};

// How fast a file was written, as far as its chosen records show.
struct RingReach {
    uint64_t bytes = 0;
    int64_t milliseconds = 0;
    uint64_t lastOffset = 0;
    int64_t lastTime = 0;
};
struct TraceStats {
    uint64_t records = 0;
    int64_t lowest = INT64_MAX;  // of their times
    int64_t highest = INT64_MIN;
    TimeHistogram histogram;
    Tally threads{4096};
    Tally tags{4096};
    Tally texts{16384};
    std::vector<TraceGap> gaps;    // the longest first
    std::vector<RingReach> reach;  // by number of the source
};

// From the oldest record of a file to the newest one. The facts of a source have only those that
// were read, which begin with --since.
std::optional<int64_t> WholeSpan(const std::string& path) {
    TraceSource source(path, 0);
    TraceRecord record;
    if (!source.Open() || !source.Next(record)) return std::nullopt;
    const int64_t oldest = record.time;
    source.Select(INT64_MIN, INT64_MAX, 1);
    while (source.Next(record)) continue;
    return std::max<int64_t>(source.Facts().lastTime - oldest, 0);
}

// For how many milliseconds back a ring holds records, whatever was chosen of them, or will once it
// is full. Nothing for other files, and when that cannot be seen.
std::optional<int64_t> ReachOf(const RingReach& reach, const TraceSource& source) {
    const SourceFacts& facts = source.Facts();
    if (facts.kind != FileKind::kRingFile || facts.isCompressed) return std::nullopt;
    if (facts.cycle > 0) return WholeSpan(source.Path());
    if (reach.bytes == 0 || reach.milliseconds <= 0) return std::nullopt;
    return static_cast<int64_t>(static_cast<double>(facts.size) / static_cast<double>(reach.bytes) *
                                static_cast<double>(reach.milliseconds));
}

// Whether the terminal is said to show UTF-8.
bool HasUnicode() {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* value = std::getenv(name);
        if (value == nullptr || *value == '\0') continue;
        const std::string_view locale(value);
        return locale.find("UTF-8") != locale.npos || locale.find("utf8") != locale.npos;
    }
    return false;
}

std::string Repeat(const char* text, uint64_t times) {
    std::string all;
    for (uint64_t i = 0; i < times; ++i) all += text;
    return all;
}

void State(ReportWriter& report, const char* key, int64_t time) {
    report.Text(key, FormatTime(time).data());
}

void ShowBars(const TimeHistogram& histogram, ReportWriter& report) {
    constexpr uint64_t kWidth = 40;
    const char* const block = HasUnicode() ? "\u2588" : "#";
    const auto& bars = histogram.Bars();
    uint64_t highest = 1;
    for (const auto& [step, bar] : bars) highest = std::max(highest, bar.count);
    report.Number("unit", histogram.Unit());
    if (!bars.empty()) {
        report.Line("");
        report.Line("records in each " + DurationText(histogram.Unit()));
    }
    int64_t next = bars.empty() ? 0 : bars.begin()->first;
    report.List("bars", bars, [&](const auto& each) {
        const auto& [step, bar] = each;
        // A long silence takes one line.
        if (step > next) {
            report.Line("  (nothing for " + DurationText((step - next) * histogram.Unit()) + ")");
        }
        next = step + 1;
        // Whatever is there is seen.
        const uint64_t width = std::max<uint64_t>(bar.count * kWidth / highest, 1);
        const int64_t time = step * histogram.Unit();
        report.Line(std::string("  ") + FormatTime(time).data() + "  " + Repeat(block, width) +
                    " " + std::to_string(bar.count));
        report.OpenObject();
        State(report, "time", time);
        report.Number("count", bar.count);
        if (bar.residentKb >= 0) report.Number("residentKb", bar.residentKb);
        report.Close();
    });
}

// One character for each step of time.
void ShowMemory(const TimeHistogram& histogram, ReportWriter& report) {
    static constexpr const char* kAscii[] = {"_", ".", "-", "=", "+", "*", "%", "#"};
    static constexpr const char* kBlocks[] = {"\u2581", "\u2582", "\u2583", "\u2584",
                                              "\u2585", "\u2586", "\u2587", "\u2588"};
    int64_t low = INT64_MAX, high = -1;
    for (const auto& [step, bar] : histogram.Bars()) {
        if (bar.residentKb < 0) continue;
        low = std::min(low, bar.residentKb);
        high = std::max(high, bar.residentKb);
    }
    if (high < 0) return;
    std::string line;
    int64_t next = histogram.Bars().begin()->first;
    for (const auto& [step, bar] : histogram.Bars()) {
        line.append(static_cast<size_t>(step - next), ' ');
        next = step + 1;
        const double share = high == low ? 0
                                         : static_cast<double>(bar.residentKb - low) /
                                               static_cast<double>(high - low);
        const auto level = static_cast<size_t>(share * 7);
        line += bar.residentKb < 0 ? " " : HasUnicode() ? kBlocks[level] : kAscii[level];
    }
    report.Line("");
    report.Line("resident memory, " + std::to_string(low) + " to " + std::to_string(high) +
                " KB, highest in each " + DurationText(histogram.Unit()));
    report.Line("  " + line);
}

void ShowTally(const char* key, const char* title, const Tally& tally, uint64_t records,
               ReportWriter& report) {
    constexpr size_t kTop = 10;
    if (records > 0) {
        report.Line("");
        report.Line(title);
    }
    report.List(key, tally.Top(kTop), [&](const auto& each) {
        const auto& [text, count] = each;
        char start[64];
        std::snprintf(start, sizeof start, "  %9llu  %3u%%  ",
                      static_cast<unsigned long long>(count),
                      static_cast<unsigned>(count * 100 / records));
        report.Line(start + (text.empty() ? "(none)" : Printable(text)));
        report.OpenObject();
        report.Text("text", text);
        report.Number("count", count);
        report.Close();
    });
    if (tally.LeftOut() == 0) return;
    report.Line("  not counted, as there are too many different ones: " +
                Counted(tally.LeftOut(), "record"));
}

void ShowGaps(const std::vector<TraceGap>& gaps, ReportWriter& report) {
    if (!gaps.empty()) {
        report.Line("");
        report.Line("longest gaps");
    }
    report.List("gaps", gaps, [&report](const TraceGap& gap) {
        report.Line(std::string("  after ") + FormatTime(gap.begin).data() + "  " +
                    DurationText(gap.length));
        report.OpenObject();
        State(report, "begin", gap.begin);
        report.Number("milliseconds", gap.length);
        report.Close();
    });
}

void ShowFile(const TraceSource& source, const RingReach& reach, ReportWriter& report) {
    const SourceFacts& facts = source.Facts();
    const auto span = ReachOf(reach, source);
    report.Line([&] { return "  " + Printable(source.Path()) + ": " + Describe(source); });
    if (span) {
        const std::string duration = DurationText(*span);
        report.Line(facts.cycle > 0 ? "    reaches back " + duration
                                    : "    will reach back about " + duration + " once it is full");
    }
    report.OpenObject();
    report.Text("path", source.Path());
    report.Number("records", facts.records);
    report.Number("cycle", facts.cycle);
    report.Number("reach", span);
    report.Close();
}

class StatsSink : public RecordSink {
  public:
    explicit StatsSink(ReportWriter& report) : m_report(report) {}

    void Begin(const TraceMerge& merge) override { m_merge = &merge; }
    void Take(const TraceRecord& record) override;
    bool Finish() override;

  private:
    void TakeGap(const TraceRecord& record);
    void TakeReach(const TraceRecord& record);

    ReportWriter& m_report;
    const TraceMerge* m_merge = nullptr;
    TraceStats m_stats;
};

void StatsSink::Take(const TraceRecord& record) {
    TakeGap(record);
    TakeReach(record);
    m_stats.lowest = std::min(m_stats.lowest, record.time);
    m_stats.highest = std::max(m_stats.highest, record.time);
    ++m_stats.records;
    m_stats.histogram.Add(record.time, record.residentKb);
    char thread[16];
    std::snprintf(thread, sizeof thread, "%08X", record.thread);
    m_stats.threads.Count(thread);
    m_stats.tags.Count(record.tag);
    m_stats.texts.Count(NormaliseText(record.text));
}

// From the highest time so far: a clock that went back makes no gap.
void StatsSink::TakeGap(const TraceRecord& record) {
    constexpr size_t kMost = 5;
    const int64_t before = m_stats.highest;
    if (m_stats.records == 0 || record.time <= before) return;
    std::vector<TraceGap>& gaps = m_stats.gaps;
    const int64_t length = record.time - before;
    const auto place = std::find_if(gaps.begin(), gaps.end(),
                                    [length](const TraceGap& gap) { return gap.length < length; });
    gaps.insert(place, {before, length});
    if (gaps.size() > kMost) gaps.pop_back();
}

// How fast a ring was filled is seen at how far apart records stand in it.
void StatsSink::TakeReach(const TraceRecord& record) {
    constexpr uint64_t kOffsetMask = (uint64_t{1} << 40) - 1;
    auto& reach = m_stats.reach;
    if (reach.size() <= record.source) reach.resize(record.source + size_t{1});
    RingReach& ring = reach[record.source];
    const uint64_t offset = record.sequence & kOffsetMask;
    // The older cycle stands after the newer one.
    if (ring.lastOffset != 0 && offset > ring.lastOffset && record.time >= ring.lastTime) {
        ring.bytes += offset - ring.lastOffset;
        ring.milliseconds += record.time - ring.lastTime;
    }
    ring.lastOffset = offset;
    ring.lastTime = record.time;
}

bool StatsSink::Finish() {
    const uint64_t records = m_stats.records;
    m_stats.reach.resize(m_merge->Sources().size());
    m_report.OpenObject();
    m_report.Number("records", records);
    if (records > 0) {
        State(m_report, "first", m_stats.lowest);
        State(m_report, "last", m_stats.highest);
    }
    m_report.Line(records == 0 ? "records: none"
                               : "records: " + std::to_string(records) + ", " +
                                     FormatTime(m_stats.lowest).data() + " to " +
                                     FormatTime(m_stats.highest).data());
    ShowBars(m_stats.histogram, m_report);
    ShowMemory(m_stats.histogram, m_report);
    ShowTally("threads", "busiest threads", m_stats.threads, records, m_report);
    ShowTally("tags", "busiest tags", m_stats.tags, records, m_report);
    ShowTally("texts", "most frequent texts, numbers as #", m_stats.texts, records, m_report);
    ShowGaps(m_stats.gaps, m_report);
    m_report.Line("");
    m_report.Line("files");
    m_report.OpenArray("files");
    for (size_t i = 0; i < m_merge->Sources().size(); ++i) {
        ShowFile(*m_merge->Sources()[i], m_stats.reach[i], m_report);
    }
    m_report.Close();
    return true;
}

}  // namespace

std::unique_ptr<RecordSink> MakeStatsSink(const TraceOptions& /*options*/, ReportWriter& report) {
    return std::make_unique<StatsSink>(report);
}
