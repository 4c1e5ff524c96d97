#include "trace/debug.h"

#include <pthread.h>
#include <sys/time.h>
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/unique_fd.h"
#include "kemd/process_status.h"
#include "trace/texts.h"

// Ready before the first constructor of a static object and there after the last destructor.
constinit NeverDestroyed<CDebug> g_debugObject;

// Not before Init: the daemon forks to detach, and that child traces.
static void AbandonInChild() {
    if (Debug.ProcessId() != 0) Debug.AbandonInChild();
}

__attribute__((constructor)) static void WatchForks() {
    (void)pthread_atfork(nullptr, nullptr, AbandonInChild);
}

// The lowest priority number runs last, after every destructor of the executable. Not in a child
// that was made without the handlers of a fork: the thread that holds the lock may not exist there.
__attribute__((destructor(101))) static void CloseDebug() {
    if (Debug.ProcessId() == getpid()) Debug.Close();
}

namespace {

constexpr int64_t kStartupFactor = 4;

void FormatStartTime(std::array<char, 26>& text) {
    const time_t now = time(nullptr);
    tm local{};
    if (localtime_r(&now, &local) == nullptr || asctime_r(&local, text.data()) == nullptr) {
        std::snprintf(text.data(), text.size(), "\nwww mmm dd hh:mm:ss yyyy");
    }
}

}  // namespace

inline std::string_view CDebug::TagOrName(const char* tag) const {
    return tag != nullptr ? tag : ModuleName();
}

// Inline: a call is 2 % of a record.
inline void CDebug::WriteToRing(const Stamp& stamp, const char* format, va_list args,
                                const char* tag) {
    if (m_files.WriteToRing(stamp, TagOrName(tag), format, args)) return;
    WriteHeader(kTargetRing);
    m_files.Resume(stamp);
}

// Where the lines of a header go, all with one stamp: a command line may have a hundred thousand.
struct CDebug::HeaderLines {
    CDebug& debug;
    const Stamp stamp;
    RecordBuffer buffer = {};

    static void ToLog(void* context, const char* format, va_list args) {
        auto& [debug, stamp, buffer] = *static_cast<HeaderLines*>(context);
        debug.m_files.WriteToLog(stamp, debug.ModuleName(), format, args);
    }
    // As any other record; the ring is mapped.
    static void ToRing(void* context, const char* format, va_list args) {
        auto& [debug, stamp, buffer] = *static_cast<HeaderLines*>(context);
        debug.WriteToRing(stamp, format, args, nullptr);
    }
    static void ToRingHeader(void* context, const char* format, va_list args) {
        auto& [debug, stamp, buffer] = *static_cast<HeaderLines*>(context);
        debug.m_files.WriteHeaderToRing(buffer, stamp, debug.ModuleName(), format, args);
    }
};

CDebug::CDebug(const char* moduleName) {
    if (CDebug::Init(moduleName)) return;
    syslog(LOG_ERR, "ERROR: Error during initialization of the CDebug instance.\n");
}

CDebug::~CDebug() {
    Close();
}

bool CDebug::Init(const char* moduleName) {
    const Lock lock(*this);
    if (m_abandoned) return false;
    m_target = kTargetNone;
    m_files.Close();
    m_startupEnded = false;
    m_initDone = false;
    m_closed = false;
    SetModuleName(moduleName);
    m_processId = getpid();
    FormatStartTime(m_startTime);
    m_environment.Take();
    ReadTraceConfig(ModuleName());
    SetTraceOn(TraceLevel() != 0);
    Path path;
    FormatPath(path, "");
    m_files.OpenLog(path.Get(), m_inForce.logLimit);

    bool opened = true;
    m_ringSize = IsTraceOn() ? kStartupFactor * ComputeRingSize() : 0;
    FormatRingPaths();
    if (m_ringSize != 0) opened = InitRingBuffer(m_startupRingPath.Get(), m_ringSize);
    if (!m_files.Ring().IsMapped()) SwitchOff();
    if (m_inForce.noHeader == 0) WriteHeader(kTargetLog);
    SetTraceOn(TraceLevel() != 0);
    return opened;
}

