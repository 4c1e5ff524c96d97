// Modules in the real daemon: misbehaving ones, between two that behave, whether the next start is
// clean, and the template.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "base/unique_fd.h"
#include "tests/control/control_client.h"
#include "tests/daemon/daemon_test.h"
#include "tests/modules.h"

namespace {

namespace fs = std::filesystem;

// How the daemon ends that has the module in its own process.
enum class End {
    kHarmless,    // in order; side by side with other modules of this kind
    kOrderly,     // in order
    kByItself,    // in order, and because of the module
    kFromInside,  // no module is stopped, the files are removed
    kDeath,       // the files stay
    kKilled,      // because it hangs
};

using enum End;

// The traces: parts that follow each other, with "@" for the file's name.
struct Kind {
    std::string name;  // of the module, see misbehaving.cpp
    End end;
    int status;
    std::string trace;
    // In a process of its own, which changes nothing for the daemon; empty: the same.
    std::string isolated;
};

const Kind kKinds[] = {
    {"fails", kHarmless, 0, "slot 4 ... slot 5 ... slot 6 ... @ failed to start: result 7", ""},
    {"throws-configure", kHarmless, 0, "@ refused its settings: not today", ""},
    {"throws-start", kHarmless, 0, "@ failed to start: not today", ""},
    {"throws-notify", kHarmless, 0, "@ failed to take a notification: not today", ""},
    {"throws-stop", kHarmless, 0, "@ failed to stop: not today", ""},
    {"throws-health", kHarmless, 0, "@ stopped", ""},
    {"throws-request", kHarmless, 0, "@ stopped", ""},
    {"mask", kHarmless, 0, "@ changed the signal mask of the daemon: put back", "@ stopped"},
    {"changes", kHarmless, 0, "@ started ... @ stopped", ""},
    {"goeson", kHarmless, 0, "@ started ... @ stopped", ""},
    {"takes", kHarmless, 0, "@ started ... @ stopped", ""},
    {"late-stop", kHarmless, 0, "@ stopped ... late end of a thread ... modules completed!", ""},
    {"cancels", kHarmless, 0, "@ started",
     "the module ended the thread that calls it ... @: its process ended with status 1; "},
    {"closes", kOrderly, 0, "until then no module runs in a process of its own ... @ stopped",
     "@: its process ended with status 1; it is started"},
    {"leaks", kOrderly, 0,
     "(leaked) is left behind, it came up in the start of module @ ... no module is unloaded",
     "@ stopped ... 1 thread is left after stop"},
#ifndef __SANITIZE_THREAD__  // which reports the threads and has one of its own
    {"unjoined", kOrderly, 0, "@ stopped ... no module is unloaded", "1 thread is left after stop"},
    {"ended", kOrderly, 0, "that was not joined, in the unload of module @", "@ stopped"},
#endif
    {"raises", kByItself, 0, "@ started ... Signal 15 caught ... @ stopped",
     "@: its process died by signal 15 (Terminated); it is started"},
#ifndef KEMD_SANITIZED  // which needs more than there is
    {"eats", kByItself, 1, "a.so started ... a.so stopped", "@ stopped"},
    {"outgrows", kDeath, 1000 + SIGABRT, "std::terminate, for an uncaught exception",
     "no memory is left within MemoryLimit ... @: its process died by signal 6 "},
#endif
    {"leaves", kFromInside, 4, "the process is ended in the start of module @",
     "@: its process ended with status 4; it is started"},
    {"held", kFromInside, 6, "(worker), which came up in the start of module @", "@: its process "},
    {"init", kFromInside, 1,
     "threw an exception out of an initialiser (not even loaded): the dynamic", "not even loaded"},
    {"aborts", kDeath, 1000 + SIGABRT, "", "@: its process died by signal 6 "},
    {"dies", kDeath, 1000 + SIGSEGV, "", "@: its process died by signal 11 "},
    {"exits", kDeath, 3, "", "@: its process ended with status 3; it is started"},
    {"hangs", kKilled, 1000 + SIGKILL, "@ hangs: its start has not come back within 0.1 s",
     "@: its call has not come back within 0.1 s, its process was killed; it is started"},
    {"hangs-stop", kKilled, 1000 + SIGKILL, "@ hangs: its stop has not come back within 0.1 s",
     "@ failed to stop: its call has not come back within 0.1 s, its process was killed"},
};

constexpr const char* kHangs = " has not come back within 0.1 s\n";

std::vector<std::string> Parts(const Kind& kind, std::string text) {
    for (size_t place = 0; (place = text.find('@')) != text.npos;) {
        text.replace(place, 1, kind.name + ".so");
    }
    std::vector<std::string> parts;
    for (size_t end = 0; end != text.npos;) {
        end = text.find(" ... ");
        parts.push_back(text.substr(0, end));
        text.erase(0, end != text.npos ? end + 5 : 0);
    }
    return parts;
}

class ModuleTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        UseReferenceSwitch();
        fs::remove("/tmp/go");
        Settings("b", "Isolated = yes\n");
    }

    // Between modules that behave; one of these has a process of its own.
    static void Install(const std::vector<std::string>& kinds) {
        ClearModules();
        for (const char* const name : {"a.so", "b.so", "z.so"}) {
            AddModule("/build/modules/notifications.so", name);
        }
        for (const std::string& kind : kinds) AddModule("/test/misbehaving/any.so", kind + ".so");
    }

    void ExpectFilesOf(pid_t pid) {
        EXPECT_EQ(ReadFile(kLockFile), "kemd#" + std::to_string(pid)) << Complaints();
        EXPECT_EQ(ReadFile(kPidFile), std::to_string(pid) + "\n");
    }

    void ExpectOrderlyEnd() {
        EXPECT_TRUE(InOrder(Trace(),
                            {"a.so started\n", "b.so started\n", "z.so started\n", "z.so stopped\n",
                             "b.so stopped\n", "a.so stopped\n", "## EXIT PROCESS KEMD ##\n"}));
        EXPECT_FALSE(fs::exists(kPidFile) || fs::exists(kLockFile));
    }

    void ExpectCleanRestart() {
        Install({});
        const pid_t pid = Run();
        ExpectFilesOf(pid);
        EXPECT_EQ(Stop(pid), 0);
        ExpectOrderlyEnd();
    }

    // One line, if it was a crash.
    void ExpectCrashLine(const Kind& kind, pid_t pid) {
        const std::string file = m_logDirectory + "/kemd.crashes";
        if (kind.status < 1000 || kIsSanitized) return;  // a sanitizer has handlers of its own
        const std::string line = ReadFile(file);
        fs::remove(file);
        EXPECT_TRUE(InOrder(line, {"\"process\":" + std::to_string(pid),
                                   "\"signal\":" + std::to_string(kind.status - 1000),
                                   "\"module\":\"" + kind.name + "\",\"frames\":[\"/",
                                   "/tmp/modules/" + kind.name + ".so+0x"}));
        EXPECT_EQ(line.find('\n') + 1, line.size()) << line;
    }

    void ExpectEnd(const Kind& kind);
};

