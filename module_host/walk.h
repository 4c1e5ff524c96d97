// Takes one module through its life, in a process of its own, and reports on standard output.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct WalkOptions {
    unsigned seconds = 1;             // between start and stop
    unsigned timeout = 10;            // seconds for one call
    std::optional<int32_t> runLevel;  // 0 or 6: the system goes down
    std::string settings;             // the file that configure reads
    std::vector<std::string> requests;
};

enum class WalkResult { kClean, kFindings, kNoModule };

// `path` is absolute.
WalkResult WalkModule(const char* path, const WalkOptions& options);
