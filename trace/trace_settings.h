// Every setting of the trace: its key in the configuration files, the variable that overrides it,
// and its lines in a header. What reads, shows or checks settings goes by this table.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include "base/fixed_string.h"

using TracePath = FixedString<256>;

// As the files give them; -1 is absent, but for level and flags.
struct TraceValuesAsRead {
    int32_t dynamicUpdate = -1;  // seconds
    int32_t level = 0;
    int32_t flags = 0;  // stored only
    int32_t ringFactor = -1;
    int32_t ringWeight = -1;
    TracePath ringDirectory;
    int32_t noHeader = -1;
    int32_t memoryTraces = -1;  // has no default: absent means on
};

struct TraceValuesInForce {
    TracePath logDirectory;
    uint32_t logLimit = 51200;  // bytes
    int32_t dynamicUpdate = 0;  // as Init found it
    int32_t level = 0;          // as Init found it
    int32_t ringFactor = 0;
    int32_t ringWeight = 0;
    int32_t noHeader = 1;
};

// Where a header shows a value in force.
enum class ShownInForce : uint8_t { kNowhere, kBeforeRingSize, kAtEnd };

struct TraceSetting {
    std::string_view key;
    bool isGlobal = false;         // in the global section, not in that of the module
    bool isUpdated = false;        // read again from a module file that changed
    bool hasAbsent = true;         // -1 counts as absent
    int32_t unset = -1;            // as read from a section without the key
    const char* header = nullptr;  // its line of the values as read; null: none
    int32_t TraceValuesAsRead::*number = nullptr;
    TracePath TraceValuesAsRead::*path = nullptr;  // of the one that is no number

    // In force is the variable when it is set, else what was read, else the default.
    int32_t TraceValuesInForce::*inForce = nullptr;
    const char* variable = nullptr;
    int32_t byDefault = 0;
    ShownInForce shown = ShownInForce::kNowhere;
    const char* shownAs = nullptr;
};

// In the order of a header.
inline constexpr std::array<TraceSetting, 8> kTraceSettings = {{
    {.key = "DynamicUpdate",
     .isGlobal = true,
     .unset = 0,
     .header = "DynamicUpdate",
     .number = &TraceValuesAsRead::dynamicUpdate,
     .inForce = &TraceValuesInForce::dynamicUpdate,
     .variable = "OV_LOG_DYNAMIC_UPDATE"},
    {.key = "FileDebugLevel",
     .isUpdated = true,
     .hasAbsent = false,
     .unset = 0,
     .header = "DebugLevel",
     .number = &TraceValuesAsRead::level,
     .inForce = &TraceValuesInForce::level,
     .variable = "OV_LOG_DEBUG_LEVEL"},
    {.key = "TraceFlags",
     .isUpdated = true,
     .hasAbsent = false,
     .unset = 0,
     .number = &TraceValuesAsRead::flags},
    // Required: its variable carries no prefix; it is the agents' configuration key of that name.
    {.key = "RingBufferSizeFactor",
     .header = "RingBufferSizeFactor",
     .number = &TraceValuesAsRead::ringFactor,
     .inForce = &TraceValuesInForce::ringFactor,
     .variable = "TraceFileLimit",
     .shown = ShownInForce::kBeforeRingSize,
     .shownAs = "Ring Buffer Factor"},
    {.key = "RingBufferSizeWeight",
     .header = "RingBufferSizeWeight",
     .number = &TraceValuesAsRead::ringWeight,
     .inForce = &TraceValuesInForce::ringWeight,
     .variable = "OV_LOG_RINGBUF_WEIGHT",
     .shown = ShownInForce::kBeforeRingSize,
     .shownAs = "Ring Buffer Weight"},
    {.key = "RingBufferDirectory",
     .header = "RingBufferDirectory",
     .path = &TraceValuesAsRead::ringDirectory},
    {.key = "NoHeaderToStderr",
     .header = "No Header to LogFile",
     .number = &TraceValuesAsRead::noHeader,
     .inForce = &TraceValuesInForce::noHeader,
     .variable = "OV_LOG_NOHDR_TOSDTERR",
     .byDefault = 1,
     .shown = ShownInForce::kAtEnd,
     .shownAs = "No Header to LogFile"},
    {.key = "MemoryTracesFlag", .isUpdated = true, .number = &TraceValuesAsRead::memoryTraces},
}};

// The variables that hold numbers, those of the table and two more, in the order of their checks.
inline constexpr const char* kLogLimitVariable = "OV_LOG_FILE_MAX_SIZE";
inline constexpr const char* kOwnWeightVariable = "OV_LOG_RINGBUF_WEIGHT_KEMD";
inline constexpr std::array<std::string_view, 7> kTraceVariables = {
    kLogLimitVariable,    "TraceFileLimit",        "OV_LOG_RINGBUF_WEIGHT", kOwnWeightVariable,
    "OV_LOG_DEBUG_LEVEL", "OV_LOG_DYNAMIC_UPDATE", "OV_LOG_NOHDR_TOSDTERR"};
static_assert(std::all_of(kTraceSettings.begin(), kTraceSettings.end(), [](const TraceSetting& s) {
    return s.variable == nullptr || std::find(kTraceVariables.begin(), kTraceVariables.end(),
                                              s.variable) != kTraceVariables.end();
}));
