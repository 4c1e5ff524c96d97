// Whether a text is exactly one JSON value, checked strictly: only the standard escapes, no control
// characters in strings, no trailing commas.
#pragma once

#include <algorithm>
#include <cctype>
#include <string_view>

class JsonCheck {
  public:
    static bool IsValid(std::string_view text) {
        JsonCheck check(text);
        return check.Value(0) && check.Blanks() && check.m_text.empty();
    }

  private:
    explicit JsonCheck(std::string_view text) : m_text(text) {}

    // 0 at the end.
    char Next() {
        const char next = m_text.empty() ? '\0' : m_text[0];
        m_text.remove_prefix(m_text.empty() ? 0 : 1);
        return next;
    }
    bool Blanks() {
        m_text.remove_prefix(std::min(m_text.find_first_not_of(" \n\r\t"), m_text.size()));
        return true;
    }
    bool Take(std::string_view word) {
        (void)Blanks();
        if (!m_text.starts_with(word)) return false;
        m_text.remove_prefix(word.size());
        return true;
    }
    bool Number() {
        const size_t length = std::min(m_text.find_first_not_of("-+.0123456789eE"), m_text.size());
        m_text.remove_prefix(length);
        return length > 0;
    }
    // After the opening quote.
    bool Text() {
        for (char c = Next(); c != '"'; c = Next()) {
            if (static_cast<unsigned char>(c) < 0x20) return false;
            if (c != '\\') continue;
            const char kind = Next();
            if (kind == '\0' || std::string_view("\"\\/bfnrtu").find(kind) == m_text.npos)
                return false;
            for (int i = kind == 'u' ? 0 : 4; i < 4; ++i) {
                if (std::isxdigit(static_cast<unsigned char>(Next())) == 0) return false;
            }
        }
        return true;
    }
    bool Members(std::string_view end, int depth) {
        if (Take(end)) return true;
        do {
            if (end == "}" && !(Take("\"") && Text() && Take(":"))) return false;
            if (!Value(depth + 1)) return false;
        } while (Take(","));
        return Take(end);
    }
    bool Value(int depth) {
        if (depth > 20) return false;
        if (Take("{")) return Members("}", depth);
        if (Take("[")) return Members("]", depth);
        if (Take("\"")) return Text();
        return Take("true") || Take("false") || Take("null") || Number();
    }

    std::string_view m_text;
};
