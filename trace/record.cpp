#include "trace/record.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <new>

namespace {

constexpr std::string_view kTooBig = "\n## WARNING: TRACE-SIZE TOO BIG: Output Truncated!\n";
constexpr std::string_view kNoMemory = "\n## ERROR: No memory: Output Truncated!\n";
static_assert(kTooBig.size() == 51 && kNoMemory.size() == 40);

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

const char* SkipLineFeeds(const char* format) {
    const char* start = format;
    while (*start == '\n') ++start;
    return *start == '\0' ? format : start;
}

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

std::string_view RecordBuffer::BuildCut(const char* format, va_list args) {
    const int length = FormatText(SkipLineFeeds(format), args);
    return length < 0 ? std::string_view()
                      : Finish(std::min(static_cast<size_t>(length), kTextLimit));
}

std::string_view RecordBuffer::BuildCut(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string_view record = BuildCut(format, args);
    va_end(args);
    return record;
}

std::string_view RecordBuffer::BuildWhole(const char* format, va_list args, size_t longest,
                                          std::unique_ptr<char[]>& longRecord) {
    format = SkipLineFeeds(format);
    va_list pass;
    va_copy(pass, args);
    const auto length = static_cast<size_t>(std::max(FormatText(format, pass), 0));
    va_end(pass);
    if (length <= kTextLimit) return Finish(length);
    if (length > longest) return FinishTruncated(kTooBig);
    return BuildLong(format, args, length, longRecord);
}

std::string_view RecordBuffer::BuildLong(const char* format, va_list args, size_t length,
                                         std::unique_ptr<char[]>& longRecord) {
    constexpr size_t kBesideText = 145;  // prefix, line feed and terminator fit
    static_assert(kBesideText >= kPrefixLimit + 2);
    longRecord.reset(new (std::nothrow) char[length + kBesideText]);
    if (!longRecord) return FinishTruncated(kNoMemory);

    char* const text = longRecord.get();
    std::memcpy(text, m_text.data(), m_prefixLength);
    va_list pass;
    va_copy(pass, args);
    const int again = std::vsnprintf(text + m_prefixLength, length + 1, format, pass);
    va_end(pass);
    // Another thread may have changed a text between the two passes.
    size_t end = m_prefixLength + std::min(static_cast<size_t>(std::max(again, 0)), length);
    if (text[end - 1] != '\n') text[end++] = '\n';
    return {text, end};
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
