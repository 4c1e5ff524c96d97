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
    const std::string started = "module notifications.so started\n";
    const std::string stopped = "module notifications.so stopped\n";
    const std::string unloaded = "unload of all registered extension modules completed!\n";
    const struct {
        std::string kind;
        std::vector<std::string> trace;
    } cases[] = {
        {"fails",
         {"kemd          slot 4\n", "kemd          slot 5\n", "kemd          slot 6\n",
          "misbehaving   slot 7\n", "misbehaving   slot 8\n",
          "module fails.so failed to start: result 7\n", started, stopped}},
        {"throws", {started, "module throws.so failed to start: not today\n", stopped}},
        {"late", {started, "module late.so stopped\n", "late end of a thread\n", unloaded}},
        {"leaks",
         {started, stopped, "module leaks.so stopped\n",
          "(leaked) is left behind, it came up in the start of module leaks.so\n",
          "threads of modules may still run: no module is unloaded\n", unloaded}},
        {"mask",
         {"module mask.so changed the signal mask of the daemon: put back\n", started, stopped}},
        {"cancels", {"module cancels.so started\n", started, stopped, unloaded}},
        {"closes", {started, stopped, "module closes.so stopped\n", unloaded}},
        {"changes", {"module changes.so started\n", started, stopped, unloaded}},
        {"goeson", {"module goeson.so started\n", started, stopped, unloaded}},
        {"takes", {started, "module takes.so started\n", "module takes.so stopped\n", unloaded}},
        {"raises", {started, "module raises.so started\n", "module raises.so stopped\n", unloaded}},
#ifndef __SANITIZE_THREAD__  // which reports the threads and has one of its own
        {"unjoined",
         {started, "module unjoined.so stopped\n", "no module is unloaded\n", unloaded}},
        {"ended",
         {started, "module ended.so stopped\n",
          "that was not joined, in the unload of module ended.so\n", "## EXIT PROCESS KEMD ##\n"}},
        {"pinned", {started, "module pinned.so stopped\n", unloaded}},
#endif
    };
    for (const auto& [kind, trace] : cases) {
        SCOPED_TRACE(kind);
        Install(kind);
        const pid_t pid = Run();
        EXPECT_EQ(ReadFile(kPidFile), std::to_string(pid) + "\n");
        EXPECT_EQ(Stop(pid), 0);
        EXPECT_TRUE(InOrder(Trace(), trace));
        EXPECT_EQ(Contains(Log(), "## EXIT PROCESS KEMD ##\n"), kind != "closes") << Log();
        EXPECT_EQ(ReadFile("/tmp/taken"), "");
        EXPECT_FALSE(fs::exists(kPidFile) || (kind != "closes" && fs::exists(kLockFile)));
        ExpectNoChildLeft();
    }
    ExpectCleanRestart();
}

// The daemon ends with the module, but says so and removes its files.
TEST_F(ModuleTest, EndFromInsideIsTracedAndLeavesNothing) {
    const std::string ended = "the process is ended in the start of module ";
    const std::string cleaned = "KEMD-MAIN: the process was ended from inside";
    const struct {
        std::string kind;
        int status;
        std::vector<std::string> trace;
    } cases[] = {
        {"leaves", 4, {ended + "leaves.so\n", cleaned}},
        {"quits", 5, {ended + "quits.so\n", cleaned}},
        {"worker", 6, {"(worker), which came up in the start of module worker.so\n", cleaned}},
        {"crowd", 6, {cleaned}},
        {"held", 6, {"(worker), which came up in the start of module held.so\n", cleaned}},
        {"init",
         1,
         {"module init.so threw an exception out of an initialiser (not even loaded): the dynamic "
          "loader cannot be used",
          "the process is ended in the load of module init.so\n", cleaned}},
    };
    ASSERT_EQ(mkfifo("/tmp/go", 0600), 0);
    for (const auto& [kind, status, trace] : cases) {
        SCOPED_TRACE(kind);
        Install(kind);
        const pid_t pid = Run();
        const UniqueFd go(open("/tmp/go", O_RDWR));
        EXPECT_EQ(WaitForExit(pid), status);
        EXPECT_TRUE(InOrder(Trace(), trace));
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

TEST_F(ModuleTest, StopThatBlocksEndsWithAKill) {
    Install("blocks");
    const pid_t pid = Run();
    kill(pid, SIGTERM);
    ASSERT_TRUE(WaitFor([this] { return Contains(Trace(), "stop does not return\n"); }));
    kill(pid, SIGTERM);  // a second request changes nothing
    EXPECT_EQ(kill(pid, 0), 0);
    EXPECT_EQ(Stop(pid, SIGKILL), 1000 + SIGKILL);
    EXPECT_TRUE(InOrder(Trace(), {"notifications.so stopped\n", "stop does not return\n"}));
    ExpectCleanRestart();
}

TEST_F(ModuleTest, ChildThatLivesOnKeepsNoLock) {
    for (const auto& [signal, status] : {std::pair{SIGTERM, 0}, {SIGKILL, 1000 + SIGKILL}}) {
        Install("forks");
        EXPECT_EQ(Stop(Run(), signal), status);
        const std::string text = "misbehaving   child ";
        const std::string trace = Trace();
        const size_t found = trace.find(text);
        ASSERT_NE(found, std::string::npos);
        const auto child = static_cast<pid_t>(std::stol(trace.substr(found + text.size())));
        ExpectCleanRestart();
        EXPECT_EQ(kill(child, 0), 0) << "it should still live";
        EXPECT_EQ(Stop(child, SIGKILL), 1000 + SIGKILL);
    }
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
