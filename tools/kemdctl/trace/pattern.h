// A regular expression of the command line: POSIX extended, as grep -E has it.
#pragma once

#include <regex.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

class Pattern {
  public:
    // Empty, or why the pattern is none.
    [[nodiscard]] std::string Set(const char* pattern, bool ignoresCase);

    // Whether it matches somewhere in the text; ^ and $ match at its lines.
    [[nodiscard]] bool IsIn(std::string_view text) const;

    struct Place {
        size_t begin;
        size_t end;
    };
    // The first match that begins at `from` or later; false when there is none.
    [[nodiscard]] bool Find(std::string_view text, size_t from, Place& place) const;

  private:
    struct Free {
        void operator()(regex_t* regex) const;
    };
    std::string m_plain;  // when no character is special, which is much faster to find
    std::unique_ptr<regex_t, Free> m_regex;
};
