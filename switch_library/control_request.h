// What clients ask for on the control socket and what they get: lines of JSON, as
// docs/control-interface.md has them. Any thread; throws std::bad_alloc.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "switch_library/registry_request.h"

struct ControlRequest {
    enum Kind {
        kModules,
        kShow,
        kStart,
        kStop,
        kRestart,
        kReload,
        kRequest,
        kRegistry,
        kTraceLevel,
        kHealth,
        kRevive,
    };
    Kind kind = kModules;
    std::string module;
    std::string text;              // of kRequest
    RegistryChange change;         // of kRegistry
    std::optional<int64_t> level;  // of kTraceLevel; nothing: it is asked for
    int64_t seconds = 0;           // how long it holds; 0: for good

    // Whether the group may ask for it.
    [[nodiscard]] bool OnlyReads() const {
        return kind == kModules || kind == kShow || (kind == kTraceLevel && !level);
    }
};

// Empty, or what is wrong with the line. kHealth and kRevive cannot be asked for: they are the
// switch library's own.
std::string ReadControlRequest(std::string_view line, ControlRequest& request);

// Answers, with their line feed. `result` is JSON.
std::string ControlError(std::string_view text);
std::string ControlResult(std::string_view result);

// The answers to kModules and kShow. `isBusy`: health could not be asked for just now.
std::string DescribeModules(bool isBusy);
std::string DescribeModule(const std::string& name, bool isBusy);

// What a request has done to modules.
struct ControlOutcome {
    std::string module;
    std::string state;
    std::vector<std::string> started;
    std::vector<std::string> stopped;
    std::optional<std::string> reply;  // of a module to a request
    std::string note;                  // what the administrator should know

    [[nodiscard]] std::string Answer() const;
};
