// One line about what the process dies of, when it is SIGSEGV, SIGBUS, SIGFPE, SIGILL or SIGABRT.
// After that the signal takes its default action, with the information it came with: core dump and
// exit status are those of a process without the handler. base/crash_file.h describes the line.
//
// The line is built in static memory and written at once, without locks or allocation. If the
// unwinder faults on a damaged stack, the line ends with what was found until then. A second thread
// that crashes meanwhile waits for the first one to end the process and has no line. A forked child
// has none either. Threads without an alternate stack write none when their stack overflows.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

// Both are called in the handler and must be async-signal-safe.
struct CrashTarget {
    // Takes the line, which ends with a line feed.
    void (*write)(std::string_view line);
    // The module whose call is running in the calling thread, as NoteLoadedObjects has it; null:
    // none is. May be null itself.
    const char* (*runningModule)();
};

// The stack that handlers of the calling thread run on, until the object goes away. A thread that
// has one keeps that.
class AlternateStack {
  public:
    AlternateStack();
    // In another thread the stack stays in memory.
    ~AlternateStack();
    AlternateStack(const AlternateStack&) = delete;
    AlternateStack& operator=(const AlternateStack&) = delete;

  private:
    void* m_memory = nullptr;
    pid_t m_thread = 0;
};

// Handles those of the signals that are at their default: what somebody else handles stays so. The
// calling thread gets an alternate stack. When it goes away the defaults are put back, where the
// handler is still in force. One at a time.
class CrashHandler {
  public:
    explicit CrashHandler(const CrashTarget& target);
    ~CrashHandler();
    CrashHandler(const CrashHandler&) = delete;
    CrashHandler& operator=(const CrashHandler&) = delete;

  private:
    AlternateStack m_stack;
};

// Notes which addresses belong to which loaded file; to be called after each load and unload, by
// one thread at a time. `path`, as the dynamic loader has it, is the file of the module of this
// name from now on; null for an unload. Needs no memory. Objects beyond the first 256, and those
// that came later, are looked up in the loader's own table, where the C library has one.
void NoteLoadedObjects(const char* path = nullptr, const char* module = nullptr);
