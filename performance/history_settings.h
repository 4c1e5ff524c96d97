// Where the history is written, and how.
#pragma once

#include <cstdint>
#include <string>

struct HistorySettings {
    std::string path;
    uint64_t size = uint64_t{64} << 20;
    int64_t periodNs = 1'000'000'000;
    std::string host;
    std::string bootId;
};