void CDebug::SetModuleName(const char* moduleName) {
    if (moduleName == nullptr || *moduleName == '\0') return;
    m_moduleName = CopyText(moduleName);
}

void CDebug::FormatPath(Path& path, const char* suffix) const {
    Path name;
    name.Assign(ModuleName());
    ToLowerCase(name.Get());
    path.Format("%s/log.%s%s", m_inForce.logDirectory.Get(), name.Get(), suffix);
}

// Required: without a ring the header shows no path for it.
void CDebug::FormatRingPaths() {
    m_runtimeRingPath.Clear();
    m_startupRingPath.Clear();
    if (m_ringSize == 0) return;
    FormatPath(m_runtimeRingPath, "_a");
    FormatPath(m_startupRingPath, "_i");
}

void CDebug::SetCommandLine(int argc, char** argv) {
    const Lock lock(*this);
    m_argumentCount = argc;
    m_arguments = argv;
    // One stamp, so that a reader of both files sees that they hold the same.
    HeaderLines lines{*this, MakeStamp()};
    EmitCommandLine(MakeHeaderFacts(), {HeaderLines::ToLog, &lines});
    if (m_target != kTargetRing || !m_files.Ring().IsMapped()) return;
    EmitCommandLine(MakeHeaderFacts(), {HeaderLines::ToRing, &lines});
}

void CDebug::WriteHeader(TraceTarget destination) {
    const Lock lock(*this);
    HeaderLines lines{*this, MakeStamp()};
    const bool isLog = destination == kTargetLog;
    EmitHeader(MakeHeaderFacts(), *this,
               {isLog ? HeaderLines::ToLog : HeaderLines::ToRingHeader, &lines});
}

HeaderFacts CDebug::MakeHeaderFacts() const {
    return {ModuleName(),
            m_argumentCount,
            m_arguments,
            m_environment,
            m_processId,
            m_target,
            m_initDone,
            m_files.LogPath(),
            m_files.Log().Limit(),
            m_files.Ring().Descriptor(),
            m_ringSize,
            m_runtimeRingPath.Get()};
}

void CDebug::InitDone() {
    const Lock lock(*this);
    if (m_startupEnded) return;
    m_startupEnded = true;
    m_files.Log().MarkStartupEnd();
    if (m_target == kTargetRing && m_files.Ring().IsMapped()) SwitchToRuntimeRing();
}

void CDebug::SwitchToRuntimeRing() {
    WriteNote(kTargetRing, "\n### End of initialization. ###");
    // Tracing stays on: records of other threads wait for the lock and go into the new ring.
    m_files.Ring().Close();
    if (!CompressFile(m_startupRingPath.Get())) {
        WriteNote(kTargetLog, "\n### gziping of startup log file failed -> it doesn't matter ###");
    }
    m_ringSize /= kStartupFactor;
    const bool opened = InitRingBuffer(m_runtimeRingPath.Get(), m_ringSize);
    if (!opened) SwitchOff();
    SetTraceOn(opened);
    m_initDone = true;
}

bool CDebug::SwitchTrace(bool on) {
    const Lock lock(*this);
    if (m_closed) return true;
    SetLevel(on ? SavedTraceLevel() : 0);
    SetTraceOn(on);
    return true;
}

bool CDebug::SetTraceLevel(unsigned level) {
    const Lock lock(*this);
    const bool isOpen = m_target == kTargetRing  ? m_files.Ring().IsMapped()
                        : m_target == kTargetLog ? m_files.Log().IsOpen()
                                                 : false;
    if (m_closed || !isOpen) return false;
    SetLevel(level);
    SetTraceOn(level != 0);
    return true;
}

void CDebug::ShareLevel(uint32_t* shared) {
    const Lock lock(*this);
    ShareLevelWith(shared);
}

// The interval that is not 0 lets every record pass the level test of the hot path.
void CDebug::Redirect(const TraceRedirection& redirection) {
    const Lock lock(*this);
    m_redirection = redirection;
    m_updateInterval = 1;
    SetTraceOn(true);
}

