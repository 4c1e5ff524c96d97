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
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "kemd/event.h"
#include "kemd/module.h"
#include "kemd/trace.h"
#include "kemd/trace_object.h"

namespace {

constexpr const char* kTag = "misbehaving";

EventHandle g_stop;
std::thread g_thread;

bool Is(const char* kind) {
    Dl_info info{};
    return dladdr(&g_stop, &info) != 0 && std::filesystem::path(info.dli_fname).stem() == kind;
}

[[maybe_unused]] const bool kIsInitialised =
    !Is("init") || (throw std::runtime_error("not even loaded"), true);

[[maybe_unused]] const bool kHasAborted = Is("unborn") && (abort(), true);

void Unblock(int signal) {
    sigset_t signals{};
    sigaddset(&signals, signal);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// Calls slots of the trace object's table.
int Fail() {
    const KemdTraceTable& table = *Debug.table;
    table.trace(&Debug, 3, "slot %d", 4);
    table.message(&Debug, "slot %d", 5);
    table.levelMessage(&Debug, 99, "slot %d", 6);
    return table.isAvailable(&Debug) ? 7 : 0;
}

// A thread that runs on for a while after stop has returned.
void EndLate() {
    WaitForEvent(g_stop, kWaitForever);
    usleep(300'000);
    KemdTrace(kTag, 2, "late end of a thread");
}

// Always about to return into this code.
void Leak() {
    static std::atomic<unsigned> beats{0};
    pthread_setname_np(pthread_self(), "leaked");
    for (;; ++beats) sched_yield();
}

// Threads that end the process.
void Work() {
    pthread_setname_np(pthread_self(), "worker");
    close(open("/tmp/go", O_RDONLY));  // a FIFO that the test opens, too
    exit(6);
}

// Closes every descriptor that a daemon used to have, and opens its own.
void TakeDescriptors() {
    for (int file = 0; file <= 100; ++file) close(file);
    for (int file = 0; file <= 100; ++file) (void)!open("/tmp/taken", O_WRONLY | O_CREAT, 0644);
}

// Changes what belongs to the whole process.
void Change() {
    umask(0);
    (void)!chdir("/tmp");
    (void)!open("/etc", O_RDONLY | O_CLOEXEC);
    (void)signal(SIGPIPE, SIG_DFL);
    (void)signal(SIGALRM, [](int) {});
}

void Fork() {
    const pid_t child = fork();
    while (child == 0) pause();
    KemdTrace(kTag, 2, "child %d", child);
}

int Start() {
    CreateEvent(g_stop, false, true, nullptr);
    if (Is("fails")) return Fail();
    if (Is("throws")) throw std::runtime_error("not today");
    if (Is("late")) std::thread(EndLate).detach();
    if (Is("forks")) Fork();
    if (Is("leaks")) std::thread(Leak).detach();
    if (Is("mask")) Unblock(SIGTERM);
    if (Is("cancels")) return pthread_cancel(pthread_self());
    if (Is("closes")) close_range(3, 1023, 0);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    if (Is("dies")) (void)signal(SIGSEGV, SIG_DFL);  // not the sanitizer's
#endif
    if (Is("dies")) return raise(SIGSEGV) + 1;  // not by a jump: this is where it died
    if (Is("exits")) _exit(3);
    if (Is("aborts")) std::thread([] { abort(); }).join();
    if (Is("uncaught")) std::thread([] { throw std::runtime_error("too late"); }).join();
    if (Is("leaves")) exit(4);  // in order, as it believes
    if (Is("quits")) quick_exit(5);
    for (int i = 0; Is("crowd") && i < 16; ++i) std::thread(Work).detach();
    if (Is("held")) g_thread = std::thread(Work);
    if (Is("goeson")) return fork() < 0 ? 1 : 0;  // parent and child do
    if (Is("daemon")) return daemon(0, 0);
    // Static threads that are never joined: one runs, one has ended.
    if (Is("unjoined")) g_thread = std::thread([] { pause(); });
    if (Is("ended")) g_thread = std::thread([] {});
    if (Is("takes")) TakeDescriptors();
    if (Is("changes")) Change();
    return 0;
}

void Stop() {
    SetEvent(g_stop);
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
