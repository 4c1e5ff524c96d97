#include "trace/record.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "trace/format.h"

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