// Runs the daemon with this module, until it ends.
void ModuleTest::ExpectEnd(const Kind& kind) {
    SCOPED_TRACE(kind.name);
    Install({kind.name});
    const bool isInStart = kind.name == "hangs";
    const pid_t pid = Run({}, isInStart ? kHangs : kWaits);
    const UniqueFd go(open("/tmp/go", O_RDWR));
    if (kind.end == kOrderly || kind.end == kKilled) kill(pid, SIGTERM);
    if (kind.end == kKilled) {
        ASSERT_TRUE(WaitForLog(kHangs));
        kill(pid, SIGKILL);
    }
    EXPECT_EQ(WaitForExit(pid), kind.status);
    EXPECT_TRUE(InOrder(Trace(), Parts(kind, kind.trace)));
    switch (kind.end) {
        case kHarmless:
        case kOrderly:
        case kByItself:
            if (kind.status == 0) ExpectOrderlyEnd();
            break;
        case kFromInside:
            EXPECT_TRUE(Contains(Trace(), "KEMD-MAIN: the process was ended from inside"));
            EXPECT_FALSE(Contains(Trace(), "module a.so stopped"));
            EXPECT_FALSE(fs::exists(kLockFile) || fs::exists(kPidFile));
            break;
        case kDeath:
            ExpectCrashLine(kind, pid);
            [[fallthrough]];
        case kKilled:
            ExpectFilesOf(pid);
    }
    ExpectNoChildLeft();
}

