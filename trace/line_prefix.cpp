#include "trace/line_prefix.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "base/cancel_guard.h"
#include "trace/texts.h"

namespace {

using trace_text::kTagWidth;

// What stands before the tag at most, so that it is written without bounds checks: time (at most
// 25), thread (12), columns.
constexpr size_t kNumberLength = 20;  // of the largest number
constexpr size_t HeadCapacity() {
    size_t capacity = 25 + 12;
    for (const auto& [width, unit] : trace_text::kColumns) {
        capacity += std::max(width, kNumberLength) + unit.size();
    }
    return capacity;
}
constexpr size_t kHeadCapacity = HeadCapacity();
static_assert(kHeadCapacity + kTagWidth + 1 <= trace_text::kPrefixLimit);

char* Put(char* to, std::string_view text) {
    std::memcpy(to, text.data(), text.size());
    return to + text.size();
}

char* PutMilliseconds(char* to, suseconds_t microseconds) {
    const auto value = static_cast<unsigned>(microseconds / 1000);
    *to++ = '.';
    *to++ = static_cast<char>('0' + value / 100);
    *to++ = static_cast<char>('0' + value / 10 % 10);
    *to++ = static_cast<char>('0' + value % 10);
    return to;
}

char* PutColumn(char* to, uint64_t value, const trace_text::ColumnForm& form) {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): hot path
    std::array<char, kNumberLength> digits;
    const char* end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    const auto length = static_cast<size_t>(end - digits.data());
    for (size_t column = length; column < form.width; ++column) *to++ = ' ';
    to = Put(to, {digits.data(), length});
    return Put(to, form.unit);
}

// Writes text at an offset of a field, cut to what the field holds.
void PutCut(char* buffer, size_t size, size_t offset, std::string_view text) {
    if (offset < size) {
        std::memcpy(buffer + offset, text.data(), std::min(text.size(), size - offset));
    }
}

}  // namespace

void LinePrefix::FormatSecond(time_t second) {
    const CancelGuard guard;  // the time zone may have to be read from a file
    tm local{};
    m_second = second;
    m_length = 0;
    if (localtime_r(&second, &local) == nullptr) return;
    m_length = std::strftime(m_text.data(), m_text.size(), "%F %H:%M:%S", &local);
}

void LinePrefix::FormatThread(uint32_t thread) {
    m_thread = thread;
    char* to = Put(m_threadText.data(), " [");
    for (int shift = 28; shift >= 0; shift -= 4) *to++ = "0123456789ABCDEF"[thread >> shift & 15];
    Put(to, "] ");
}

size_t LinePrefix::BuildHead(char* buffer, const Stamp& stamp) {
    if (stamp.time.tv_sec != m_second || m_length == 0) FormatSecond(stamp.time.tv_sec);
    if (stamp.thread != m_thread || m_threadText[0] == '\0') FormatThread(stamp.thread);
    char* to = buffer;
    if (m_length != 0) {
        to = PutMilliseconds(Put(to, {m_text.data(), m_length}), stamp.time.tv_usec);
    } else {
        to = Put(to, trace_text::kUnknownTime);
    }
    to = Put(to, {m_threadText.data(), m_threadText.size()});
    for (size_t i = 0; i < stamp.columns.size(); ++i) {
        if (stamp.columns[i]) to = PutColumn(to, *stamp.columns[i], trace_text::kColumns[i]);
    }
    return static_cast<size_t>(to - buffer);
}

int LinePrefix::Build(char* buffer, size_t size, const Stamp& stamp, std::string_view tag) {
    const size_t room = size > 0 ? size - 1 : 0;
    size_t head = 0;
    if (room >= kHeadCapacity) {
        head = BuildHead(buffer, stamp);
    } else {
        std::array<char, kHeadCapacity> whole{};
        head = BuildHead(whole.data(), stamp);
        PutCut(buffer, room, 0, {whole.data(), head});
    }
    constexpr std::string_view kBlanks = "              ";
    static_assert(kBlanks.size() == kTagWidth + 1);
    const size_t padding = tag.size() < kTagWidth ? kTagWidth - tag.size() : 0;
    const size_t needed = head + tag.size() + padding + 1;
    PutCut(buffer, room, head, tag);
    PutCut(buffer, room, head + tag.size(), kBlanks.substr(0, padding + 1));
    if (size > 0) buffer[std::min(needed, room)] = '\0';
    return static_cast<int>(needed);
}
