// A module that misbehaves in one way: its file is named after what it does and in which call, as
// "throws-stop.so"; without a call it is in start.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <thread>

#include "kemd/module.h"
#include "kemd/trace.h"
#include "kemd/trace_object.h"

namespace {

constexpr const char* kTag = "misbehaving";

std::thread g_thread;

std::string FileStem() {
    Dl_info info{};
    return dladdr(&g_thread, &info) != 0 ? std::filesystem::path(info.dli_fname).stem() : "";
}

const std::string kName = FileStem();
const std::string kAction = kName.substr(0, kName.find('-'));
const std::string kCall = kAction == kName ? "start" : kName.substr(kAction.size() + 1);

[[maybe_unused]] const bool kIsInitialised =
    kName != "init" || (throw std::runtime_error("not even loaded"), true);

int Throw() {
    throw std::runtime_error("not today");
}

// Calls slots of the trace object's table.
int Fail() {
    const KemdTraceTable& table = *Debug.table;
    table.trace(&Debug, 3, "slot %d", 4);
    table.message(&Debug, "slot %d", 5);
    table.levelMessage(&Debug, 99, "slot %d", 6);
    return table.isAvailable(&Debug) ? 7 : 0;
}

int Unblock() {
    sigset_t signals{};
    sigaddset(&signals, SIGTERM);
    return pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

int Raise() {
    Unblock();
    return raise(SIGTERM);
}

int Die() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    (void)signal(SIGSEGV, SIG_DFL);  // not the sanitizer's
#endif
    return raise(SIGSEGV) + 1;  // not by a jump: this is where it died
}

int Hang() {
    KemdTrace(kTag, 2, "does not return");
    for (;;) pause();
}

// Of a thread that stop leaves running for a while.
void EndLate() {
    usleep(300'000);
    KemdTrace(kTag, 2, "late end of a thread");
}

// Always about to return into this code.
void Leak() {
    static std::atomic<unsigned> beats{0};
    pthread_setname_np(pthread_self(), "leaked");
    for (;; ++beats) sched_yield();
}

// A thread that ends the process.
void Work() {
    pthread_setname_np(pthread_self(), "worker");
    close(open("/tmp/go", O_RDONLY));  // a FIFO that the test opens, too
    exit(6);
}

// Closes every descriptor that a daemon used to have, and opens its own.
int TakeDescriptors() {
    for (int file = 0; file <= 100; ++file) close(file);
    for (int file = 0; file <= 100; ++file) (void)!open("/tmp/taken", O_WRONLY | O_CREAT, 0644);
    return 0;
}

// Changes what belongs to the whole process.
int Change() {
    umask(0);
    (void)!chdir("/tmp");
    (void)!open("/etc", O_RDONLY | O_CLOEXEC);
    (void)signal(SIGPIPE, SIG_DFL);
    (void)signal(SIGALRM, [](int) {});
    const rlimit few{256, 256};  // the daemon has higher ones
    setrlimit(RLIMIT_NOFILE, &few);
    setrlimit(RLIMIT_CORE, &few);
    return 0;
}

// All that there is, up to the last piece. Of a process without a limit not all of the machine's.
int Eat() {
    rlimit limit{};
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, 1 << 30);
    setrlimit(RLIMIT_AS, &limit);
    for (size_t size = 1 << 24; size >= 16; size /= 2) {
        while (void* const piece = malloc(size)) *static_cast<volatile char*>(piece) = 1;
    }
    return 0;
}

int Fork() {
    const pid_t child = fork();
    if (child == 0) return Hang();
    KemdTrace(kTag, 2, "child %d", child);
    return 0;
}

// As long as there is memory, and then throws.
void Outgrow() {
    Eat();
    // Written through a volatile pointer, or the optimiser leaves the allocation out.
    for (;;) *static_cast<volatile char*>(std::make_unique<char[]>(1 << 20).release()) = 1;
}

// Of the module: a thread that begins with the C library's function would name none.
void Abort() {
    abort();
}

void Pause() {
    pause();
}

void Nothing() {}

template <void (*body)()>
int Detach() {
    std::thread(body).detach();
    return 0;
}

// Static threads that are never joined.
template <void (*body)()>
int Keep() {
    g_thread = std::thread(body);
    return 0;
}

template <void (*end)(int), int status>
int End() {
    end(status);
    return 0;
}

const std::map<std::string, int (*)()> kActions = {
    {"throws", Throw},
    {"fails", Fail},
    {"mask", Unblock},
    {"raises", Raise},
    {"cancels", [] { return pthread_cancel(pthread_self()); }},
    {"dies", Die},
    {"exits", End<_exit, 3>},
    {"leaves", End<exit, 4>},  // in order, as it believes
    {"hangs", Hang},
    {"late", Detach<EndLate>},
    {"leaks", Detach<Leak>},
    {"aborts", Detach<Abort>},
    {"held", Keep<Work>},
    {"unjoined", Keep<Pause>},
    {"ended", Keep<Nothing>},
    {"takes", TakeDescriptors},
    {"closes", [] { return close_range(3, 1023, 0); }},
    {"changes", Change},
    {"eats", Eat},
    {"outgrows", Detach<Outgrow>},
    {"forks", Fork},
    {"goeson", [] { return fork() < 0 ? 1 : 0; }},  // parent and child do
};

int Act(const char* call) {
    return kCall == call && kActions.contains(kAction) ? kActions.at(kAction)() : 0;
}

int Configure(void* /*user*/, const KemdConfig* /*config*/) {
    return Act("configure");
}

int Start(void* /*user*/) {
    return Act("start");
}

void Stop(void* /*user*/) {
    Act("stop");
}

void Notify(void* /*user*/, uint32_t /*code*/, const void* /*data*/) {
    Act("notify");
}

int Health(void* /*user*/, char* /*text*/, size_t /*size*/) {
    return Act("health");
}

int Request(void* /*user*/, const char* /*text*/, KemdReply* /*reply*/) {
    return Act("request");
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

KEMD_MODULE_V2 = {
    KEMD_MODULE_V2_HEAD, kName.c_str(), nullptr, nullptr, nullptr, nullptr,
    Configure,           Start,         Stop,    Notify,  Health,  Request,
};
