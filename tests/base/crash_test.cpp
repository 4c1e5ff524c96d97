// What a crash leaves: the line of the handler, in children of this process, and what the crash
// file makes of such lines.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <functional>
#include <thread>

#include "base/crash_file.h"
#include "base/crash_handler.h"
#include "base/crash_line.h"
#include "base/paths.h"
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
        {"abort",
         [] { abort(); },
         {R"("name":"SIGABRT","sender":)", "libc", "/test/crash_test+0x"}},
        {"raise", [] { raise(SIGBUS); }, {"SIGBUS", "sender", "/test/crash_test+0x"}},
        {"thread", [] { InThread(Store); }, {R"("threadName":"a \u0022\u00c3")", "crash_test+0x"}},
        {"two", InTwoThreads, {"SIGSEGV", "crash_test+0x"}},
        {"overflow", [] { (void)Overflow(0); }, {"SIGSEGV", "crash_test+0x", "crash_test+0x"}},
        {"overflow in a thread",
         [] {
             InThread([] {
                 const AlternateStack own;
                 (void)Overflow(0);
             });
         },
         {"SIGSEGV", "crash_test+0x"}},
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
    EXPECT_EQ(ReadFile(kFile), "");
}

// A line of `module` at this minute and second of an hour.
std::string Line(const std::string& time, const std::string& module,
                 const std::string& more = R"("process":9,"sender":9)") {
    return R"({"time":"2026-11-22T16:)" + time + R"(.000Z",)" + more + R"(,"signal":6,"module":")" +
           module + "\",\"frames\":[]}\n";
}
std::string Back(const std::string& time, const std::string& module) {
    return R"({"time":"2026-11-22T16:)" + time + R"(.000Z","enabled":")" + module + "\"}\n";
}

TEST(CrashFile, WhichModulesAreHeldBack) {
    const std::string three = Line("00:00", "a") + Line("05:00", "a") + Line("10:00", "a");
    const struct {
        std::string text;
        bool isHeld;
        bool isHeldNever;  // with Restart = never
    } cases[] = {
        {Line("00:00", "a"), false, true},
        {Line("00:00", "b") + Line("00:01", "b") + Line("00:02", "b"), false, false},
        {three, true, true},
        {Line("00:00", "a") + Line("05:00", "a") + Line("10:01", "a"), false, true},
        {three + Line("40:00", "b") + Back("41:00", "b"), true, true},
        {three + Back("11:00", "a"), false, false},
        {Line("00:00", "a") + Back("01:00", "a") + Line("02:00", "a") + Line("03:00", "a"), false,
         true},
        {Line("00:00", "a") + "broken {\n\n" + Line("01:00", "a") + Line("02:00", "a") + "{\"time",
         true, true},
        // Of a process of its own; sent by somebody else.
        {Line("00:00", "a", R"("isolated":true,"process":9)"), false, false},
        {Line("00:00", "a", R"("process":9,"sender":1)"), false, false},
    };
    for (const auto& [text, isHeld, isHeldNever] : cases) {
        EXPECT_EQ(IsHeldBack(ParseCrashes(text), "a", true), isHeld) << text;
        EXPECT_EQ(IsHeldBack(ParseCrashes(text), "a", false), isHeldNever) << text;
    }
}

TEST(CrashFile, IsBoundedAndKeepsWhatHoldsAModuleBack) {
    std::string text;
    for (int i = 0; i < 5; ++i) text += Line("00:0" + std::to_string(i), "held");
    for (int i = 0; i < 200; ++i) text += Line("01:00", "n" + std::to_string(i));
    WriteFile(kCrashFile, text + "{\"ti");
    chmod(kCrashFile, 0640);
    EXPECT_TRUE(OpenCrashFile().IsOpen());
    // A process without rights may send anything: of several lines the first counts.
    EXPECT_TRUE(AppendIsolatedCrash(Line("02:00", "own") + Line("02:00", "other")));
    EXPECT_FALSE(AppendIsolatedCrash(R"({"time":"2026-11-22T10:02:00.000Z","enabled":"held"})"
                                     "\n"));
    EXPECT_FALSE(AppendIsolatedCrash(Line("02:00", "a", R"("isolated":false,"process":9)")));
    EXPECT_FALSE(AppendIsolatedCrash("{\"ti"));
    EXPECT_TRUE(AppendEnabled("n199 \"\xc3"));
    const auto crashes = ReadCrashes();
    ASSERT_TRUE(crashes);
    const std::vector<CrashRecord>& all = *crashes;
    // Each of the others crashed once, which holds it back with Restart = never.
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [](const CrashRecord& crash) { return crash.module == "held"; }),
              3);
    EXPECT_TRUE(IsHeldBack(all, "held", true));
    EXPECT_TRUE(IsHeldBack(all, "n0", false));
    EXPECT_TRUE(all[all.size() - 2].isIsolated);
    EXPECT_EQ(all.back().enabled, "n199 \"\xc3");
    EXPECT_FALSE(std::filesystem::exists(std::string(kCrashFile) + ".new"));
    // Nobody else may lock it.
    EXPECT_EQ(std::filesystem::status(kCrashFile).permissions(), std::filesystem::perms(0600));
    // Nobody else says what runs as root.
    std::filesystem::rename(kCrashFile, "/tmp/other");
    std::filesystem::create_symlink("/tmp/other", kCrashFile);
    EXPECT_FALSE(ReadCrashes() || OpenCrashFile().IsOpen() || AppendEnabled("a"));
    EXPECT_TRUE(CrashFileFault(errno).ends_with(
        "kemd.crashes: not used, because it is a link, or others than root may write it; remove it"));
    std::filesystem::remove(kCrashFile);
    std::filesystem::copy("/tmp/other", kCrashFile);
    chmod(kCrashFile, 0666);
    EXPECT_FALSE(ReadCrashes() || OpenCrashFile().IsOpen() || AppendEnabled("a"));
}

}  // namespace
