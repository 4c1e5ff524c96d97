// The process-wide trace object `Debug`.
//
// Ready before `main` and before any constructor of a static object, and usable until the process
// is gone: at its end it is closed, never destroyed, and every later call does nothing. Any thread
// may call anything; one recursive lock guards the whole object. Nothing throws, and a thread that
// is cancelled inside an operation is cancelled after it. In a child that a process forks after
// Init, tracing is off for good; a signal handler must not trace.
//
// A record has a level, 1 (failures, major steps) to 6 (finest detail), and is written when it is
// not above the trace level in force. Level 0 is written whenever there is a target.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <string_view>

#include "base/cancel_guard.h"
#include "base/never_destroyed.h"
#include "base/recursive_mutex.h"
#include "kemd/api.h"
#include "trace/header.h"
#include "trace/trace_config.h"
#include "trace/trace_files.h"

enum TraceTarget : uint32_t {
    kTargetNone = 0,  // Trace writes nothing, Message still writes to the log file
    kTargetLog = 1,
    kTargetRing = 2,
};

// Where the records of a program go that is not the daemon. Any thread calls `write`; its level 0
// is a message, `tag` may be null.
struct TraceRedirection {
    void (*write)(const char* tag, unsigned level, const char* format, va_list args) = nullptr;
    const std::atomic<uint32_t>* level = nullptr;  // in force; 0: no records, only messages
};

class CDebug : public CDebugTraceConfig {
  public:
    constexpr CDebug() = default;
    explicit CDebug(const char* moduleName);
    CDebug(const CDebug&) = delete;
    CDebug& operator=(const CDebug&) = delete;

    // The order of the virtual functions is a binary interface: slots 0 and 1 the destructor pair,
    // then 2 to 8 as they stand.
    virtual ~CDebug();
    virtual bool IsAvailable() const { return true; }
    // Reads the configuration, opens the log file of `moduleName` (null or empty: keeps the name)
    // and, when the settings ask for it, the start-up ring buffer. Closes what was open before.
    // False only when a ring buffer was tried and failed; the object works on without it.
    virtual bool Init(const char* moduleName);
    virtual void Trace(unsigned level, const char* format, ...) KEMD_PRINTF(3, 4);
    // Written whatever the level: into the ring buffer when that is the target, and in every case
    // into the log file. The level of the second form is ignored.
    virtual void Message(const char* format, ...) KEMD_PRINTF(2, 3);
    virtual void Message(unsigned level, const char* format, ...) KEMD_PRINTF(3, 4);
    // `tag` stands in the prefix in place of the module name; null: the module name.
    virtual void MessageV(const char* format, va_list args, const char* tag) KEMD_PRINTF(2, 0);
    // One record to the current target, without a level test.
    virtual void TraceV(const char* format, va_list args, const char* tag) KEMD_PRINTF(2, 0);

    // Trace for callers with a prepared argument list.
    void TraceArgs(unsigned level, const char* format, va_list args) KEMD_PRINTF(3, 0);
    void TraceTagged(unsigned level, const char* format, va_list args, const char* tag)
        KEMD_PRINTF(3, 0);

    // Keeps both for the header (they must live as long as the process) and writes them.
    void SetCommandLine(int argc, char** argv);
    // Ends the start-up phase: the log keeps what it holds, the start-up ring buffer is compressed
    // and the run-time one opened. Works once after each Init.
    void InitDone();
    // False: trace level 0 and tracing off. True: the configured level and tracing on.
    bool SwitchTrace(bool on);
    // Brings log and ring buffer to the disk, without the lock. 0 or an errno number.
    int Sync();
    // Another level, until the settings are read again or SwitchTrace. False when no file of the
    // target is open.
    bool SetTraceLevel(unsigned level);
    // See kemd/trace.h.
    void ShareLevel(uint32_t* shared);
    void Forward(const char* tag, unsigned level, uint32_t thread, const char* text);
    // For good, and in place of Init: before the first thread, which see it without the lock.
    void Redirect(const TraceRedirection& redirection);
    // Where records go in place of the files; `write` is null when nowhere else.
    [[nodiscard]] const TraceRedirection& Redirection() const { return m_redirection; }
    void SetTraceTarget(unsigned target);
    void WriteHeader(TraceTarget destination);
    int FormatLinePrefix(char* buffer, size_t size, const char* tag);
    // The process that called Init; 0 before.
    [[nodiscard]] pid_t ProcessId() const { return m_processId; }
    [[nodiscard]] const char* LogPath() const { return m_files.LogPath(); }
    // errno of the failed attempt to open the log file; 0 when it is open.
    [[nodiscard]] int LogError() const { return m_files.LogError(); }
    // Everything off and closed. Later calls do nothing until the next Init.
    void Close();
    // In the child of a fork: every later call does nothing, takes no lock and leaves the parent's
    // files alone, Init included. Safe whatever other threads of the parent were doing.
    void AbandonInChild();

