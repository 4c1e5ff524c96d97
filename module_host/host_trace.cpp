// Tracing for modules as the host offers it: every record goes to standard error at once, and no
// file of the daemon is touched. Takes the place of trace/module_trace.cpp.
#include "module_host/host_trace.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/cancel_guard.h"
#include "kemd/trace.h"

static unsigned g_traceLevel = 0;

void SetTraceLevel(unsigned level) {
    g_traceLevel = level;
}

static void Write(const char* tag, const char* format, va_list args) {
    const CancelGuard guard;
    std::array<char, 1200> line{};
    std::snprintf(line.data(), line.size(), "%-13s ", tag != nullptr ? tag : "kemd");
    const size_t prefix = std::strlen(line.data());
    std::vsnprintf(line.data() + prefix, line.size() - prefix - 1, format, args);
    size_t length = std::strlen(line.data());
    if (line[length - 1] != '\n') line[length++] = '\n';
    (void)!write(STDERR_FILENO, line.data(), length);  // in one piece: threads trace at once
}

int KemdTraceOn() {
    return g_traceLevel > 0 ? 1 : 0;
}

void KemdTrace(const char* tag, unsigned level, const char* format, ...) {
    if (level > g_traceLevel || g_traceLevel == 0) return;
    va_list args;
    va_start(args, format);
    Write(tag, format, args);
    va_end(args);
}

void KemdMessage(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Write(tag, format, args);
    va_end(args);
}
