#include "trace/module_trace.h"

#include "kemd/trace.h"
#include "trace/debug.h"

namespace {

ModuleTraceWriter redirected = nullptr;  // null: to the trace object
unsigned redirectedLevel = 0;

bool IsOn() {
    return redirected == nullptr ? Debug.IsTraceOn() : redirectedLevel > 0;
}

}  // namespace

void RedirectModuleTrace(ModuleTraceWriter write, unsigned level) {
    redirected = write;
    redirectedLevel = level;
}

int KemdTraceOn() {
    return IsOn() ? 1 : 0;
}

void KemdTrace(const char* tag, unsigned level, const char* format, ...) {
    if (!IsOn()) return;
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
