// One record on its way to a file, and the one place where record, header and file meet: a full
// file says so, and the trace object begins the next cycle. The lock is held throughout.
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "trace/debug.h"
#include "trace/texts.h"

namespace {

constexpr std::string_view kTooBig = "\n## WARNING: TRACE-SIZE TOO BIG: Output Truncated!\n";
constexpr std::string_view kNoMemory = "\n## ERROR: No memory: Output Truncated!\n";
constexpr int kWakePause = 10'000;  // microseconds
static_assert(kTooBig.size() == 51 && kNoMemory.size() == 40);

}  // namespace

void CDebug::WriteToLog(const Stamp& stamp, const char* tag, const char* format, va_list args) {
    if (!m_log.IsOpen()) return;
    m_record.BuildPrefix(m_prefix, stamp, TagOrName(tag));
    const int length = m_record.FormatText(SkipLineFeeds(format), args);
    if (length < 0) return;
    const size_t kept = std::min(static_cast<size_t>(length), RecordBuffer::kTextLimit);
    if (m_log.Append(m_record.Finish(kept))) WrapLog();
}

void CDebug::WrapLog() {
    if (!m_log.BeginCycle()) {
        syslog(LOG_ERR, "ERROR: fseek failed for %s (errno=%d) --> rewind it\n", m_logPath.Get(),
               errno);
    }
    // The prefix is that of the record which crossed the limit.
    const int length = m_record.FormatText(
        "%s%d, %s%u, CurrentByteCnt=%u (MaxCnt=%u)\n", trace_text::kWrap.data(), m_log.Cycle(),
        trace_text::kWrapStart.data(), m_log.StartupCount(), m_log.StartupCount(), m_log.Limit());
    (void)m_log.Append(m_record.Finish(static_cast<size_t>(length)));
}

bool CDebug::InitRingBuffer(const char* path, int64_t size) {
    constexpr const char* kMapFailed = "\n%smmap of %s failed (errno=%d; %s) ###";
    const char* const failure = trace_text::kRingFailure.data();
    if (size < 0 || size > INT32_MAX) {
        // Beyond what the pre-fill counts: a hole in the file would be a fault at the first store.
        WriteNote(kTargetLog, kMapFailed, failure, path, EFBIG, std::strerror(EFBIG));
        return false;
    }
    if (!m_ring.Create(path)) {
        const int error = errno;
        WriteNote(kTargetLog, "\n%sopen of %s failed (errno=%d; %s) ###", failure, path, error,
                  std::strerror(error));
        return false;
    }
    if (!FillRing(size)) {
        m_ring.Discard();
        WriteNote(kTargetLog, "\n%s(2) write m_InternalDebugBuffer to %s failed ###", failure,
                  path);
        return false;
    }
    if (!m_ring.Map(static_cast<size_t>(size))) {
        const int error = errno;
        m_ring.Discard();
        WriteNote(kTargetLog, kMapFailed, failure, path, error, std::strerror(error));
        return false;
    }
    m_target = kTargetRing;
    WriteHeader(kTargetRing);
    m_ring.EndHeader();
    WriteNote(kTargetRing, "\n%s", trace_text::kRingBegin.data());
    m_ring.SetRestart();
    WriteNote(kTargetRing, "\n%s", trace_text::kRingStart.data());
    return true;
}

bool CDebug::FillRing(int64_t size) {
    // Lines go out in blocks that share one stamp: reading the memory figure and one write for each
    // of them would take most of the daemon's start.
    constexpr int64_t kLines = 16;
    std::array<char, kLines * RingBuffer::kLineLength> block{};
    while (size > 0) {
        FillLine(block.data());
        for (int64_t line = 1; line < kLines; ++line) {
            std::memcpy(&block[line * RingBuffer::kLineLength], block.data(),
                        RingBuffer::kLineLength);
        }
        // The last line is written whole, also when the size ends within it.
        const int64_t lines =
            std::min((size + RingBuffer::kLineLength - 1) / RingBuffer::kLineLength, kLines);
        const auto length = static_cast<size_t>(lines) * RingBuffer::kLineLength;
        if (!m_ring.Fill({block.data(), length})) return false;
        size -= lines * RingBuffer::kLineLength;
    }
    return true;
}

void CDebug::FillLine(char* line) {
    const int length =
        m_prefix.Build(line, RecordBuffer::kPrefixLimit + 1, MakeStamp(), TagOrName(nullptr));
    const size_t start = std::min(static_cast<size_t>(length), RecordBuffer::kPrefixLimit);
    std::memset(line + start, '_', RingBuffer::kLineLength - start - 1);
    line[RingBuffer::kLineLength - 1] = '\n';
}

// Whoever follows the ring looks again this long after it was woken: what is written in between
// needs no call. Most records are told by the second alone.
inline void CDebug::WakeFollowers(const timeval& now) {
    const auto passed = static_cast<uint64_t>(now.tv_usec - m_lastWake.tv_usec);
    if (now.tv_sec != m_lastWake.tv_sec || passed >= kWakePause) WakeNow(now);
}

void CDebug::WakeNow(const timeval& now) {
    timeval passed{};
    timersub(&now, &m_lastWake, &passed);
    const bool isSoon = passed.tv_sec == 0 && passed.tv_usec < kWakePause;
    if (isSoon || m_writingHeader) return;
    m_lastWake = now;
    const CancelGuard guard;
    m_ring.Touch();
}

void CDebug::WriteToRing(RecordBuffer& buffer, const Stamp& stamp, const char* tag,
                         const char* format, va_list args) {
    if (!m_ring.IsMapped()) return;
    format = SkipLineFeeds(format);
    buffer.BuildPrefix(m_prefix, stamp, TagOrName(tag));
    va_list pass;
    va_copy(pass, args);
    const int result = buffer.FormatText(format, pass);
    va_end(pass);
    const auto length = static_cast<size_t>(std::max(result, 0));
    if (length > RecordBuffer::kTextLimit) {
        WriteLongToRing(buffer, length, format, args);
    } else {
        PutIntoRing(buffer.Finish(length));
    }
    WakeFollowers(stamp.time);
}

void CDebug::WriteLongToRing(RecordBuffer& buffer, size_t length, const char* format,
                             va_list args) {
    if (length > m_ring.Size() / 10) return PutIntoRing(buffer.FinishTruncated(kTooBig));
    constexpr size_t kBesideText = 145;  // prefix, line feed and terminator fit
    const std::unique_ptr<char[]> text(new (std::nothrow) char[length + kBesideText]);
    if (!text) return PutIntoRing(buffer.FinishTruncated(kNoMemory));

    const std::string_view prefix = buffer.Prefix();
    std::memcpy(text.get(), prefix.data(), prefix.size());
    va_list pass;
    va_copy(pass, args);
    const int result = std::vsnprintf(text.get() + prefix.size(), length + 1, format, pass);
    va_end(pass);
    // Another thread may have changed a text between the two passes.
    size_t end = prefix.size() + std::min(static_cast<size_t>(std::max(result, 0)), length);
    if (text[end - 1] != '\n') text[end++] = '\n';
    PutIntoRing({text.get(), end});
}

void CDebug::PutIntoRing(std::string_view record) {
    if (m_ring.Append(record) || m_writingHeader) return;  // a header never wraps
    m_ring.BeginCycle();
    WriteHeader(kTargetRing);
    m_ring.Resume(record);
}
