// Reads the text of a file of /proc from front to back: blanks, words and numbers of lines. Nothing
// is allocated and no byte after the end is read.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

class TextCursor {
  public:
    explicit TextCursor(std::string_view text)
        : m_at(text.data()), m_end(text.data() + text.size()) {}

    [[nodiscard]] bool AtEnd() const { return m_at == m_end; }
    // The next number of this line. False, and nothing is skipped but blanks, when there is none.
    bool Number(uint64_t& value) {
        SkipBlanks();
        if (m_at == m_end || !IsDigit(*m_at)) return false;
        uint64_t number = 0;
        do number = number * 10 + static_cast<uint64_t>(*m_at++ - '0');
        while (m_at != m_end && IsDigit(*m_at));
        value = number;
        return true;
    }
    // Up to the next blank or the end of the line; empty at the end of the line.
    std::string_view Word() {
        SkipBlanks();
        const char* const begin = m_at;
        while (m_at != m_end && !IsBlank(*m_at) && *m_at != '\n') ++m_at;
        return {begin, static_cast<size_t>(m_at - begin)};
    }
    // Whether the text goes on with this, which is then skipped.
    bool Skip(std::string_view text) {
        if (!Rest().starts_with(text)) return false;
        m_at += text.size();
        return true;
    }
    // To the start of the next line; false when the text ends before.
    bool NextLine() {
        if (m_at == m_end) return false;  // an empty text may be null
        const void* const feed = std::memchr(m_at, '\n', static_cast<size_t>(m_end - m_at));
        m_at = feed != nullptr ? static_cast<const char*>(feed) + 1 : m_end;
        return feed != nullptr;
    }
    // The rest of the line without its line feed; goes on to the next line.
    std::string_view Line() {
        const char* const begin = m_at;
        const bool hasFeed = NextLine();
        return {begin, static_cast<size_t>(m_at - begin) - (hasFeed ? 1 : 0)};
    }
    [[nodiscard]] std::string_view Rest() const {
        return {m_at, static_cast<size_t>(m_end - m_at)};
    }

  private:
    static bool IsDigit(char c) { return c >= '0' && c <= '9'; }
    static bool IsBlank(char c) { return c == ' ' || c == '\t'; }
    void SkipBlanks() {
        while (m_at != m_end && IsBlank(*m_at)) ++m_at;
    }

    const char* m_at;
    const char* m_end;
};