// Closed meanwhile or replaced, a file stays open by its copy.
int CDebug::Sync() {
    UniqueFd log;
    UniqueFd ring;
    {
        const Lock lock(*this);
        if (m_closed) return 0;
        log.Reset(fcntl(m_files.Log().Descriptor(), F_DUPFD_CLOEXEC, 0));
        ring.Reset(fcntl(m_files.Ring().Descriptor(), F_DUPFD_CLOEXEC, 0));
    }
    int error = 0;
    for (const UniqueFd* const file : {&log, &ring}) {
        if (file->IsOpen() && fsync(file->Get()) != 0) error = errno;
    }
    return error;
}

void CDebug::SetTraceTarget(unsigned target) {
    m_target = target;
}

void CDebug::SwitchOff() {
    SetTraceOn(false);
    m_target = kTargetNone;
    SetLevel(0);
    m_savedLevel = 0;
}

void CDebug::Close() {
    const Lock lock(*this);
    m_argumentCount = 0;
    m_arguments = nullptr;
    m_updateInterval = 0;
    SwitchOff();
    m_files.Close();
    m_closed = true;
}

// Nothing is unmapped or closed: another thread of the parent may have been about to do so, and the
// address or number may be something else's by now.
void CDebug::AbandonInChild() {
    m_lock.Abandon();
    m_abandoned = true;
    m_closed = true;
    ShareLevelWith(nullptr);  // the page is the parent's
    m_updateInterval = 0;
    SwitchOff();
    m_files.Forget();
}

bool CDebug::InitRingBuffer(const char* path, int64_t size) {
    RingBuffer& ring = m_files.Ring();
    constexpr const char* kMapFailed = "\n%smmap of %s failed (errno=%d; %s) ###";
    const char* const failure = trace_text::kRingFailure.data();
    if (size < 0 || size > INT32_MAX) {
        // Beyond what the pre-fill counts: a hole in the file would be a fault at the first store.
        WriteNote(kTargetLog, kMapFailed, failure, path, EFBIG, std::strerror(EFBIG));
        return false;
    }
    if (!ring.Create(path)) {
        const int error = errno;
        WriteNote(kTargetLog, "\n%sopen of %s failed (errno=%d; %s) ###", failure, path, error,
                  std::strerror(error));
        return false;
    }
    if (!FillRing(size)) {
        ring.Discard();
        WriteNote(kTargetLog, "\n%s(2) write m_InternalDebugBuffer to %s failed ###", failure,
                  path);
        return false;
    }
    if (!ring.Map(static_cast<size_t>(size))) {
        const int error = errno;
        ring.Discard();
        WriteNote(kTargetLog, kMapFailed, failure, path, error, std::strerror(error));
        return false;
    }
    m_target = kTargetRing;
    WriteHeader(kTargetRing);
    ring.EndHeader();
    WriteNote(kTargetRing, "\n%s", trace_text::kRingBegin.data());
    ring.SetRestart();
    WriteNote(kTargetRing, "\n%s", trace_text::kRingStart.data());
    return true;
}

bool CDebug::FillRing(int64_t size) {
    // One stamp for a block: reading the memory figure for each line would take most of the
    // daemon's start.
    for (; size > 0; size -= TraceFiles::kFillBlock) {
        if (!m_files.FillRing(MakeStamp(), ModuleName(), size)) return false;
    }
    return true;
}

Stamp CDebug::MakeStamp() const {
    Stamp stamp;  // NOLINT(cppcoreguidelines-pro-type-member-init): every field is set below
    gettimeofday(&stamp.time, nullptr);
    stamp.thread = static_cast<uint32_t>(pthread_self());
    if (m_asRead.memoryTraces != 0) {
        uint64_t residentKb = 0;
        ReadProcStatusValue(getpid(), residentKb, "VmRSS:", 1);
        stamp.columns[trace_text::kMemory] = residentKb;
    }
    return stamp;
}

void CDebug::Trace(unsigned level, const char* format, ...) {
    if (level > TraceLevel() && m_updateInterval.load(std::memory_order_relaxed) == 0) return;
    va_list args;
    va_start(args, format);
    TraceTagged(level, format, args, nullptr);
    va_end(args);
}

void CDebug::TraceArgs(unsigned level, const char* format, va_list args) {
    TraceTagged(level, format, args, nullptr);
}

