// Which records are wanted: by time, thread, tag, and by regular expressions.
#pragma once

#include <regex.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "trace_reader/record.h"

class Pattern {
  public:
    // Empty, or why the pattern is not valid.
    [[nodiscard]] std::string Set(const char* pattern, bool ignoresCase);

    // Whether it matches somewhere in the text; ^ and $ match at its lines. A text of more than
    // 64 KiB is searched in fragments of whole lines, a longer line in fragments that overlap by
    // half: a match of more than 32 KiB in such a line may be missed. Reports once that there is no
    // memory.
    [[nodiscard]] bool IsIn(std::string_view text) const;

    struct Place {
        size_t begin;
        size_t end;
    };
    // The first match that begins at `from` or later; false when there is none. For short texts:
    // it takes them whole.
    [[nodiscard]] bool Find(std::string_view text, size_t from, Place& place) const;

  private:
    [[nodiscard]] bool MatchesFragment(std::string_view text, size_t begin, size_t end) const;

    struct Free {
        void operator()(regex_t* regex) const;
    };
    std::string m_plain;  // when no character is special, which is much faster to find
    std::unique_ptr<regex_t, Free> m_regex;
};

// Which records are wanted. What is left empty chooses all.
struct Filter {
    std::optional<int64_t> since;  // as TraceRecord::time, both inclusive
    std::optional<int64_t> until;
    std::vector<uint32_t> threads;       // any of them
    std::vector<std::string_view> tags;  // any of them
    std::vector<Pattern> wanted;         // any of them, in the text
    std::vector<Pattern> excluded;       // none of them

    [[nodiscard]] bool TakesAll() const;
    [[nodiscard]] bool Takes(const TraceRecord& record) const;
};
