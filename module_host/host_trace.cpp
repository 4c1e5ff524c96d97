#include "module_host/host_trace.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/cancel_guard.h"
#include "trace/debug.h"

static void WriteLine(const char* tag, unsigned /*level*/, const char* format, va_list args) {
    const CancelGuard guard;
    std::array<char, 1200> line{};
    std::snprintf(line.data(), line.size(), "%-13s ", tag != nullptr ? tag : "kemd");
    const size_t prefix = std::strlen(line.data());
    std::vsnprintf(line.data() + prefix, line.size() - prefix - 1, format, args);
    size_t length = std::strlen(line.data());
    if (line[length - 1] != '\n') line[length++] = '\n';
    // In one call: threads trace at the same time.
    (void)!write(STDERR_FILENO, line.data(), length);
}

void TraceToStandardError(unsigned level) {
    static std::atomic<uint32_t> inForce;
    inForce = level;
    Debug.Redirect({WriteLine, &inForce});
}
