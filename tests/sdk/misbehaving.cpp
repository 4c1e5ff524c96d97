// A module that misbehaves in one way, chosen by the build.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "kemd/event.h"
#include "kemd/module.h"
#include "kemd/trace.h"
#include "kemd/trace_object.h"

[[maybe_unused]] static constexpr const char* kTag = "misbehaving";

#if defined(FAILS)
static void Pass(void (*slot)(void*, const char*, va_list, const char*), const char* format, ...) {
    va_list args;
    va_start(args, format);
    slot(&Debug, format, args, kTag);
    va_end(args);
}
static int Start() {
    const KemdTraceTable& table = *Debug.table;
    table.trace(&Debug, 3, "slot %d", 4);
    table.message(&Debug, "slot %d", 5);
    table.levelMessage(&Debug, 99, "slot %d", 6);
    Pass(table.messageV, "slot %d", 7);
    Pass(table.traceV, "slot %d", 8);
    return table.isAvailable(&Debug) ? 7 : 0;
}
static void Stop() {}

#elif defined(THROWS)
static int Start() {
    throw std::runtime_error("not today");
}
static void Stop() {}

#elif defined(LATE)  // its thread runs on for a while when stop has returned
static EventHandle g_stop;
static int Start() {
    CreateEvent(g_stop, false, true, nullptr);
    std::thread([] {
        WaitForEvent(g_stop, kWaitForever);
        usleep(300'000);
        KemdTrace(kTag, 2, "late end of a thread");
    }).detach();
    return 0;
}
static void Stop() {
    SetEvent(g_stop);
}

#elif defined(BLOCKS)
static int Start() {
    return 0;
}
static void Stop() {
    KemdTrace(kTag, 2, "stop does not return");
    for (;;) pause();
}

#elif defined(FORKS)
static int Start() {
    const pid_t child = fork();
    while (child == 0) pause();
    KemdTrace(kTag, 2, "child %d", child);
    return 0;
}
static void Stop() {}

#elif defined(LEAKS)
static std::atomic<unsigned> g_beats{0};
static int Start() {
    std::thread([] {
        pthread_setname_np(pthread_self(), "leaked");
        for (;; ++g_beats) sched_yield();  // always about to return into this code
    }).detach();
    return 0;
}
static void Stop() {}

#elif defined(MASK)
static int Start() {
    sigset_t signals{};
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    return 0;
}
static void Stop() {}

#elif defined(CANCELS)
static int Start() {
    return pthread_cancel(pthread_self());
}
static void Stop() {}

#elif defined(CLOSES)
static int Start() {
    for (int file = 3; file < 1024; ++file) close(file);
    return 0;
}
static void Stop() {}

#elif defined(DIES)
static int Start() {
    (void)signal(SIGSEGV, SIG_DFL);  // not a sanitizer's
    return raise(SIGSEGV);
}
static void Stop() {}

#elif defined(EXITS)
static int Start() {
    _exit(3);
}
static void Stop() {}

#elif defined(SHOWS)  // what the daemon shows as well
KEMD_API bool FindProcessByName(int32_t& /*pid*/, const char* /*name*/) {
    return false;
}
KEMD_API void OfItsOwn() {}
int KemdTraceOn() {
    return 0;
}
static int Start() {
    return 0;
}
static void Stop() {}

#elif defined(LEAVES)  // in order, as it believes
static int Start() {
    exit(4);
}
static void Stop() {}

#elif defined(QUITS)
static int Start() {
    quick_exit(5);
}
static void Stop() {}

#elif defined(WORKER) || defined(CROWD) || defined(HELD)  // its threads end the process
static void Work() {
    pthread_setname_np(pthread_self(), "worker");
    close(open("/tmp/go", O_RDONLY));  // a FIFO: waits for the test to open it, too
    exit(6);
}
static int Start() {
#ifdef HELD
    static std::thread held(Work);
#elif defined(CROWD)
    for (int i = 0; i < 16; ++i) std::thread(Work).detach();
#else
    std::thread(Work).detach();
#endif
    return 0;
}
static void Stop() {}

#elif defined(INIT)
static const int kNumber = [] { return throw std::runtime_error("not even loaded"), 0; }();
static int Start() {
    return kNumber;
}
static void Stop() {}

#elif defined(GOESON)  // parent and child do
static int Start() {
    return fork() < 0 ? 1 : 0;
}
static void Stop() {}

#elif defined(DAEMON)
static int Start() {
    return daemon(0, 0);
}
static void Stop() {}

#elif defined(UNJOINED) || defined(ENDED) || defined(PINNED)  // static threads that nobody joins
static std::thread g_thread;
static int Start() {
#ifdef UNJOINED
    static std::thread another([] {
        for (;;) pause();
    });
    g_thread = std::thread([] {
        for (;;) pause();
    });
#else
    g_thread = std::thread([] {});
#endif
    return 0;
}
static void Stop() {}

#elif defined(TAKES)  // closes everything that a daemon used to have, and opens its own
static int Start() {
    for (int file = 0; file <= 100; ++file) close(file);
    for (int file = 0; file <= 100; ++file) (void)!open("/tmp/taken", O_WRONLY | O_CREAT, 0644);
    return 0;
}
static void Stop() {}

#elif defined(RAISES)
static int Start() {
    return 0;
}
static void Stop() {}
static void Notify(uint32_t /*code*/, const void* /*data*/) {
    sigset_t signals{};
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    raise(SIGTERM);
}

#elif defined(CHANGES)  // whatever belongs to the whole process
static EventHandle g_stop;
static EventHandle g_ready;
static std::thread g_thread;
static void Work() {
    sigset_t signals{};
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    SetEvent(g_ready);
    WaitForEvent(g_stop, kWaitForever);
}
static int Start() {
    umask(0);
    (void)!chdir("/tmp");
    (void)!open("/etc", O_RDONLY | O_CLOEXEC);
    (void)signal(SIGPIPE, SIG_DFL);
    (void)signal(SIGALRM, [](int) {});
    CreateEvent(g_stop, false, true, nullptr);
    CreateEvent(g_ready, false, true, nullptr);
    g_thread = std::thread(Work);
    WaitForEvent(g_ready, kWaitForever);
    return 0;
}
static void Stop() {
    SetEvent(g_stop);
    g_thread.join();
}
#endif

#ifndef RAISES
constexpr void (*Notify)(uint32_t, const void*) = nullptr;
#endif
KEMD_MODULE = {KEMD_MODULE_VERSION, Start, Stop, Notify};
