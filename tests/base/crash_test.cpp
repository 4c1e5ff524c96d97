// What a crash leaves: the line of the handler, in children of this process, and what the crash
// file makes of such lines.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <functional>
#include <thread>

#include "base/crash_handler.h"
#include "tests/world.h"

// A crash is not for the sanitizers to find.
#define UNCHECKED __attribute__((noinline, no_sanitize("address", "undefined")))

namespace {

constexpr const char* kFile = "/tmp/crash";
int g_file = -1;

void Write(std::string_view line) {
    (void)!write(g_file, line.data(), line.size());
}

const char* RunningModule() {
    return "every thing.so";
}

// volatile: the compiler must not see through them.
int* volatile g_null = nullptr;
void (*volatile g_call)() = nullptr;
volatile int g_zero = 0;

UNCHECKED void Store() {
    *g_null = 1;
}
UNCHECKED void CallNothing() {
    g_call();
    g_zero = 0;  // no tail call
}
UNCHECKED void Divide() {
    g_zero = 7777 / g_zero;
}
void InThread(void (*crash)()) {
    std::thread([crash] {
        pthread_setname_np(pthread_self(), "a \"\xc3");
        crash();
    }).join();
}
// Two threads at once: the gate opens for both.
void InTwoThreads() {
    std::atomic<int> arrived{0};
    const auto crash = [&arrived] {
        ++arrived;
        while (arrived < 2) sched_yield();
        Store();
    };
    std::thread one(crash), two(crash);
    one.join();
}
UNCHECKED int Overflow(int depth) {
    volatile char big[4096];
    big[0] = static_cast<char>(depth);
    return depth < 0 ? 0 : Overflow(depth + 1) + big[0];
}
// The caller's frame is not there any more.
UNCHECKED void LoseStack() {
    asm volatile("mov $16, %%rsp; mov $16, %%rbp; call *%0" : : "r"(g_call));
}

// The status of a child that does this with the signals at their defaults, with and without the
// handler.
int StatusOf(const std::function<void()>& crash, bool isHandled) {
    const pid_t child = fork();
    if (child == 0) {
        const rlimit limit{RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_CORE, &limit);
        for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
            std::signal(signal, SIG_DFL);
        }
        g_file = open(kFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        std::optional<CrashHandler> handler;
        if (isHandled) handler.emplace(CrashTarget{Write, RunningModule});
        crash();
        _exit(0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

TEST(CrashHandler, OneLineAndTheStatusOfACrashWithoutIt) {
    const struct {
        const char* name;
        std::function<void()> crash;
        std::vector<std::string> line;
    } cases[] = {
        {"store", Store, {R"("signal":11,"name":"SIGSEGV","address":"0x0","thread":)", "+0x"}},
        {"null call", CallNothing, {"SIGSEGV", R"("frames":["0x0","/test/crash_test+0x)"}},
        {"divide", Divide, {R"("signal":8,"name":"SIGFPE","address":"0x)", "/test/crash_test+0x"}},
        {"trap", [] { __builtin_trap(); }, {"SIGILL", "/test/crash_test+0x"}},
        {"abort",
         [] { abort(); },
         {R"("name":"SIGABRT","sender":)", "libc", "/test/crash_test+0x"}},
        {"terminate", [] { std::terminate(); }, {"SIGABRT", "/test/crash_test+0x"}},
        {"raise", [] { raise(SIGBUS); }, {"SIGBUS", "sender", "/test/crash_test+0x"}},
        {"thread", [] { InThread(Store); }, {R"("threadName":"a \u0022\u00c3")", "crash_test+0x"}},
        {"two", InTwoThreads, {"SIGSEGV", "crash_test+0x"}},
        {"overflow", [] { (void)Overflow(0); }, {"SIGSEGV", "crash_test+0x", "crash_test+0x"}},
        {"stack lost", LoseStack, {"SIGSEGV", "crash_test+0x", "\"]}"}},
    };
    for (const auto& [name, crash, line] : cases) {
        SCOPED_TRACE(name);
        unlink(kFile);
        const int expected = StatusOf(crash, false);
        EXPECT_TRUE(WIFSIGNALED(expected));
        EXPECT_EQ(ReadFile(kFile), "");
        EXPECT_EQ(StatusOf(crash, true), expected);
        const std::string text = ReadFile(kFile);
        EXPECT_TRUE(InOrder(text, line));
        EXPECT_TRUE(
            InOrder(text, {"{\"time\":\"2", R"(,"module":"every thing","frames":[)", "]}\n"}));
        EXPECT_EQ(text.find('\n') + 1, text.size()) << text;
        EXPECT_LE(text.size(), kMostCrashLine);
    }
}

TEST(CrashHandler, OthersDieWithoutALine) {
    const auto fork = [] {
        const pid_t child = ::fork();
        if (child == 0) abort();
        int status = 0;
        waitpid(child, &status, 0);
        _exit(WTERMSIG(status));
    };
    unlink(kFile);
    EXPECT_EQ(WEXITSTATUS(StatusOf(fork, true)), SIGABRT);
    const auto keeps = [] {
        std::signal(SIGFPE, [](int) { _exit(7); });
        const CrashHandler second(CrashTarget{Write, nullptr});
        Divide();
    };
    EXPECT_EQ(WEXITSTATUS(StatusOf(keeps, false)), 7);
    const auto gone = [] {
        { const CrashHandler handler(CrashTarget{Write, nullptr}); }
        Store();
    };
    EXPECT_EQ(WTERMSIG(StatusOf(gone, false)), SIGSEGV);
    EXPECT_EQ(ReadFile(kFile), "");
}

}  // namespace
