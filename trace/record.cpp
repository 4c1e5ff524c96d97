#include "trace/record.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kNotPlain = -1;

// Writes into a field, as long as everything fits.
class Writer {
  public:
    Writer(char* start, size_t size) : m_to(start), m_end(start + size) {}

    [[nodiscard]] char* Position() const { return m_to; }
    bool Put(const char* text, size_t length) {
        if (length > static_cast<size_t>(m_end - m_to)) return false;
        std::memcpy(m_to, text, length);
        m_to += length;
        return true;
    }
    bool Put(const char* text) {
        if (text == nullptr) return false;
        return Put(text, strnlen(text, static_cast<size_t>(m_end - m_to) + 1));
    }
    template <typename Number>
    bool PutNumber(Number value, int base = 10) {
        const auto result = std::to_chars(m_to, m_end, value, base);
        m_to = result.ptr;
        return result.ec == std::errc();
    }

  private:
    char* m_to;
    char* m_end;
};

// Formats with plain %s, %d, %u, %x and %% (no flags, widths or lengths), when the result fits.
// Everything else, null texts included, is left to vsnprintf.
int FormatPlain(char* buffer, size_t size, const char* format, va_list args) {
    Writer out(buffer, size - 1);
    for (bool fits = true; fits;) {
        const char* percent = strchrnul(format, '%');
        if (!out.Put(format, static_cast<size_t>(percent - format))) return kNotPlain;
        if (*percent == '\0') {
            *out.Position() = '\0';
            return static_cast<int>(out.Position() - buffer);
        }
        switch (percent[1]) {
            case 's':
                fits = out.Put(va_arg(args, const char*));
                break;
            case 'd':
                fits = out.PutNumber(va_arg(args, int));
                break;
            case 'u':
                fits = out.PutNumber(va_arg(args, unsigned));
                break;
            case 'x':
                fits = out.PutNumber(va_arg(args, unsigned), 16);
                break;
            case '%':
                fits = out.Put("%", 1);
                break;
            default:
                return kNotPlain;
        }
        format = percent + 2;
    }
    return kNotPlain;
}

}  // namespace

int FormatTraceText(char* buffer, size_t size, const char* format, va_list args) {
    va_list plain;
    va_copy(plain, args);
    const int length = FormatPlain(buffer, size, format, plain);
    va_end(plain);
    return length != kNotPlain ? length : std::vsnprintf(buffer, size, format, args);
}

void RecordBuffer::BuildPrefix(LinePrefix& prefix, const Stamp& stamp, std::string_view tag) {
    const int length = prefix.Build(m_text.data(), kPrefixLimit + 1, stamp, tag);
    m_prefixLength = std::min(static_cast<size_t>(length), kPrefixLimit);
}

int RecordBuffer::FormatText(const char* format, va_list args) {
    return FormatTraceText(m_text.data() + m_prefixLength, kTextLimit + 1, format, args);
}

int RecordBuffer::FormatText(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = FormatText(format, args);
    va_end(args);
    return length;
}

std::string_view RecordBuffer::Finish(size_t textLength) {
    assert(textLength <= kTextLimit);
    size_t length = m_prefixLength + textLength;
    if (length == 0 || m_text[length - 1] != '\n') m_text[length++] = '\n';
    return {m_text.data(), length};
}

std::string_view RecordBuffer::FinishTruncated(std::string_view why) {
    assert(why.size() <= kReasonRoom);
    std::memcpy(m_text.data() + m_prefixLength + kTextLimit, why.data(), why.size());
    return {m_text.data(), m_prefixLength + kTextLimit + why.size()};
}

const char* SkipLineFeeds(const char* format) {
    const char* start = format;
    while (*start == '\n') ++start;
    return *start == '\0' ? format : start;
}
