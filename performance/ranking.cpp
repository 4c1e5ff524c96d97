#include "performance/ranking.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <span>
#include <string>
#include <string_view>

namespace {

// What is less than this many times the usual variation is nothing to be listed.
constexpr double kLeastScore = 4;

struct Floor {
    std::string_view part;  // of the name
    double perSecond;
};
// By how much a counter of things must change to matter, whatever its variation is.
constexpr Floor kFloors[] = {
    {"error", 0.05},   {"drop", 0.05},         {"overflow", 0.05}, {"oom_", 0.05},
    {"reset", 0.5},    {"retransmitted", 0.5}, {"faults", 500},    {"page", 100},
    {"packets", 50},   {"segments", 50},       {"datagrams", 50},  {"interrupts", 500},
    {"switches", 500}, {"forks", 2},
};

double FloorOfCounter(const SeriesInfo& info) {
    constexpr double kCpu = 0.02, kBytes = 100e3, kThings = 2;
    if (info.unit == "seconds") return kCpu;
    if (info.unit == "bytes") return kBytes;
    const auto* found = std::find_if(
        std::begin(kFloors), std::end(kFloors),
        [&](const Floor& each) { return info.name.find(each.part) != info.name.npos; });
    return found != std::end(kFloors) ? found->perSecond : kThings;
}

// `largest`: the largest value there was, for gauges of which nothing is known.
double FloorOf(const SeriesInfo& info, double largest) {
    if (info.kind == SeriesKind::kCounter) return FloorOfCounter(info);
    constexpr struct {
        std::string_view unit;
        double value;
    } kGauges[] = {{"bytes", 16e6}, {"celsius", 1}, {"hertz", 200e6}, {"watts", 2}, {"rpm", 100}};
    for (const auto& [unit, value] : kGauges) {
        if (info.unit == unit) return value;
    }
    const bool isOfThings = info.unit.empty() && !info.isReal && info.divide == 1;
    return isOfThings ? 1 : largest / 20;
}

double Median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// Means of so many neighbours each.
std::vector<double> Blocks(std::span<const HistoryPoint> points, size_t size) {
    std::vector<double> means;
    for (size_t begin = 0; begin + size <= points.size(); begin += size) {
        double sum = 0;
        for (const HistoryPoint& point : points.subspan(begin, size)) sum += point.mean;
        means.push_back(sum / static_cast<double>(size));
    }
    return means;
}

double MeanOf(std::span<const HistoryPoint> points) {
    double sum = 0;
    for (const HistoryPoint& point : points) sum += point.mean;
    return sum / static_cast<double>(points.size());
}

double FarthestFrom(double center, const std::vector<double>& values) {
    double distance = 0;
    for (const double value : values) distance = std::max(distance, std::fabs(value - center));
    return distance;
}

// How far the farthest block is from the usual ones. Bursts that were there before count as usual,
// although a median of deviations does not see them.
double ScoreOf(std::span<const HistoryPoint> before, std::span<const HistoryPoint> during,
               size_t size, double least) {
    const std::vector<double> usual = Blocks(before, size), now = Blocks(during, size);
    if (usual.size() < 3 || now.empty()) return 0;
    constexpr double kToDeviation = 1.4826, kBurst = 3, kRelative = 0.02;
    const double center = Median(usual);
    std::vector<double> distances(usual.size());
    std::transform(usual.begin(), usual.end(), distances.begin(),
                   [center](double value) { return std::fabs(value - center); });
    const double variation =
        std::max({kToDeviation * Median(distances), FarthestFrom(center, usual) / kBurst, least,
                  kRelative * std::fabs(center)});
    return FarthestFrom(center, now) / variation;
}

void FindExtreme(std::span<const HistoryPoint> during, RankedChange& change) {
    double farthest = -1;
    for (const HistoryPoint& point : during) {
        for (const double value : {point.minimum, point.maximum}) {
            const double distance = std::fabs(value - change.before);
            if (distance <= farthest) continue;
            farthest = distance;
            change.extreme = value;
            change.at = point.wall;
        }
    }
}

// Series that show the same from several sides.
std::string GroupOf(const SeriesInfo& info) {
    constexpr std::pair<std::string_view, const char*> kGroups[] = {
        {"cpu_", "cpu"},          {"core_", "cpu"},           {"load_", "cpu"},
        {"memory_", "memory"},    {"swap", "memory"},         {"page", "paging"},
        {"major_", "paging"},     {"reclaim", "paging"},      {"interrupts", "activity"},
        {"context_", "activity"}, {"processes_", "processes"}};
    for (const auto& [prefix, group] : kGroups) {
        if (info.name.starts_with(prefix)) return group;
    }
    const size_t word = info.name.find('_');
    if (info.name.starts_with("pressure_"))
        return info.name.substr(0, info.name.find('_', word + 1));
    const std::string first = info.name.substr(0, word);
    const bool isOfDevice = first == "disk" || first == "network" || first == "filesystem";
    return isOfDevice ? first + info.labels : first;
}

// What others leave, and the one of two that says less.
bool IsRest(std::string_view name) {
    constexpr std::string_view kRests[] = {"cpu_idle_seconds", "core_idle_seconds",
                                           "memory_free_bytes", "filesystem_free_bytes"};
    return std::find(std::begin(kRests), std::end(kRests), name) != std::end(kRests);
}

bool IsCore(const SeriesInfo& info) {
    return info.name.starts_with("core_");
}

bool IsNear(const RankedChange& change, const RankedChange& other, double play) {
    const auto isNear = [play](double one, double another) {
        return std::fabs(one - another) <= play * std::max(std::fabs(one), std::fabs(another));
    };
    return isNear(change.during, other.during) && isNear(change.extreme, other.extreme);
}

// Of a device above or below another, as a volume and its disk.
bool IsSameChange(const SeriesInfo& info, const RankedChange& change, const SeriesInfo& otherInfo,
                  const RankedChange& other) {
    return info.name == otherInfo.name && IsNear(change, other, 0.05);
}

// What the kernel counts for the host and for the device: bytes paged out, and written to a disk.
bool IsDevicesPart(const SeriesInfo& info, const RankedChange& change, const SeriesInfo& otherInfo,
                   const RankedChange& other) {
    return info.kind == SeriesKind::kCounter && otherInfo.kind == SeriesKind::kCounter &&
           info.unit == "bytes" && otherInfo.unit == "bytes" &&
           info.labels.empty() != otherInfo.labels.empty() && IsNear(change, other, 0.02);
}

class Picker {
  public:
    explicit Picker(const std::vector<SeriesInfo>& series) : m_series(series) {}