void CDebug::TraceTagged(unsigned level, const char* format, va_list args, const char* tag) {
    if (m_updateInterval.load(std::memory_order_relaxed) != 0) {
        if (m_redirection.write != nullptr) return WriteRedirected(level, format, args, tag);
        const Lock lock(*this);
        UpdateTraceConfig(time(nullptr));
    }
    if (level > TraceLevel()) return;
    WriteRecord(m_target.load(std::memory_order_relaxed), format, args, tag);
}

void CDebug::TraceV(const char* format, va_list args, const char* tag) {
    WriteRecord(m_target.load(std::memory_order_relaxed), format, args, tag);
}

void CDebug::Message(const char* format, ...) {
    va_list args;
    va_start(args, format);
    MessageV(format, args, nullptr);
    va_end(args);
}

void CDebug::Message(unsigned /*level*/, const char* format, ...) {
    va_list args;
    va_start(args, format);
    MessageV(format, args, nullptr);
    va_end(args);
}

void CDebug::MessageV(const char* format, va_list args, const char* tag) {
    if (m_redirection.write != nullptr) return m_redirection.write(tag, 0, format, args);
    const Lock lock(*this);
    if (format == nullptr || (!m_files.Ring().IsMapped() && !m_files.Log().IsOpen())) return;
    const Stamp stamp = MakeStamp();
    if (m_files.Ring().IsMapped() && m_target.load(std::memory_order_relaxed) == kTargetRing) {
        WriteToRing(stamp, format, args, tag);
    }
    m_files.WriteToLog(stamp, TagOrName(tag), format, args);
}

void CDebug::WriteRecord(uint32_t target, const char* format, va_list args, const char* tag) {
    if (format == nullptr) return;
    if (target == kTargetRing) {
        const RecursiveLock lock(m_lock);
        if (m_files.Ring().IsMapped()) WriteToRing(MakeStamp(), format, args, tag);
    } else if (target == kTargetLog) {
        const Lock lock(*this);
        if (m_files.Log().IsOpen()) {
            m_files.WriteToLog(MakeStamp(), TagOrName(tag), format, args);
        }
    } else if (m_redirection.write != nullptr) {
        WriteRedirected(1, format, args, tag);
    }
}

// A record of level 0 is written whenever tracing is on, as one of level 1.
void CDebug::WriteRedirected(unsigned level, const char* format, va_list args, const char* tag) {
    const uint32_t inForce = m_redirection.level->load(std::memory_order_relaxed);
    if (inForce == 0 || level > inForce || format == nullptr) return;
    m_redirection.write(tag, level != 0 ? level : 1, format, args);
}

void CDebug::Forward(const char* tag, unsigned level, uint32_t thread, const char* text) {
    if (level != 0) {
        const Lock lock(*this);
        if (m_updateInterval.load(std::memory_order_relaxed) != 0) UpdateTraceConfig(time(nullptr));
        if (!IsTraceOn() || level > TraceLevel()) return;
    }
    WriteForwarded(tag, level == 0, thread, "%s", text);
}

// One stamp for both files, as in MessageV.
void CDebug::WriteForwarded(const char* tag, bool isMessage, uint32_t thread, const char* format,
                            ...) {
    const Lock lock(*this);
    const uint32_t target = m_target.load(std::memory_order_relaxed);
    Stamp stamp = MakeStamp();
    stamp.thread = thread;
    va_list args;
    va_start(args, format);
    if (target == kTargetRing && m_files.Ring().IsMapped()) WriteToRing(stamp, format, args, tag);
    if ((isMessage || target == kTargetLog) && m_files.Log().IsOpen()) {
        m_files.WriteToLog(stamp, TagOrName(tag), format, args);
    }
    va_end(args);
}

void CDebug::WriteNote(TraceTarget destination, const char* format, ...) {
    va_list args;
    va_start(args, format);
    WriteRecord(destination, format, args, nullptr);
    va_end(args);
}

int CDebug::FormatLinePrefix(char* buffer, size_t size, const char* tag) {
    const Lock lock(*this);
    return m_files.FormatPrefix(buffer, size, MakeStamp(), TagOrName(tag));
}
