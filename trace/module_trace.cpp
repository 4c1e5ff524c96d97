#include <cstdarg>

#include "kemd/trace.h"
#include "trace/debug.h"

int KemdTraceOn() {
    return Debug.IsTraceOn() ? 1 : 0;
}

void KemdTrace(const char* tag, unsigned level, const char* format, ...) {
    if (!Debug.IsTraceOn()) return;
    va_list args;
    va_start(args, format);
    Debug.TraceTagged(level, format, args, tag);
    va_end(args);
}

void KemdMessage(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Debug.MessageV(format, args, tag);
    va_end(args);
}
