// Whether a text is one JSON value and nothing else, by the letter: no other escapes, no control
// characters in texts, no comma too many.
#pragma once

#include <cctype>
#include <string_view>

class JsonCheck {
  public:
    static bool IsValid(std::string_view text) {
        JsonCheck check(text);
        check.Blanks();
        return check.Value(0) && (check.Blanks(), check.m_text.empty());
    }

  private:
    explicit JsonCheck(std::string_view text) : m_text(text) {}

    bool Take(std::string_view word) {
        if (!m_text.starts_with(word)) return false;
        m_text.remove_prefix(word.size());
        return true;
    }
    void Blanks() {
        const size_t blanks = m_text.find_first_not_of(" \n\r\t");
        m_text.remove_prefix(blanks == m_text.npos ? m_text.size() : blanks);
    }
    bool Digits() {
        const size_t digits = m_text.find_first_not_of("0123456789");
        const size_t count = digits == m_text.npos ? m_text.size() : digits;
        m_text.remove_prefix(count);
        return count > 0;
    }
    bool Number() {
        (void)Take("-");
        if (m_text.size() > 1 && m_text[0] == '0' && std::isdigit(m_text[1]) != 0) return false;
        return Digits() && (!Take(".") || Digits());
    }
    bool Escape() {
        if (!Take("u")) return !m_text.empty() && Take({&"\"\\/bfnrt"[Find(m_text[0])], 1});
        for (int i = 0; i < 4; ++i, m_text.remove_prefix(1)) {
            if (m_text.empty() || std::isxdigit(static_cast<unsigned char>(m_text[0])) == 0)
                return false;
        }
        return true;
    }
    static size_t Find(char c) {
        const size_t found = std::string_view("\"\\/bfnrt").find(c);
        return found == std::string_view::npos ? 0 : found;
    }
    bool Text() {
        if (!Take("\"")) return false;
        while (!m_text.empty() && !Take("\"")) {
            if (static_cast<unsigned char>(m_text[0]) < 0x20) return false;
            if (Take("\\")) {
                if (!Escape()) return false;
                continue;
            }
            m_text.remove_prefix(1);
            if (m_text.empty()) return false;
        }
        return true;
    }
    bool Members(std::string_view end, bool isObject, int depth) {
        Blanks();
        if (Take(end)) return true;
        for (;;) {
            Blanks();
            if (isObject && !(Text() && (Blanks(), Take(":")))) return false;
            Blanks();
            if (!Value(depth + 1)) return false;
            Blanks();
            if (Take(end)) return true;
            if (!Take(",")) return false;
        }
    }
    bool Value(int depth) {
        if (depth > 20) return false;
        if (Take("{")) return Members("}", true, depth);
        if (Take("[")) return Members("]", false, depth);
        if (m_text.starts_with('"')) return Text();
        return Take("true") || Take("false") || Take("null") || Number();
    }

    std::string_view m_text;
};
