// What is ranked as changed, and what is not.
#include "performance/ranking.h"

#include <random>

#include "tests/performance/made_history.h"

namespace {

constexpr int64_t kLength = 1200, kWindow = 120;

std::vector<std::string> Ranked(MadeHistory& history, size_t most = 10) {
    std::filesystem::remove("/tmp/history");
    history.Write(kLength);
    std::string error;
    const auto reader = HistoryReader::Open("/tmp/history", error);
    EXPECT_TRUE(reader) << error;
    const int64_t end = (kNoon + kLength - 1) * kNs, begin = end - kWindow * kNs;
    const HistorySpan window = {begin, end + 1}, before = {begin - 900 * kNs, begin};
    std::vector<std::string> ids;
    double score = INFINITY;
    for (const RankedChange& change : RankChanges(*reader, window, before, most)) {
        EXPECT_LE(change.score, score);
        EXPECT_GE(change.at, window.from);
        EXPECT_LT(change.at, window.to);
        score = change.score;
        ids.push_back(SeriesId(reader->Series()[change.series]));
    }
    return ids;
}

bool IsLate(int64_t second, int64_t seconds) {
    return second >= kLength - seconds;
}

// The same numbers in every run.
double Noise(int64_t second, unsigned seed) {
    std::mt19937 generator(static_cast<unsigned>(second) * 101 + seed);
    return std::normal_distribution<double>()(generator);
}

TEST(Ranking, NoiseAndUsualBurstsAreNoChange) {
    MadeHistory history;
    for (unsigned i = 0; i < 60; ++i) {
        history.Counter("some_" + std::to_string(i), "",
                        [i](int64_t second) { return 1000 + 100 * Noise(second, i); });
    }
    // Every minute, which the median does not see.
    history.Counter(
        "disk_written_bytes", "bytes", [](int64_t second) { return second % 60 == 0 ? 20e6 : 0; },
        "disk=\"sda\"");
    // No noise at all, and steps that nobody cares about.
    history.Gauge("memory_cached_bytes", "bytes",
                  [](int64_t second) { return IsLate(second, 60) ? 1e9 + 4096 : 1e9; });
    history.Counter(
        "network_received_packets", "", [](int64_t second) { return IsLate(second, 9) ? 3 : 0; },
        "interface=\"e0\"");
    history.Gauge("load_1", "", [](int64_t second) { return 50 + 5 * Noise(second / 5, 99); });
    EXPECT_EQ(Ranked(history), std::vector<std::string>{});
}

TEST(Ranking, LargestFirstAlsoWhenShortOrInTheLastSecond) {
    MadeHistory history;
    history.Gauge("memory_available_bytes", "bytes", [](int64_t second) {
        return 4e9 + 1e6 * Noise(second, 1) - (IsLate(second, 60) ? 3.9e9 : 0);
    });
    history.Gauge("fan_speed", "", [](int64_t) { return 7; });
    history.Counter("oom_kills", "", [](int64_t second) { return second == kLength - 1 ? 1 : 0; });
    history.Counter(
        "pressure_io_some_seconds", "seconds",
        [](int64_t second) { return IsLate(second, 30) ? 0.3 : 0.001; }, "", 1000000);
    history.Gauge("temperature_celsius", "celsius",
                  [](int64_t second) { return IsLate(second, 20) ? 30 : 70; });
    EXPECT_EQ(Ranked(history),
              (std::vector<std::string>{"memory_available_bytes", "temperature_celsius",
                                        "pressure_io_some_seconds", "oom_kills"}));
    EXPECT_EQ(Ranked(history, 1).size(), 1U);
}

TEST(Ranking, RelatedSeriesAreNotRepeated) {
    MadeHistory history;
    const auto burst = [](double of) {
        return [of](int64_t second) { return IsLate(second, 100) ? of : 0.01 * of; };
    };
    // Eight processors share a burst, and one of another kind is on a single one.
    for (int cpu = 0; cpu < 8; ++cpu) {
        const std::string label = "cpu=\"" + std::to_string(cpu) + "\"";
        history.Counter("core_user_seconds", "seconds", burst(0.9), label, 100);
        history.Counter("core_idle_seconds", "seconds", burst(0.9), label, 100);
    }
    history.Counter("cpu_user_seconds", "seconds", burst(7.2), "", 100);
    history.Gauge("load_1", "", burst(400));
    // A volume over a disk, and another disk; what is paged in is what they read.
    history.Counter("paged_in_bytes", "bytes", burst(50.1e6));
    history.Counter("disk_read_bytes", "bytes", burst(50e6), "disk=\"dm-0\"");
    history.Counter("disk_read_bytes", "bytes", burst(50e6), "disk=\"sda\"");
    history.Counter("disk_read_bytes", "bytes", burst(9e6), "disk=\"sdb\"");
    std::vector<std::string> ids = Ranked(history, 20);
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<std::string>{"cpu_user_seconds", "disk_read_bytes{disk=\"dm-0\"}",
                                             "disk_read_bytes{disk=\"sdb\"}", "load_1"}));
}

}  // namespace
