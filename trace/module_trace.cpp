#include "trace/module_trace.h"

#include <cerrno>

#include "kemd/trace.h"
#include "trace/debug.h"

static ModuleTraceWriter redirected = nullptr;
static unsigned redirectedLevel = 0;

// In a program that redirects, the trace object has no file, and its own level stays 0: only the
// functions below see that it is on.
void RedirectModuleTrace(ModuleTraceWriter write, unsigned level) {
    redirected = write;
    redirectedLevel = level;
    (void)Debug.SwitchTrace(level > 0);
}

int KemdTraceOn() {
    return Debug.IsTraceOn() ? 1 : 0;
}

unsigned KemdTraceLevel() {
    if (!Debug.IsTraceOn()) return 0;
    return redirected == nullptr ? Debug.TraceLevel() : redirectedLevel;
}

void KemdTraceV(const char* tag, unsigned level, const char* format, va_list args) {
    if (!Debug.IsTraceOn()) return;
    if (redirected == nullptr) {
        Debug.TraceTagged(level, format, args, tag);
    } else if (level <= redirectedLevel) {
        redirected(tag, format, args);
    }
}

int KemdTraceSetLevel(unsigned level) {
    return Debug.SetTraceLevel(level) ? 0 : ENODEV;
}

int KemdTraceSync() {
    return Debug.Sync();
}

void KemdTrace(const char* tag, unsigned level, const char* format, ...) {
    if (!Debug.IsTraceOn()) return;
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
