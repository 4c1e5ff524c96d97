// Processors as the kernel lists them: "0-3,8". Throws std::bad_alloc alone.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

class CpuList {
  public:
    // What is no list gives an empty one.
    explicit CpuList(std::string_view text) {
        const char* next = text.data();
        const char* const end = next + text.size();
        while (next != end) {
            unsigned first = 0;
            auto result = std::from_chars(next, end, first);
            if (result.ec != std::errc()) return;
            unsigned last = first;
            if (result.ptr != end && *result.ptr == '-') {
                result = std::from_chars(result.ptr + 1, end, last);
                if (result.ec != std::errc() || last < first) return;
            }
            m_ranges.emplace_back(first, last);
            if (result.ptr == end || *result.ptr != ',') return;
            next = result.ptr + 1;
        }
    }
    [[nodiscard]] bool Has(unsigned cpu) const {
        return std::any_of(m_ranges.begin(), m_ranges.end(), [cpu](const auto& range) {
            return cpu >= range.first && cpu <= range.second;
        });
    }
    [[nodiscard]] uint64_t Count() const {
        uint64_t count = 0;
        for (const auto& [first, last] : m_ranges) count += uint64_t{last} - first + 1;
        return count;
    }

  private:
    std::vector<std::pair<unsigned, unsigned>> m_ranges;
};