TEST_F(ModuleTest, TheOthersRunOnAndTheStopIsOrderly) {
    std::vector<std::string> names;
    for (const Kind& kind : kKinds) {
        if (kind.end == kHarmless) names.push_back(kind.name);
    }
    Install(names);
    const pid_t pid = Run();
    ExpectFilesOf(pid);
    EXPECT_TRUE(
        Contains(Ask("show", "throws-health"), R"("health":"failed","healthText":"not today")"));
    EXPECT_TRUE(Contains(Ask(RequestOf("throws-request", "")), "failed in the request: not today"));
    EXPECT_EQ(Stop(pid), 0);
    ExpectOrderlyEnd();
    ExpectNoChildLeft();
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        if (kind.end == kHarmless) {
            EXPECT_TRUE(InOrder(Trace(), Parts(kind, kind.trace)));
        }
    }
    EXPECT_EQ(ReadFile("/tmp/taken"), "");
    ExpectCleanRestart();
}

// Also: each start after such an end is clean.
TEST_F(ModuleTest, TheDaemonEndsAsPromised) {
    ASSERT_EQ(mkfifo("/tmp/go", 0600), 0);
    Settings("hangs", "StartTimeout = 100 ms\n");
    Settings("hangs-stop", "StopTimeout = 100 ms\n");
    Settings("closes", "StartTimeout = 1h\n");  // its watch wakes no thread
    for (const Kind& kind : kKinds) {
        if (kind.end != kHarmless) ExpectEnd(kind);
    }
    ExpectCleanRestart();
}

// All of them at once: the daemon and those that behave do not notice.
TEST_F(ModuleTest, InAProcessOfItsOwnEachIsReportedAndStartedAgain) {
    std::vector<std::string> names;
    for (const Kind& kind : kKinds) {
        names.push_back(kind.name);
        const std::string limit = kind.name == "outgrows" ? "MemoryLimit = 64M\n" : "";
        const std::string timeouts =
            kind.end == kKilled ? "StartTimeout = 100 ms\nStopTimeout = 100 ms\n" : "";
        Settings(kind.name, ("Isolated = yes\n" + limit).append(timeouts));
    }
    Install(names);
    const pid_t pid = Run();
    for (const char* const kind : {"dies", "raises", "hangs", "exits"}) {
        EXPECT_TRUE(WaitFor([&] {
            return InOrder(Ask("show", kind), {R"("state":"restarting")", R"("health":"failed")"});
        })) << kind;
    }
    EXPECT_TRUE(WaitForLog("; it is started again in 2 s\n"));
    ExpectFilesOf(pid);
    for (const char* const name : {"a", "b", "z", "changes", "takes", "mask"}) {
        EXPECT_TRUE(Contains(Ask("show", name), R"("state":"running")")) << name;
    }
    EXPECT_EQ(Stop(pid), 0);
    ExpectOrderlyEnd();
    ExpectNoChildLeft();
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        EXPECT_TRUE(
            InOrder(Trace(), Parts(kind, kind.isolated.empty() ? kind.trace : kind.isolated)));
    }
}

// The fourth start comes up without the module.
TEST_F(ModuleTest, ThirdCrashDisablesTheModule) {
    Install({"aborts"});
    for (int i = 0; i < 3; ++i) EXPECT_EQ(WaitForExit(Run()), 1000 + SIGABRT);
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_TRUE(InOrder(Trace(), {"module aborts.so is disabled: it crashed three times within ten "
                                  "minutes",
                                  "kemdctl modules enable aborts\n"}));
    ExpectOrderlyEnd();
}

TEST_F(ModuleTest, ChildThatLivesOnKeepsNoLock) {
    Install({"forks"});
    EXPECT_EQ(Stop(Run(), SIGKILL), 1000 + SIGKILL);
    const std::string trace = Trace();
    const auto child = static_cast<pid_t>(std::stol(trace.substr(trace.find(" child ") + 7)));
    ExpectCleanRestart();
    EXPECT_EQ(Stop(child, SIGKILL), 1000 + SIGKILL) << "it should still live";
}

// The modules that were built outside of this tree, from the installed template.
TEST_F(ModuleTest, TemplateRunsHoweverItWasBuilt) {
    for (const std::string tool : {"cmake", "make"}) {
        SCOPED_TRACE(tool);
        ClearModules();
        AddModule("/test/template/" + tool + "/template.so");
        AddModule("/test/template/" + tool + "/template_c.so");
        const pid_t pid = Run();
        ASSERT_TRUE(WaitFor([this] { return Contains(Trace(), " template_c    round 1\n"); }));
        EXPECT_EQ(Stop(pid), 0);
        EXPECT_TRUE(InOrder(Trace(), {"module template.so started\n", "template_c.so started\n",
                                      "module template_c.so stopped\n", "template.so stopped\n",
                                      "## EXIT PROCESS"}));
    }
}

}  // namespace
