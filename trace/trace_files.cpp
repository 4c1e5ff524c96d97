#include "trace/trace_files.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "trace/texts.h"

void TraceFiles::OpenLog(const char* path, uint32_t limit) {
    m_logPath.Assign(path);
    m_log.SetLimit(limit);
    errno = 0;
    m_logError = m_log.Open(path) ? 0 : errno;
    if (m_log.IsOpen()) return;
    syslog(LOG_ERR, "ERROR: Error during opening %s --> proceed without it\n", path);
}

void TraceFiles::Close() {
    m_ring.Close();
    m_log.Close();
}

void TraceFiles::Forget() {
    m_ring.Forget();
    m_log.Forget();
}

void TraceFiles::WriteToLog(const Stamp& stamp, std::string_view tag, const char* format,
                            va_list args) {
    if (!m_log.IsOpen()) return;
    m_record.BuildPrefix(m_prefix, stamp, tag);
    const std::string_view record = m_record.BuildCut(format, args);
    if (!record.empty() && m_log.Append(record)) WrapLog();
}

void TraceFiles::WrapLog() {
    if (!m_log.BeginCycle()) {
        syslog(LOG_ERR, "ERROR: fseek failed for %s (errno=%d) --> rewind it\n", m_logPath.Get(),
               errno);
    }
    // The prefix is that of the record which crossed the limit.
    (void)m_log.Append(m_record.BuildCut(
        "%s%d, %s%u, CurrentByteCnt=%u (MaxCnt=%u)\n", trace_text::kWrap.data(), m_log.Cycle(),
        trace_text::kWrapStart.data(), m_log.StartupCount(), m_log.StartupCount(), m_log.Limit()));
}

bool TraceFiles::WriteToRing(const Stamp& stamp, std::string_view tag, const char* format,
                             va_list args) {
    m_record.BuildPrefix(m_prefix, stamp, tag);
    const std::string_view record = m_record.BuildWhole(format, args, LongestText(), m_longRecord);
    if (!m_ring.Append(record)) {
        m_ring.BeginCycle();
        m_waiting = record;
        return false;
    }
    if (m_longRecord) m_longRecord.reset();
    m_ring.WakeFollowers(stamp.time);
    return true;
}

void TraceFiles::Resume(const Stamp& stamp) {
    m_ring.Resume(m_waiting);
    m_longRecord.reset();
    m_ring.WakeFollowers(stamp.time);
}

void TraceFiles::WriteHeaderToRing(RecordBuffer& buffer, const Stamp& stamp, std::string_view tag,
                                   const char* format, va_list args) {
    std::unique_ptr<char[]> longRecord;
    buffer.BuildPrefix(m_prefix, stamp, tag);
    (void)m_ring.Append(buffer.BuildWhole(format, args, LongestText(), longRecord));
}

bool TraceFiles::FillRing(const Stamp& stamp, std::string_view tag, int64_t size) {
    constexpr auto kLine = static_cast<size_t>(RingBuffer::kLineLength);
    std::array<char, kFillBlock> block{};
    const int length = m_prefix.Build(block.data(), RecordBuffer::kPrefixLimit + 1, stamp, tag);
    const size_t start = std::min(static_cast<size_t>(length), RecordBuffer::kPrefixLimit);
    std::memset(&block[start], '_', kLine - start - 1);
    block[kLine - 1] = '\n';
    // The last line is written whole, also when the size ends within it.
    const size_t bytes =
        (static_cast<size_t>(std::min(size, kFillBlock)) + kLine - 1) / kLine * kLine;
    for (size_t line = kLine; line < bytes; line += kLine) {
        std::memcpy(&block[line], block.data(), kLine);
    }
    return m_ring.Fill({block.data(), bytes});
}
