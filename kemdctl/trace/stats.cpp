#include "kemdctl/trace/stats.h"

#include <algorithm>
#include <cstdio>

#include "kemdctl/trace/stats_facts.h"

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