    // Whether the change says something that the taken ones do not. One that names the device takes
    // the place of the host's.
    [[nodiscard]] bool IsNew(const RankedChange& change, std::vector<RankedChange>& taken) {
        constexpr size_t kOfGroup = 2;
        const SeriesInfo& info = m_series[change.series];
        if (IsRest(info.name) || IsShownBy(change, taken)) return false;
        const auto host = std::find_if(taken.begin(), taken.end(), [&](const RankedChange& other) {
            return IsDevicesPart(info, change, m_series[other.series], other);
        });
        const bool hasRoom = ++m_groups[GroupOf(info)] <= kOfGroup;
        if (host == taken.end()) return hasRoom;
        if (m_series[host->series].labels.empty()) {
            const double score = host->score;
            *host = change;
            host->score = score;
        }
        return false;
    }

  private:
    [[nodiscard]] bool IsShownBy(const RankedChange& change,
                                 const std::vector<RankedChange>& taken) const {
        const SeriesInfo& info = m_series[change.series];
        return std::any_of(taken.begin(), taken.end(), [&](const RankedChange& other) {
            const SeriesInfo& otherInfo = m_series[other.series];
            if (IsSameChange(info, change, otherInfo, other)) return true;
            if (!IsCore(info) || GroupOf(otherInfo) != "cpu") return false;
            // One processor matters when it has most of what all did.
            return IsCore(otherInfo) || std::fabs(change.during - change.before) * 2 <
                                            std::fabs(other.during - other.before);
        });
    }

    const std::vector<SeriesInfo>& m_series;
    std::map<std::string, size_t> m_groups;
};

// The points of a time; they are in order of time.
std::span<const HistoryPoint> Within(const std::vector<HistoryPoint>& points, HistorySpan span) {
    const auto before = [](const HistoryPoint& point, int64_t wall) { return point.wall < wall; };
    const auto begin = std::lower_bound(points.begin(), points.end(), span.from, before);
    const auto end = std::lower_bound(begin, points.end(), span.to, before);
    return {begin, end};
}

RankedChange Compare(uint32_t number, const SeriesInfo& info, std::span<const HistoryPoint> before,
                     std::span<const HistoryPoint> during) {
    RankedChange change{number};
    if (before.empty() || during.empty()) return change;
    change.before = MeanOf(before);
    change.during = MeanOf(during);
    FindExtreme(during, change);
    double largest = std::fabs(change.extreme);
    for (const HistoryPoint& point : before) largest = std::max(largest, std::fabs(point.maximum));
    const double least = FloorOf(info, largest);
    // A short one must be larger.
    const size_t quarter = std::max<size_t>(during.size() / 4, 1);
    change.score =
        std::max(ScoreOf(before, during, 1, 2 * least), ScoreOf(before, during, quarter, least));
    return change;
}

}  // namespace

std::vector<RankedChange> RankChanges(HistoryReader& reader, HistorySpan window, HistorySpan before,
                                      size_t most) {
    constexpr int64_t kSecond = 1'000'000'000, kParts = 120;
    constexpr uint32_t kAtOnce = 32;
    const int64_t part = std::max(kSecond, (window.to - window.from) / kParts / kSecond * kSecond);
    const int64_t step = part > reader.PeriodNs() ? part : 0;  // samples have exact times
    const HistorySpan both = {std::min(before.from, window.from), std::max(before.to, window.to)};
    // The last step may end after the window; what was read of it does not.
    const HistorySpan during = {window.from, window.to + step};
    const auto count = static_cast<uint32_t>(reader.Series().size());
    std::vector<RankedChange> changes;
    std::vector<std::vector<HistoryPoint>> points;
    for (uint32_t begin = 0; begin < count; begin += kAtOnce) {
        std::vector<uint32_t> numbers(std::min(kAtOnce, count - begin));
        std::iota(numbers.begin(), numbers.end(), begin);
        reader.Read(numbers, both, step, points);
        for (size_t i = 0; i < numbers.size(); ++i) {
            RankedChange change = Compare(numbers[i], reader.Series()[numbers[i]],
                                          Within(points[i], before), Within(points[i], during));
            change.at = std::min(change.at, window.to - 1);
            if (change.score >= kLeastScore) changes.push_back(change);
        }
    }
    std::stable_sort(changes.begin(), changes.end(),
                     [](const auto& one, const auto& other) { return one.score > other.score; });
    Picker picker(reader.Series());
    std::vector<RankedChange> picked;
    for (const RankedChange& change : changes) {
        if (picked.size() < most && picker.IsNew(change, picked)) picked.push_back(change);
    }
    return picked;
}
