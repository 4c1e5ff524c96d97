// Modules in the real daemon: misbehaving ones, next to one that behaves, whether the next start is
// clean, and the template.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "base/unique_fd.h"
#include "tests/daemon/daemon_test.h"
#include "tests/modules.h"

namespace {

namespace fs = std::filesystem;

class ModuleTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        UseSwitch("reference");
        m_environment["OV_MODULE_DIR"] = kModules;
    }

    static void Install(const std::string& kind) {
        ClearModules();
        AddModule("/build/modules/notifications.so");
        if (!kind.empty()) AddModule("/test/misbehaving/any.so", kind + ".so");
    }

    // A child of a module has become a child of this process, which is process 1.
    static void ExpectNoChildLeft() {
        EXPECT_TRUE(WaitFor([] { return waitpid(-1, nullptr, WNOHANG) < 0; }));
    }

    void ExpectCleanRestart() {
        Install("");
        const pid_t pid = Run();
        EXPECT_EQ(ReadFile(kLockFile), "kemd#" + std::to_string(pid)) << Complaints();
        EXPECT_EQ(ReadFile(kPidFile), std::to_string(pid) + "\n");
        EXPECT_EQ(Stop(pid), 0);
        EXPECT_TRUE(InOrder(Trace(), {"module notifications.so started\n",
                                      "module notifications.so stopped\n", "## EXIT PROCESS"}));
        EXPECT_FALSE(fs::exists(kPidFile) || fs::exists(kLockFile));
    }
};

TEST_F(ModuleTest, TheOthersRunOnAndTheStopIsOrderly) {
    const struct {
        std::string kind;
        std::vector<std::string> trace;
    } cases[] = {
        {"fails", {"slot 4\n", "slot 5\n", "slot 6\n", "fails.so failed to start: result 7\n"}},
        {"throws", {"module throws.so failed to start: not today\n"}},
        {"late", {"late.so stopped\n", "late end of a thread\n", "modules completed!\n"}},
        {"leaks",
         {"(leaked) is left behind, it came up in the start of module leaks.so\n",
          "threads of modules may still run: no module is unloaded\n"}},
        {"mask", {"module mask.so changed the signal mask of the daemon: put back\n"}},
        {"cancels", {"module cancels.so started\n"}},
        {"goeson", {"module goeson.so started\n"}},
        {"takes", {"module takes.so started\n", "module takes.so stopped\n"}},
        {"raises", {"module raises.so started\n", "module raises.so stopped\n"}},
#ifndef __SANITIZE_THREAD__  // which reports the threads and has one of its own
        {"unjoined", {"module unjoined.so stopped\n", "no module is unloaded\n"}},
        {"ended", {"that was not joined, in the unload of module ended.so\n"}},
#endif
    };
    for (const auto& [kind, trace] : cases) {
        SCOPED_TRACE(kind);
        Install(kind);
        const pid_t pid = Run();
        EXPECT_EQ(ReadFile(kPidFile), std::to_string(pid) + "\n");
        EXPECT_EQ(Stop(pid), 0);
        EXPECT_TRUE(InOrder(Trace(), trace));
        EXPECT_TRUE(InOrder(Trace(), {"notifications.so started\n", "notifications.so stopped\n",
                                      "## EXIT PROCESS KEMD ##\n"}));
        EXPECT_EQ(ReadFile("/tmp/taken"), "");
        EXPECT_FALSE(fs::exists(kPidFile) || fs::exists(kLockFile));
        ExpectNoChildLeft();
    }
    ExpectCleanRestart();
}

// The daemon ends with the module, but says so and removes its files.
TEST_F(ModuleTest, EndFromInsideIsTracedAndLeavesNothing) {
    const struct {
        std::string kind;
        int status;
        std::string trace;
    } cases[] = {
        {"leaves", 4, "the process is ended in the start of module leaves.so\n"},
        {"quits", 5, "the process is ended in the start of module quits.so\n"},
        {"crowd", 6, ""},  // which of them comes first is not certain
        {"held", 6, "(worker), which came up in the start of module held.so\n"},
        {"init", 1, "threw an exception out of an initialiser (not even loaded): the dynamic "},
    };
    ASSERT_EQ(mkfifo("/tmp/go", 0600), 0);
    for (const auto& [kind, status, trace] : cases) {
        SCOPED_TRACE(kind);
        Install(kind);
        const pid_t pid = Run();
        const UniqueFd go(open("/tmp/go", O_RDWR));
        EXPECT_EQ(WaitForExit(pid), status);
        EXPECT_TRUE(Contains(Trace(), trace));
        EXPECT_TRUE(Contains(Trace(), "KEMD-MAIN: the process was ended from inside"));
        EXPECT_FALSE(Contains(Trace(), "module notifications.so stopped"));
        EXPECT_FALSE(fs::exists(kLockFile) || fs::exists(kPidFile));
    }
    ExpectCleanRestart();
}

// A module that dies or ends the process takes the daemon with it; the files left do no harm.
TEST_F(ModuleTest, DeathLeavesNothingInTheWay) {
    for (const auto& [kind, status] :
         {std::pair{"dies", 1000 + SIGSEGV}, {"exits", 3}, {"daemon", 0}}) {
        SCOPED_TRACE(kind);
        Install(kind);
        EXPECT_EQ(WaitForExit(Run()), status);
        EXPECT_TRUE(fs::exists(kLockFile) && fs::exists(kPidFile));
        ExpectNoChildLeft();
        ExpectCleanRestart();
    }
}

TEST_F(ModuleTest, CrashIsNotedWithTheModule) {
    const std::string file = m_logDirectory + "/kemd.crashes";
    const struct {
        std::string kind;
        int signal;
        std::string place;
    } cases[] = {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they handle it
        {"dies", SIGSEGV, "/tmp/modules/dies.so+0x"},
#endif
        {"aborts", SIGABRT, "/tmp/modules/aborts.so+0x"},
        {"uncaught", SIGABRT, "/tmp/modules/uncaught.so+0x"},
        {"unborn", SIGABRT, "/tmp/modules/unborn.so+0x"},
    };
    for (const auto& [kind, signal, place] : cases) {
        SCOPED_TRACE(kind);
        fs::remove(file);
        Install(kind);
        const pid_t pid = Run();
        EXPECT_EQ(WaitForExit(pid), 1000 + signal);
        const std::string line = ReadFile(file);
        EXPECT_TRUE(InOrder(
            line, {"\"process\":" + std::to_string(pid), "\"signal\":" + std::to_string(signal),
                   "\"module\":\"" + kind + "\",\"frames\":[\"/", place}));
        EXPECT_EQ(line.find('\n') + 1, line.size()) << line;
    }
}

// The fourth start comes up without the module.
TEST_F(ModuleTest, ThirdCrashDisablesTheModule) {
    Install("aborts");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(WaitForExit(Run()), 1000 + SIGABRT);
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_TRUE(
        InOrder(Trace(), {"module aborts.so is disabled: it crashed three times within ten "
                          "minutes",
                          "kemdctl modules enable aborts\n", "notifications.so started\n"}));
}

TEST_F(ModuleTest, StopThatBlocksEndsWithAKill) {
    Install("blocks");
    const pid_t pid = Run();
    kill(pid, SIGTERM);
    ASSERT_TRUE(WaitFor([this] { return Contains(Trace(), "stop does not return\n"); }));
    EXPECT_EQ(Stop(pid, SIGKILL), 1000 + SIGKILL);
    ExpectCleanRestart();
}

TEST_F(ModuleTest, ChildThatLivesOnKeepsNoLock) {
    Install("forks");
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
