// What a module may do to the process that holds them all, and what holds all the same: it ends the
// process, forks it, or unblocks a signal that only the daemon takes.
#pragma once

// In force while it lives, which is from the lock file and the signal mask to the end of `main`:
//
// - exit and quick_exit: the trace says so; the PID file and the lock file are removed, and the
//   process ends without the destructors of static objects that threads of modules may still use.
// - A child that a module forks never is the daemon: it gives up its copy of the lock.
// - A signal of the daemon that a thread has unblocked is blocked there again and kept for the
//   signal loop.
class ProcessGuard {
  public:
    // `lock` is the descriptor of the held lock file.
    explicit ProcessGuard(int lock);
    ~ProcessGuard();
    ProcessGuard(const ProcessGuard&) = delete;
    ProcessGuard& operator=(const ProcessGuard&) = delete;
};

// Registers the exit handler once more: the one that is registered last comes first, so this
// belongs after whatever may have registered others.
void WatchForExit();

// Registers a handler that only notes the exit and its status: std::terminate, which the static
// object of a module may call next, then ends the process like that exit.
void NoteExit();

// Ends the process if it is a child of the daemon that came back out of a module.
void EndForkedChild();

// From here on, with all modules stopped, std::terminate ends the daemon in order: nothing but a
// destructor of a module is cut short.
void ExpectTerminate();

// Code of modules stays in memory: the process ends without the destructors of their static
// objects.
void KeepModules();
