// The numbers that decide on the sizes of the trace's files, as the daemon reads them.
#include <algorithm>
#include <array>
#include <cstdio>

#include "base/paths.h"
#include "kemdctl/check/look_ups.h"
#include "kemdctl/ui/text.h"
#include "trace/config_file.h"
#include "trace/config_text.h"
#include "trace/header.h"
#include "trace/line_prefix.h"
#include "trace/names.h"

namespace {

constexpr const char* kLogLimit = "OV_LOG_FILE_MAX_SIZE";
constexpr const char* kOwnWeight = "OV_LOG_RINGBUF_WEIGHT_KEMD";
constexpr std::array<const char*, 7> kNumbers = {kLogLimit,
                                                 "TraceFileLimit",
                                                 "OV_LOG_RINGBUF_WEIGHT",
                                                 kOwnWeight,
                                                 "OV_LOG_DEBUG_LEVEL",
                                                 "OV_LOG_DYNAMIC_UPDATE",
                                                 "OV_LOG_NOHDR_TOSDTERR"};

// What a start writes into the log until it waits for signals, besides the header.
constexpr size_t kStartMessages = 1024;

void CheckVariables(Findings& findings, const DaemonEnvironment& environment) {
    for (const char* const name : kNumbers) {
        const char* const value = environment.Find(name);
        const bool isLimit = name == kLogLimit;  // the only one without a sign
        const int64_t largest = isLimit ? int64_t{UINT32_MAX} : INT32_MAX;
        const auto number = value != nullptr ? FindMisreadNumber(value, 10, largest) : std::nullopt;
        if (!number) continue;
        const int64_t shown = isLimit ? int64_t{static_cast<uint32_t>(*number)} : *number;
        findings.Warning(
            std::string(name) + " \"" + Printable(value) + "\" counts as " + std::to_string(shown),
            "give one decimal number of 0 or more and nothing else");
    }
}

// The keys of the module's section that no variable overrides.
void CheckKeys(Findings& findings, const DaemonEnvironment& environment) {
    const auto files = ListConfigFiles();
    for (const std::string& name : files.value_or(std::vector<std::string>())) {
        const std::string path = std::string(kTraceConfigDirectory) + "/" + name;
        const auto text = ReadConfigFile(path.c_str());
        const auto section = text ? FindConfigSection(*text, "kemd") : std::nullopt;
        if (!section) continue;
        if (environment.Find("TraceFileLimit") == nullptr) {
            CheckNumberKey(findings, path, *section, "RingBufferSizeFactor");
        }
        if (environment.Find("OV_LOG_RINGBUF_WEIGHT") == nullptr &&
            environment.Find(kOwnWeight) == nullptr) {
            CheckNumberKey(findings, path, *section, "RingBufferSizeWeight");
        }
        return;
    }
}

// Adds up the lengths of a header's lines.
struct HeaderLength {
    size_t prefix = 0;
    size_t total = 0;

    static void Add(void* context, const char* format, va_list args) {
        auto& self = *static_cast<HeaderLength*>(context);
        const int length = std::vsnprintf(nullptr, 0, format + (format[0] == '\n' ? 1 : 0), args);
        self.total += self.prefix + static_cast<size_t>(std::clamp(length, 0, 1024)) + 1;
    }
};

size_t MeasureHeader(const DaemonEnvironment& environment, const TraceSettings& settings) {
    EnvironmentSnapshot snapshot;
    const auto fill = [&environment](NamedValue& entry) {
        const char* const value = entry.name != nullptr ? environment.Find(entry.name) : nullptr;
        if (value != nullptr) entry.value = CopyText(value);
    };
    for (NamedValue& entry : snapshot.environment) fill(entry);
    for (NamedValue& entry : snapshot.configuration) fill(entry);
    const std::string log = std::string(settings.InForce().logDirectory.Get()) + "/log.kemd";
    const HeaderFacts facts = {"kemd",
                               0,
                               nullptr,
                               snapshot,
                               1,
                               0,
                               false,
                               log.c_str(),
                               settings.InForce().logLimit,
                               -1,
                               settings.RingSize(),
                               log.c_str()};
    Stamp stamp{};
    stamp.withMemory = settings.AsRead().memoryTraces != 0;
    HeaderLength length{static_cast<size_t>(LinePrefix().Build(nullptr, 0, stamp, "kemd"))};
    EmitHeader(facts, settings, {HeaderLength::Add, &length});
    return length.total;
}

void CheckLogLimit(Findings& findings, const DaemonEnvironment& environment,
                   const TraceSettings& settings) {
    const uint32_t limit = settings.InForce().logLimit;
    const bool hasHeader = settings.InForce().noHeader == 0;
    const size_t needed = kStartMessages + (hasHeader ? MeasureHeader(environment, settings) : 0);
    if (limit >= needed) return;
    const std::string what =
        limit == 0 ? ": each message overwrites the one before it"
                   : ": too small for " + std::string(hasHeader ? "its header and " : "") +
                         "the messages of a start, about " + Counted(needed, "byte");
    findings.Warning("the log's limit is " + Counted(limit, "byte") + what,
                     std::string("set ") + kLogLimit + " to 51200 or more, or leave it unset");
}

// The names that set the factor and the weight in force.
std::string RingNames(const DaemonEnvironment& environment) {
    const bool hasFactor = environment.Find("TraceFileLimit") != nullptr;
    const bool hasWeight = environment.Find("OV_LOG_RINGBUF_WEIGHT") != nullptr;
    const bool hasOwn = environment.Find(kOwnWeight) != nullptr;
    return std::string(hasFactor ? "TraceFileLimit" : "RingBufferSizeFactor") + " and " +
           (hasOwn      ? kOwnWeight
            : hasWeight ? "OV_LOG_RINGBUF_WEIGHT"
                        : "RingBufferSizeWeight");
}

void CheckRing(Findings& findings, const DaemonEnvironment& environment,
               const TraceSettings& settings) {
    const std::string level = std::to_string(settings.TraceLevel());
    const std::string product = std::to_string(settings.InForce().ringFactor) + " x " +
                                std::to_string(settings.InForce().ringWeight);
    if (settings.TraceLevel() == 0) return findings.Ok("tracing is off: the trace level is 0");
    if (settings.RingSize() == 0) {
        return findings.Warning("the trace level is " + level +
                                    ", but there is no ring buffer to trace into: factor x weight "
                                    "is " +
                                    product,
                                "set " + RingNames(environment) + " to 1 or more");
    }
    const std::string size = SizeText(static_cast<uint64_t>(settings.RingSize()));
    if (settings.IsRingTooLarge()) {
        return findings.Error(
            "the ring buffer is refused for its size: factor x weight is " + product + ", " + size +
                " and four times that at start",
            "set " + RingNames(environment) + " so that their product is from 1 to 511");
    }
    findings.Ok("tracing is on at level " + level + ", into a ring buffer of " + size);
}

}  // namespace

void CheckTraceLimits(Findings& findings, const DaemonEnvironment& environment,
                      const TraceSettings& settings) {
    const auto files = ListConfigFiles();
    // Without any file in its directory nothing is read, the variables included.
    if (!files || !files->empty()) {
        CheckVariables(findings, environment);
        CheckKeys(findings, environment);
    }
    CheckLogLimit(findings, environment, settings);
    CheckRing(findings, environment, settings);
}
