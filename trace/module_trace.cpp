// kemd/trace.h: the trace object for callers in any language.
#include <cerrno>

#include "kemd/trace.h"
#include "trace/debug.h"

int KemdTraceOn() {
    if (Debug.Redirection().write != nullptr) return KemdTraceLevel() != 0 ? 1 : 0;
    return Debug.IsTraceOn() ? 1 : 0;
}

unsigned KemdTraceLevel() {
    const auto* const redirected = Debug.Redirection().level;
    if (redirected != nullptr) return redirected->load(std::memory_order_relaxed);
    return Debug.IsTraceOn() ? Debug.TraceLevel() : 0;
}

void KemdTraceV(const char* tag, unsigned level, const char* format, va_list args) {
    if (Debug.IsTraceOn()) Debug.TraceTagged(level, format, args, tag);
}

int KemdTraceSetLevel(unsigned level) {
    return Debug.SetTraceLevel(level) ? 0 : ENODEV;
}

void KemdTraceShareLevel(uint32_t* shared) {
    Debug.ShareLevel(shared);
}

void KemdTraceForward(const char* tag, unsigned level, uint32_t thread, const char* text) {
    if (text != nullptr) Debug.Forward(tag, level, thread, text);
}

int KemdTraceSync() {
    return Debug.Sync();
}

void KemdTrace(const char* tag, unsigned level, const char* format, ...) {
    if (!Debug.IsTraceOn()) return;
    va_list args;
    va_start(args, format);
    Debug.TraceTagged(level, format, args, tag);
    va_end(args);
}

void KemdMessageV(const char* tag, const char* format, va_list args) {
    Debug.MessageV(format, args, tag);
}

void KemdMessage(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Debug.MessageV(format, args, tag);
    va_end(args);
}