  private:
    // A cancelled thread must not die with the lock: cancellation stays off while it is held. The
    // one exception is a record for the ring buffer, whose path has no cancellation point but those
    // that hold it off themselves (switching it costs a fifth of such a record).
    class Lock {
      public:
        explicit Lock(CDebug& debug) : m_lock(debug.m_lock) {}

      private:
        CancelGuard m_guard;
        RecursiveLock m_lock;
    };
    struct HeaderLines;

    [[nodiscard]] Stamp MakeStamp() const;
    [[nodiscard]] std::string_view TagOrName(const char* tag) const;
    void WriteRecord(uint32_t target, const char* format, va_list args, const char* tag)
        KEMD_PRINTF(3, 0);
    void WriteRedirected(unsigned level, const char* format, va_list args, const char* tag)
        KEMD_PRINTF(3, 0);
    void WriteForwarded(const char* tag, bool isMessage, uint32_t thread, const char* format, ...)
        KEMD_PRINTF(5, 6);
    // A record of the trace object itself.
    void WriteNote(TraceTarget destination, const char* format, ...) KEMD_PRINTF(3, 4);
    // The ring is mapped. Begins the next cycle of one that is full.
    void WriteToRing(const Stamp& stamp, const char* format, va_list args, const char* tag)
        KEMD_PRINTF(3, 0);

    void SetModuleName(const char* moduleName);
    void FormatPath(Path& path, const char* suffix) const;
    void FormatRingPaths();
    [[nodiscard]] bool InitRingBuffer(const char* path, int64_t size);
    [[nodiscard]] bool FillRing(int64_t size);
    void SwitchOff();
    void SwitchToRuntimeRing();
    [[nodiscard]] HeaderFacts MakeHeaderFacts() const;

    RecursiveMutex m_lock;
    pid_t m_processId = 0;
    int m_argumentCount = 0;
    char** m_arguments = nullptr;
    std::array<char, 26> m_startTime{};  // shown nowhere: for the reader of a core file
    std::atomic<uint32_t> m_target{kTargetNone};
    bool m_startupEnded = false;
    bool m_closed = false;
    bool m_abandoned = false;
    bool m_initDone = false;  // as the header shows it: set with the run-time ring buffer only
    int64_t m_ringSize = 0;   // bytes; four times the configured size during start-up
    Path m_runtimeRingPath;
    Path m_startupRingPath;
    TraceFiles m_files;
    EnvironmentSnapshot m_environment;
    TraceRedirection m_redirection;
};

// The one object, as the union that keeps it from being destroyed. The executable exports it as
// `Debug`: extension modules in any language find the object itself there, with its virtual table
// first (kemd/trace_object.h).
extern KEMD_API NeverDestroyed<CDebug> g_debugObject __asm__("Debug");
// NOLINTNEXTLINE(readability-identifier-naming): used like the object that it stands for
static constexpr CDebug& Debug = g_debugObject.object;

// What every caller in the tree uses for level-filtered records: a daemon whose tracing is off
// makes no call at all.
#define TRACE(level, ...)                                         \
    do {                                                          \
        if (Debug.IsTraceOn()) Debug.Trace((level), __VA_ARGS__); \
    } while (0)
