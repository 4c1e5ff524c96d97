// The open trace files of one module, a log and a ring, and the way of a record into them: prefix
// and text are put together here, the log wraps by itself, and a full ring says so.
//
// Takes values and decides nothing else: the caller holds the trace object's lock.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "base/fixed_string.h"
#include "kemd/api.h"
#include "trace/line_prefix.h"
#include "trace/log_file.h"
#include "trace/record.h"
#include "trace/ring_buffer.h"

class TraceFiles {
  public:
    [[nodiscard]] RingBuffer& Ring() { return m_ring; }
    [[nodiscard]] LogFile& Log() { return m_log; }
    [[nodiscard]] const RingBuffer& Ring() const { return m_ring; }
    [[nodiscard]] const LogFile& Log() const { return m_log; }

    // A failure goes to the system log; records for the log are dropped then.
    void OpenLog(const char* path, uint32_t limit);
    [[nodiscard]] const char* LogPath() const { return m_logPath.Get(); }
    // errno of the failed attempt to open the log; 0 when it is open.
    [[nodiscard]] int LogError() const { return m_logError; }
    void Close();
    // In the child of a fork: the files are the parent's.
    void Forget();

    // Like snprintf.
    int FormatPrefix(char* buffer, size_t size, const Stamp& stamp, std::string_view tag) {
        return m_prefix.Build(buffer, size, stamp, tag);
    }

    // Drops the record when the log is not open. Begins the next cycle when the limit is passed.
    void WriteToLog(const Stamp& stamp, std::string_view tag, const char* format, va_list args)
        KEMD_PRINTF(4, 0);

    // The ring is mapped. False when it is full: the record waits, and the ring stands at its start
    // for the lines of a header. Resume then puts the record into the new cycle.
    [[nodiscard]] bool WriteToRing(const Stamp& stamp, std::string_view tag, const char* format,
                                   va_list args) KEMD_PRINTF(4, 0);
    void Resume(const Stamp& stamp);
    // A header never begins a cycle: a line that does not fit is left out. The buffer is the
    // caller's, because a record may wait in the common one.
    void WriteHeaderToRing(RecordBuffer& buffer, const Stamp& stamp, std::string_view tag,
                           const char* format, va_list args) KEMD_PRINTF(5, 0);
    // Fills at most kFillBlock of the `size` bytes of a ring that is not mapped yet.
    static constexpr int64_t kFillBlock = 16 * RingBuffer::kLineLength;
    [[nodiscard]] bool FillRing(const Stamp& stamp, std::string_view tag, int64_t size);

  private:
    void WrapLog();
    [[nodiscard]] size_t LongestText() const { return m_ring.Size() / 10; }

    RingBuffer m_ring;
    FixedString<256> m_logPath;
    LogFile m_log;
    int m_logError = 0;
    LinePrefix m_prefix;
    RecordBuffer m_record;
    std::unique_ptr<char[]> m_longRecord;  // one that m_record has no room for
    std::string_view m_waiting;            // for Resume
};
