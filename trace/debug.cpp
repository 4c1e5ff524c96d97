// The entries through which everything is traced. What happens to one record: debug_write.cpp.
#include "trace/debug.h"

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>

#include "kemd/process_status.h"

Stamp CDebug::MakeStamp() const {
    Stamp stamp;  // NOLINT(cppcoreguidelines-pro-type-member-init): every field is set below
    gettimeofday(&stamp.time, nullptr);
    stamp.thread = static_cast<uint32_t>(pthread_self());
    stamp.withMemory = m_asRead.memoryTraces != 0;
    stamp.residentKb = 0;
    if (stamp.withMemory) ReadProcStatusValue(getpid(), stamp.residentKb, "VmRSS:", 1);
    return stamp;
}

std::string_view CDebug::TagOrName(const char* tag) const {
    return tag != nullptr ? tag : ModuleName();
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
    const Lock lock(*this);
    if (format == nullptr || (!m_ring.IsMapped() && !m_log.IsOpen())) return;
    const Stamp stamp = MakeStamp();
    if (m_target.load(std::memory_order_relaxed) == kTargetRing) {
        WriteToRing(m_record, stamp, tag, format, args);
    }
    WriteToLog(stamp, tag, format, args);
}

void CDebug::WriteRecord(uint32_t target, const char* format, va_list args, const char* tag) {
    if (format == nullptr) return;
    if (target == kTargetRing) {
        const RecursiveLock lock(m_lock);
        if (m_ring.IsMapped()) WriteToRing(m_record, MakeStamp(), tag, format, args);
    } else if (target == kTargetLog) {
        const Lock lock(*this);
        if (m_log.IsOpen()) WriteToLog(MakeStamp(), tag, format, args);
    }
}

void CDebug::WriteNote(TraceTarget destination, const char* format, ...) {
    va_list args;
    va_start(args, format);
    WriteRecord(destination, format, args, nullptr);
    va_end(args);
}

int CDebug::FormatLinePrefix(char* buffer, size_t size, const char* tag) {
    const Lock lock(*this);
    return m_prefix.Build(buffer, size, MakeStamp(), TagOrName(tag));
}
