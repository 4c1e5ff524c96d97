#include "trace/module_trace.h"

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

void KemdTrace(const char* tag, unsigned level, const char* format, ...) {
    if (!Debug.IsTraceOn()) return;
    va_list args;
    va_start(args, format);
    if (redirected == nullptr) {
        Debug.TraceTagged(level, format, args, tag);
    } else if (level <= redirectedLevel) {
        redirected(tag, format, args);
    }
    va_end(args);
}

void KemdMessage(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    if (redirected == nullptr) {
        Debug.MessageV(format, args, tag);
    } else {
        redirected(tag, format, args);
    }
    va_end(args);
}
