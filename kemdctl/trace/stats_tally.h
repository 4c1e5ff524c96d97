// Counts how often texts occur, up to a limit of different ones.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

class Tally {
  public:
    explicit Tally(size_t limit) : m_limit(limit) {}

    void Count(std::string_view text);

    // The `most` frequent ones, the first of them first.
    [[nodiscard]] std::vector<std::pair<std::string_view, uint64_t>> Top(size_t most) const;
    // Texts that came when the table was full.
    [[nodiscard]] uint64_t LeftOut() const { return m_leftOut; }

  private:
    struct Hash : std::hash<std::string_view> {
        using is_transparent = void;  // NOLINT(readability-identifier-naming): the library's name
    };

    size_t m_limit;
    uint64_t m_leftOut = 0;
    std::unordered_map<std::string, uint64_t, Hash, std::equal_to<>> m_counts;
};

// The text with each number, decimal or behind 0x, as one #, so that texts of one kind are the
// same. As far as it is worth comparing.
[[nodiscard]] std::string NormaliseText(std::string_view text);
