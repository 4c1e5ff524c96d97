// A module that misbehaves in one way: it is named after what it does, as "throws.so".
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "kemd/event.h"
#include "kemd/module.h"
#include "kemd/trace.h"
#include "kemd/trace_object.h"

namespace {

constexpr const char* kTag = "misbehaving";

EventHandle g_stop;
EventHandle g_ready;
std::thread g_thread;
std::thread g_another;

const char* Path() {
    Dl_info info{};
    return dladdr(&g_stop, &info) != 0 ? info.dli_fname : "";
}

bool Is(const char* kind) {
    const char* const slash = std::strrchr(Path(), '/');
    const size_t length = std::strlen(kind);
    return slash != nullptr && std::strncmp(slash + 1, kind, length) == 0 &&
           std::strcmp(slash + 1 + length, ".so") == 0;
}

[[maybe_unused]] const bool kIsInitialised =
    !Is("init") || (throw std::runtime_error("not even loaded"), true);

void Unblock(int signal) {
    sigset_t signals{};
    sigaddset(&signals, signal);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void Pass(void (*slot)(void*, const char*, va_list, const char*), const char* format, ...) {
    va_list args;
    va_start(args, format);
    slot(&Debug, format, args, kTag);
    va_end(args);
}

// Calls every slot of the trace object's table.
int Fail() {
    const KemdTraceTable& table = *Debug.table;
    table.trace(&Debug, 3, "slot %d", 4);
    table.message(&Debug, "slot %d", 5);
    table.levelMessage(&Debug, 99, "slot %d", 6);
    Pass(table.messageV, "slot %d", 7);
    Pass(table.traceV, "slot %d", 8);
    return table.isAvailable(&Debug) ? 7 : 0;
}

// Its thread runs on for a while after stop has returned.
int StartLateThread() {
    std::thread([] {
        WaitForEvent(g_stop, kWaitForever);
        usleep(300'000);
        KemdTrace(kTag, 2, "late end of a thread");
    }).detach();
    return 0;
}

int Leak() {
    static std::atomic<unsigned> beats{0};
    std::thread([] {
        pthread_setname_np(pthread_self(), "leaked");
        for (;; ++beats) sched_yield();  // always about to return into this code
    }).detach();
    return 0;
}

// The threads end the process.
int StartWorkers(int count, bool held) {
    const auto work = [] {
        pthread_setname_np(pthread_self(), "worker");
        close(open("/tmp/go", O_RDONLY));  // a FIFO that the test opens, too
        exit(6);
    };
    for (int i = 0; i < count; ++i) std::thread(work).detach();
    if (held) g_thread = std::thread(work);
    return 0;
}

// Closes every descriptor that a daemon used to have, and opens its own.
int TakeDescriptors() {
    for (int file = 0; file <= 100; ++file) close(file);
    for (int file = 0; file <= 100; ++file) (void)!open("/tmp/taken", O_WRONLY | O_CREAT, 0644);
    return 0;
}

// Static threads that are never joined.
int StartUnjoined(bool areRunning) {
    const auto work = [](bool goesOn) {
        if (!goesOn) return;
        for (;;) pause();
    };
    g_thread = std::thread(work, areRunning);
    if (areRunning) g_another = std::thread(work, true);
    if (Is("pinned")) dlclose(dlopen(Path(), RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE));
    return 0;
}

// Changes what belongs to the whole process.
int Change() {
    umask(0);
    (void)!chdir("/tmp");
    (void)!open("/etc", O_RDONLY | O_CLOEXEC);
    (void)signal(SIGPIPE, SIG_DFL);
    (void)signal(SIGALRM, [](int) {});
    g_thread = std::thread([] {
        Unblock(SIGHUP);
        SetEvent(g_ready);
        WaitForEvent(g_stop, kWaitForever);
    });
    return WaitForEvent(g_ready, kWaitForever);
}

int Fork() {
    const pid_t child = fork();
    if (child == 0) {
        for (;;) pause();
    }
    KemdTrace(kTag, 2, "child %d", child);
    return 0;
}

int Start() {
    CreateEvent(g_stop, false, true, nullptr);
    CreateEvent(g_ready, false, true, nullptr);
    if (Is("fails")) return Fail();
    if (Is("throws")) throw std::runtime_error("not today");
    if (Is("late")) return StartLateThread();
    if (Is("forks")) return Fork();
    if (Is("leaks")) return Leak();
    if (Is("mask")) Unblock(SIGTERM);
    if (Is("cancels")) return pthread_cancel(pthread_self());
    if (Is("closes")) close_range(3, 1023, 0);
    if (Is("dies")) (void)signal(SIGSEGV, SIG_DFL);  // not a sanitizer's
    if (Is("dies")) return raise(SIGSEGV);
    if (Is("exits")) _exit(3);
    if (Is("leaves")) exit(4);  // in order, as it believes
    if (Is("quits")) quick_exit(5);
    if (Is("worker")) return StartWorkers(1, false);
    if (Is("crowd")) return StartWorkers(16, false);
    if (Is("held")) return StartWorkers(0, true);
    if (Is("goeson")) return fork() < 0 ? 1 : 0;  // parent and child do
    if (Is("daemon")) return daemon(0, 0);
    if (Is("unjoined")) return StartUnjoined(true);
    if (Is("ended") || Is("pinned")) return StartUnjoined(false);
    if (Is("takes")) return TakeDescriptors();
    if (Is("changes")) return Change();
    return 0;
}

void Stop() {
    SetEvent(g_stop);
    if (Is("changes")) g_thread.join();
    if (!Is("blocks")) return;
    KemdTrace(kTag, 2, "stop does not return");
    for (;;) pause();
}

void Notify(uint32_t /*code*/, const void* /*data*/) {
    if (!Is("raises")) return;
    Unblock(SIGTERM);
    raise(SIGTERM);
}

}  // namespace

#ifdef SHOWS  // what the daemon shows as well
KEMD_API bool FindProcessByName(int32_t& /*pid*/, const char* /*name*/) {
    return false;
}
KEMD_API void OfItsOwn() {}
int KemdTraceOn() {
    return 0;
}
#endif

KEMD_MODULE = {KEMD_MODULE_VERSION, Start, Stop, Notify};
