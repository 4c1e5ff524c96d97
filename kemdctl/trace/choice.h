// Which records are wanted. What is left empty chooses all.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "kemdctl/trace/pattern.h"
#include "trace_reader/record.h"

struct Choice {
    std::optional<int64_t> since;  // as TraceRecord::time, both inclusive
    std::optional<int64_t> until;
    std::vector<uint32_t> threads;       // any of them
    std::vector<std::string_view> tags;  // any of them
    std::vector<Pattern> wanted;         // any of them, in the text
    std::vector<Pattern> excluded;       // none of them

    [[nodiscard]] bool TakesAll() const;
    [[nodiscard]] bool Takes(const TraceRecord& record) const;
};
