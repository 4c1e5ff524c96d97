#include "modules/performance/settings.h"

#include <algorithm>
#include <string>

namespace {

constexpr int64_t kHour = 3'600'000;

// What a rule needs: its keys are NAME, NAMEEnd and NAMETime.
struct RuleKeys {
    const char* name;
    int64_t begin;
    int64_t most;
    int64_t hysteresis;  // from `begin` to the default of `end`; 0: it has no key for the end
    int64_t timeMs;
};
// In the order of Rule.
constexpr RuleKeys kRuleKeys[] = {
    {"FileSystemFull", 95, 100, -2, 10'000},
    {"MemoryAvailable", 5, 100, 2, 10'000},
    {"MemoryPressure", 20, 100, -10, 30'000},
    {"TemperatureMargin", 5, 100, 5, 30'000},
    {"OomKill", 1, 1'000'000, 0, 600'000},
    {"DiskErrors", 3, 1'000'000'000, 0, 600'000},
    {"InterfaceErrors", 100, 1'000'000'000, 0, 60'000},
};
static_assert(std::size(kRuleKeys) == kRules);

int ReadLimit(const KemdConfig* config, const RuleKeys& row, Limit& limit) {
    const std::string name = row.name;
    int error = KemdConfigNumber(config, row.name, row.begin, 0, row.most, &limit.begin);
    if (error != 0) return error;
    limit.end = limit.begin;
    if (row.hysteresis != 0) {
        const int64_t least = row.hysteresis < 0 ? 0 : limit.begin;
        const int64_t most = row.hysteresis < 0 ? limit.begin : row.most;
        const int64_t usual = std::clamp(limit.begin + row.hysteresis, least, most);
        error = KemdConfigNumber(config, (name + "End").c_str(), usual, least, most, &limit.end);
        if (error != 0) return error;
    }
    return KemdConfigTime(config, (name + "Time").c_str(), row.timeMs, 0, 24 * kHour,
                          &limit.timeMs);
}

}  // namespace

int ReadSettings(const KemdConfig* config, PerformanceSettings& settings) {
    const int errors[] = {
        KemdConfigTime(config, "Period", 1000, 100, kHour, &settings.periodMs),
        KemdConfigSize(config, "Size", int64_t{64} << 20, int64_t{1} << 20, int64_t{16} << 30,
                       &settings.size),
        KemdConfigTime(config, "SyncInterval", 5000, 100, kHour, &settings.syncMs),
        KemdConfigBool(config, "Processes", 0, &settings.isWithProcesses)};
    for (const int error : errors) {
        if (error != 0) return error;
    }
    for (size_t i = 0; i < kRules; ++i) {
        if (const int error = ReadLimit(config, kRuleKeys[i], settings.limits[i])) return error;
    }
    return 0;
}
