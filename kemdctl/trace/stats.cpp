#include "kemdctl/trace/stats.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "kemdctl/trace/stats_counts.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/json.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/record.h"
#include "trace_reader/trace_merge.h"
#include "trace_reader/trace_source.h"

struct TraceGap {
    int64_t begin;
    int64_t length;  // milliseconds
};

// How fast a file was written, as far as its chosen records tell.
struct RingReach {
    uint64_t bytes = 0;
    int64_t milliseconds = 0;
    uint64_t lastOffset = 0;
    int64_t lastTime = 0;
};
// For how many milliseconds back a ring holds records, whatever was chosen of them, or will once it
// is full. Nothing for other files, and when that cannot be told.
[[nodiscard]] std::optional<int64_t> ReachOf(const RingReach& reach, const TraceSource& source);

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

void ShowStats(const TraceStats& stats, const TraceMerge& merge);
void ShowStatsAsJson(const TraceStats& stats, const TraceMerge& merge);

namespace {

constexpr size_t kTop = 10;

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

// A long silence takes one line.
void ShowSilence(int64_t steps, int64_t unit) {
    if (steps > 0) Write("  (nothing for " + DurationText(steps * unit) + ")\n");
}

void ShowBars(const TimeHistogram& histogram) {
    constexpr uint64_t kWidth = 40;
    const char* const block = HasUnicode() ? "\u2588" : "#";
    uint64_t highest = 1;
    for (const auto& [step, bar] : histogram.Bars()) highest = std::max(highest, bar.count);
    Write("\nrecords in each " + DurationText(histogram.Unit()) + "\n");
    int64_t next = histogram.Bars().begin()->first;
    for (const auto& [step, bar] : histogram.Bars()) {
        ShowSilence(step - next, histogram.Unit());
        next = step + 1;
        // Whatever is there is seen.
        const uint64_t width = std::max<uint64_t>(bar.count * kWidth / highest, 1);
        Write("  " + std::string(FormatTime(step * histogram.Unit()).data()) + "  " +
              Repeat(block, width) + " " + std::to_string(bar.count) + "\n");
    }
}

// One character for each step of time.
void ShowMemory(const TimeHistogram& histogram) {
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
    Write("\nresident memory, " + std::to_string(low) + " to " + std::to_string(high) +
          " KB, highest in each " + DurationText(histogram.Unit()) + "\n  " + line + "\n");
}

void ShowTally(const char* title, const Tally& tally, uint64_t records) {
    Write(std::string("\n") + title + "\n");
    for (const auto& [text, count] : tally.Top(kTop)) {
        char line[64];
        std::snprintf(line, sizeof line, "  %9llu  %3u%%  ", static_cast<unsigned long long>(count),
                      static_cast<unsigned>(count * 100 / records));
        Write(line + (text.empty() ? "(none)" : Printable(text)) + "\n");
    }
    if (tally.LeftOut() == 0) return;
    Write("  not counted, as there are too many different ones: " +
          std::to_string(tally.LeftOut()) + " records\n");
}

void ShowGaps(const std::vector<TraceGap>& gaps) {
    if (gaps.empty()) return;
    Write("\nlongest gaps\n");
    for (const TraceGap& gap : gaps) {
        Write("  after " + std::string(FormatTime(gap.begin).data()) + "  " +
              DurationText(gap.length) + "\n");
    }
}

void ShowFiles(const TraceStats& stats, const TraceMerge& merge) {
    Write("\nfiles\n");
    for (size_t i = 0; i < merge.Sources().size(); ++i) {
        const TraceSource& source = *merge.Sources()[i];
        const SourceFacts& facts = source.Facts();
        Write("  " + Printable(source.Path()) + ": " + source.Describe() + "\n");
        const auto reach = ReachOf(stats.reach[i], source);
        if (!reach) continue;
        Write(std::string("    ") + (facts.cycle > 0 ? "reaches back " : "will reach back about ") +
              DurationText(*reach) + (facts.cycle > 0 ? "\n" : " once it is full\n"));
    }
}

}  // namespace

void ShowStats(const TraceStats& stats, const TraceMerge& merge) {
    if (stats.records == 0) {
        Write("records: none\n");
        return ShowFiles(stats, merge);
    }
    Write("records: " + std::to_string(stats.records) + ", " + FormatTime(stats.lowest).data() +
          " to " + FormatTime(stats.highest).data() + "\n");
    ShowBars(stats.histogram);
    ShowMemory(stats.histogram);
    ShowTally("busiest threads", stats.threads, stats.records);
    ShowTally("busiest tags", stats.tags, stats.records);
    ShowTally("most frequent texts, numbers as #", stats.texts, stats.records);
    ShowGaps(stats.gaps);
    ShowFiles(stats, merge);
}

