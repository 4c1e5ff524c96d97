// The life of the trace object: opening, the end of the start-up phase, switching, closing.
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "trace/debug.h"

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

// Sends the lines of a header to one destination. It has a line buffer of its own, because a header
// is also written while another record waits in the common one, and one stamp for all lines,
// because a command line may have a hundred thousand.
struct CDebug::HeaderLines {
    CDebug& debug;
    const TraceTarget destination;
    const Stamp stamp;
    RecordBuffer buffer;

    HeaderLines(CDebug& owner, TraceTarget to, const Stamp& at)
        : debug(owner), destination(to), stamp(at) {}

    static void Put(void* context, const char* format, va_list args) {
        auto& self = *static_cast<HeaderLines*>(context);
        if (self.destination == kTargetLog) {
            self.debug.WriteToLog(self.stamp, nullptr, format, args);
        } else {
            self.debug.WriteToRing(self.buffer, self.stamp, nullptr, format, args);
        }
    }
    HeaderSink Sink() { return {Put, this}; }
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
    m_ring.Close();
    m_log.Close();
    m_startupEnded = false;
    m_initDone = false;
    m_closed = false;
    SetModuleName(moduleName);
    m_processId = getpid();
    FormatStartTime(m_startTime);
    m_environment.Take();
    ReadTraceConfig(ModuleName());
    m_traceOn = TraceLevel() != 0;
    OpenLog();

    bool opened = true;
    m_ringSize = IsTraceOn() ? kStartupFactor * ComputeRingSize() : 0;
    FormatRingPaths();
    if (m_ringSize != 0) opened = InitRingBuffer(m_startupRingPath.Get(), m_ringSize);
    if (!m_ring.IsMapped()) SwitchOff();
    if (m_inForce.noHeader == 0) WriteHeader(kTargetLog);
    m_traceOn = TraceLevel() != 0;
    return opened;
}

void CDebug::SetModuleName(const char* moduleName) {
    if (moduleName == nullptr || *moduleName == '\0') return;
    m_moduleName = CopyText(moduleName);
}

void CDebug::OpenLog() {
    FormatPath(m_logPath, "");
    m_log.SetLimit(m_inForce.logLimit);
    errno = 0;
    m_logError = m_log.Open(m_logPath.Get()) ? 0 : errno;
    if (m_log.IsOpen()) return;
    syslog(LOG_ERR, "ERROR: Error during opening %s --> proceed without it\n", m_logPath.Get());
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
    // The same in both, so that a reader sees that it is the same.
    const Stamp stamp = MakeStamp();
    HeaderLines log(*this, kTargetLog, stamp);
    EmitCommandLine(MakeHeaderFacts(), log.Sink());
    if (m_target != kTargetRing || !m_ring.IsMapped()) return;
    HeaderLines ring(*this, kTargetRing, stamp);
    EmitCommandLine(MakeHeaderFacts(), ring.Sink());
}

void CDebug::WriteHeader(TraceTarget destination) {
    const Lock lock(*this);
    HeaderLines lines(*this, destination, MakeStamp());
    m_writingHeader = destination == kTargetRing;
    EmitHeader(MakeHeaderFacts(), *this, lines.Sink());
    m_writingHeader = false;
}

HeaderFacts CDebug::MakeHeaderFacts() const {
    return {ModuleName(),        m_argumentCount, m_arguments,
            m_environment,       m_processId,     m_target,
            m_initDone,          m_logPath.Get(), m_log.Limit(),
            m_ring.Descriptor(), m_ringSize,      m_runtimeRingPath.Get()};
}

void CDebug::InitDone() {
    const Lock lock(*this);
    if (m_startupEnded) return;
    m_startupEnded = true;
    m_log.MarkStartupEnd();
    if (m_target == kTargetRing && m_ring.IsMapped()) SwitchToRuntimeRing();
}

void CDebug::SwitchToRuntimeRing() {
    WriteNote(kTargetRing, "\n### End of initialization. ###");
    // Tracing stays on: records of other threads wait for the lock and go into the new ring.
    m_ring.Close();
    if (!CompressFile(m_startupRingPath.Get())) {
        WriteNote(kTargetLog, "\n### gziping of startup log file failed -> it doesn't matter ###");
    }
    m_ringSize /= kStartupFactor;
    const bool opened = InitRingBuffer(m_runtimeRingPath.Get(), m_ringSize);
    if (!opened) SwitchOff();
    m_traceOn = opened;
    m_initDone = true;
}

bool CDebug::SwitchTrace(bool on) {
    const Lock lock(*this);
    if (m_closed) return true;
    m_level = on ? SavedTraceLevel() : 0;
    m_traceOn = on;
    return true;
}

void CDebug::SetTraceTarget(unsigned target) {
    m_target = target;
}

void CDebug::SwitchOff() {
    m_traceOn = false;
    m_target = kTargetNone;
    m_level = 0;
    m_savedLevel = 0;
}

void CDebug::Close() {
    const Lock lock(*this);
    m_argumentCount = 0;
    m_arguments = nullptr;
    m_updateInterval = 0;
    SwitchOff();
    m_ring.Close();
    m_log.Close();
    m_closed = true;
}

// Nothing is unmapped or closed: another thread of the parent may have been about to do so, and the
// address or number may be something else's by now.
void CDebug::AbandonInChild() {
    m_lock.Abandon();
    m_abandoned = true;
    m_closed = true;
    m_updateInterval = 0;
    SwitchOff();
    m_ring.Forget();
    m_log.Forget();
}
