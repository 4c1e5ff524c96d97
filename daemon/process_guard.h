// Guards the daemon against modules that end the process, fork it, or unblock a signal that only
// the daemon takes.
#pragma once

// In force while it lives, from the lock file and the signal mask to the end of `main`:
//
// - exit and quick_exit: the trace says so; the PID file and the lock file are removed, and the
//   process ends without the destructors of static objects, which threads of modules may still use.
// - A child that a module forks is never the daemon: it gives up its copy of the lock.
// - If a thread has unblocked a signal of the daemon, the signal is blocked there again and kept
//   for the signal loop.
class ProcessGuard {
  public:
    // `lock` is the descriptor of the held lock file.
    explicit ProcessGuard(int lock);
    ~ProcessGuard();
    ProcessGuard(const ProcessGuard&) = delete;
    ProcessGuard& operator=(const ProcessGuard&) = delete;
};

// Registers the exit handler once more. The handler registered last runs first, so call this after
// whatever may have registered others.
void WatchForExit();

// Registers a handler that only notes the exit and its status. If a static object of a module then
// calls std::terminate, the process ends as that exit would have ended it.
void NoteExit();

// Ends the process if it is a forked child that returned from a module.
void EndForkedChild();

// From here on all modules are stopped, and std::terminate ends the daemon in order: it cuts short
// only the destructor of a module.
void ExpectTerminate();

// Modules stay in memory: the process ends without the destructors of their static objects.
void KeepModules();