namespace {

void PutTime(JsonWriter& json, const char* key, int64_t time) {
    json.Key(key);
    json.Text(FormatTime(time).data());
}

void PutNumber(JsonWriter& json, const char* key, int64_t number) {
    json.Key(key);
    json.Number(number);
}

void PutTally(JsonWriter& json, const char* key, const Tally& tally) {
    json.Key(key);
    json.Open('[');
    for (const auto& [text, count] : tally.Top(kTop)) {
        json.Open('{');
        json.Key("text");
        json.Text(text);
        PutNumber(json, "count", static_cast<int64_t>(count));
        json.Close('}');
    }
    json.Close(']');
}

void PutBars(JsonWriter& json, const TimeHistogram& histogram) {
    PutNumber(json, "unit", histogram.Unit());
    json.Key("bars");
    json.Open('[');
    for (const auto& [step, bar] : histogram.Bars()) {
        json.Open('{');
        PutTime(json, "time", step * histogram.Unit());
        PutNumber(json, "count", static_cast<int64_t>(bar.count));
        if (bar.residentKb >= 0) PutNumber(json, "residentKb", bar.residentKb);
        json.Close('}');
    }
    json.Close(']');
}

void PutGaps(JsonWriter& json, const std::vector<TraceGap>& gaps) {
    json.Key("gaps");
    json.Open('[');
    for (const TraceGap& gap : gaps) {
        json.Open('{');
        PutTime(json, "begin", gap.begin);
        PutNumber(json, "milliseconds", gap.length);
        json.Close('}');
    }
    json.Close(']');
}

void PutFiles(JsonWriter& json, const TraceStats& stats, const TraceMerge& merge) {
    json.Key("files");
    json.Open('[');
    for (size_t i = 0; i < merge.Sources().size(); ++i) {
        const TraceSource& source = *merge.Sources()[i];
        const SourceFacts& facts = source.Facts();
        json.Open('{');
        json.Key("path");
        json.Text(source.Path());
        PutNumber(json, "records", static_cast<int64_t>(facts.records));
        PutNumber(json, "cycle", facts.cycle);
        if (const auto reach = ReachOf(stats.reach[i], source)) PutNumber(json, "reach", *reach);
        json.Close('}');
    }
    json.Close(']');
}

}  // namespace

void ShowStatsAsJson(const TraceStats& stats, const TraceMerge& merge) {
    JsonWriter json;
    json.Open('{');
    PutNumber(json, "records", static_cast<int64_t>(stats.records));
    if (stats.records > 0) {
        PutTime(json, "first", stats.lowest);
        PutTime(json, "last", stats.highest);
    }
    PutBars(json, stats.histogram);
    PutTally(json, "threads", stats.threads);
    PutTally(json, "tags", stats.tags);
    PutTally(json, "texts", stats.texts);
    PutGaps(json, stats.gaps);
    PutFiles(json, stats, merge);
    json.Close('}');
    json.Finish();
}

namespace {

class StatsSink : public RecordSink {
  public:
    explicit StatsSink(bool asJson) : m_asJson(asJson) {}

    void Begin(const TraceMerge& merge) override { m_merge = &merge; }
    void Take(const TraceRecord& record) override;
    bool Finish() override;

  private:
    void TakeGap(const TraceRecord& record);
    void TakeReach(const TraceRecord& record);

    bool m_asJson;
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
    // The older cycle stands behind the newer one.
    if (ring.lastOffset != 0 && offset > ring.lastOffset && record.time >= ring.lastTime) {
        ring.bytes += offset - ring.lastOffset;
        ring.milliseconds += record.time - ring.lastTime;
    }
    ring.lastOffset = offset;
    ring.lastTime = record.time;
}

bool StatsSink::Finish() {
    m_stats.reach.resize(m_merge->Sources().size());
    if (m_asJson) {
        ShowStatsAsJson(m_stats, *m_merge);
    } else {
        ShowStats(m_stats, *m_merge);
    }
    return true;
}

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

}  // namespace

std::optional<int64_t> ReachOf(const RingReach& reach, const TraceSource& source) {
    const SourceFacts& facts = source.Facts();
    if (facts.kind != FileKind::kRingFile || facts.isCompressed) return std::nullopt;
    if (facts.cycle > 0) return WholeSpan(source.Path());
    if (reach.bytes == 0 || reach.milliseconds <= 0) return std::nullopt;
    return static_cast<int64_t>(static_cast<double>(facts.size) / static_cast<double>(reach.bytes) *
                                static_cast<double>(reach.milliseconds));
}

std::unique_ptr<RecordSink> MakeStatsSink(bool asJson) {
    return std::make_unique<StatsSink>(asJson);
}
