#include "trace/module_trace.h"

#include "kemd/trace.h"
#include "trace/debug.h"

// In a program that redirects, the trace object is never on: the daemon's records pass no test of
// these.
static ModuleTraceWriter redirected = nullptr;
static unsigned redirectedLevel = 0;

void RedirectModuleTrace(ModuleTraceWriter write, unsigned level) {
    redirected = write;
    redirectedLevel = level;
}

int KemdTraceOn() {
    return Debug.IsTraceOn() || redirectedLevel > 0 ? 1 : 0;
}

unsigned KemdTraceLevel() {
    return Debug.IsTraceOn() ? Debug.TraceLevel() : redirectedLevel;
}

void KemdTraceV(const char* tag, unsigned level, const char* format, va_list args) {
    if (Debug.IsTraceOn()) {
        Debug.TraceTagged(level, format, args, tag);
    } else if (redirectedLevel > 0 && level <= redirectedLevel) {
        redirected(tag, format, args);
    }
}

void KemdTrace(const char* tag, unsigned level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    KemdTraceV(tag, level, format, args);
    va_end(args);
}

void KemdMessageV(const char* tag, const char* format, va_list args) {
    if (redirected == nullptr) {
        Debug.MessageV(format, args, tag);
    } else {
        redirected(tag, format, args);
    }
}

void KemdMessage(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    KemdMessageV(tag, format, args);
    va_end(args);
}
