#include "daemon/process_guard.h"

#include <pthread.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>

#include "base/paths.h"
#include "base/process_setup.h"
#include "base/version.h"
#include "daemon/startup.h"
#include "trace/debug.h"

namespace {

// Written by the initial thread before any other exists.
pid_t g_process = 0;  // the daemon; 0: there is no guard
int g_lock = -1;
std::terminate_handler g_terminate = nullptr;

std::atomic<bool> g_isOver{false};  // the files are removed, or about to be, by an orderly end
std::atomic<bool> g_mayTerminate{false};
std::atomic<bool> g_keepsModules{false};
std::atomic<bool> g_isExiting{false};
std::atomic<int> g_status{0};  // of the exit
std::mutex g_cleanUp;

bool IsDaemon() {
    return getpid() == g_process;
}

void RemoveFiles() {
    RemovePidFile();
    (void)unlink(kLockFile);
}

// Flushes the trace and, as exit does, every stream. Runs no destructor.
[[noreturn]] void End(int status) {
    Debug.Close();
    (void)fcloseall();
    _exit(status);
}

// Several threads may call it at once: none returns before the files are removed.
void CleanUpUnlessOver() {
    static bool isDone = false;
    const std::lock_guard lock(g_cleanUp);
    if (g_isOver || isDone) return;
    isDone = true;
    Debug.Message("%s-MAIN: the process was ended from inside, by exit or quick_exit: no stop\n",
                  kTag);
    RemoveFiles();
}

void OnExitBegin(int status, void* /*argument*/) {
    g_status = status;
    g_isExiting = true;
}

void OnExit(int status, void* argument) {
    if (!IsDaemon()) return;
    OnExitBegin(status, argument);
    if (g_isOver && !g_keepsModules) return;
    // Each registered handler is called once. Another thread that exits meanwhile must find one
    // too, or it ends the process before the files are removed.
    WatchForExit();
    CleanUpUnlessOver();
    End(status);
}

void OnQuickExit() {
    if (IsDaemon()) CleanUpUnlessOver();
}

[[noreturn]] void OnTerminate() {
    if (IsDaemon() && g_isExiting) {
        CleanUpUnlessOver();
        End(g_status);
    }
    if (IsDaemon() && g_mayTerminate && !g_isOver.exchange(true)) {
        Debug.Message("%s-MAIN: ## EXIT PROCESS %s ##\n", kTag, kTag);
        RemoveFiles();
        End(0);
    }
    g_terminate();
    abort();
}

// In a forked child: if it outlived the daemon and kept the lock, no other daemon could start.
void GiveUpLock() {
    if (g_lock >= 0) close(g_lock);
    g_lock = -1;
}

// Blocks the daemon's signals in the interrupted thread again and sends this one to the signal
// loop.
void GiveBack(int signal, siginfo_t* /*info*/, void* context) {
    const int saved = errno;
    if (IsDaemon()) {
        sigset_t& mask = static_cast<ucontext_t*>(context)->uc_sigmask;
        const sigset_t signals = WaitSignals();
        sigorset(&mask, &mask, &signals);
        kill(getpid(), signal);
    } else {
        // A child has no signal loop: the signal ends it when this handler returns.
        (void)std::signal(signal, SIG_DFL);
        raise(signal);
    }
    errno = saved;
}

}  // namespace

ProcessGuard::ProcessGuard(int lock) {
    g_process = getpid();
    g_lock = lock;
    g_terminate = std::set_terminate(OnTerminate);
    (void)pthread_atfork(nullptr, nullptr, GiveUpLock);
    (void)at_quick_exit(OnQuickExit);
    WatchForExit();
    struct sigaction action {};
    action.sa_sigaction = GiveBack;
    action.sa_mask = WaitSignals();
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM}) {
        sigaction(signal, &action, nullptr);
    }
}

ProcessGuard::~ProcessGuard() {
    g_isOver = true;
}

void WatchForExit() {
    (void)on_exit(OnExit, nullptr);
}

void NoteExit() {
    (void)on_exit(OnExitBegin, nullptr);
}

void EndForkedChild() {
    if (g_process != 0 && !IsDaemon()) _exit(1);
}

void ExpectTerminate() {
    g_mayTerminate = true;
}

void KeepModules() {
    g_keepsModules = true;
    WatchForExit();
}
