// Modules in processes of their own: the same calls, and what happens when a process ends.
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <vector>

#include "switch_library/restart_plan.h"
#include "tests/control/control_test.h"

namespace {

class IsolatedTest : public ControlTest {
  protected:
    void SetUp() override {
        ControlTest::SetUp();
        fs::create_directories("/usr/bin");
        fs::remove("/usr/bin/kemd-module-host");
        fs::create_symlink("/build/bin/kemd-module-host", "/usr/bin/kemd-module-host");
    }
    // The module base runs in a process of its own, with these further lines in its file.
    void BeginIsolated(const std::string& lines = "") {
        Settings("modules.d/base.ini", "[Module]\nIsolated = yes\n" + lines);
        Begin();
    }
    static pid_t Process() {
        const std::string answer = Ask("show", "base");
        const size_t place = answer.find("\"pid\":");
        return place != answer.npos ? std::atoi(answer.c_str() + place + 6) : 0;
    }
    static bool Shows(const std::string& module, const std::string& text) {
        return Contains(Ask("show", module), text);
    }
};

TEST_F(IsolatedTest, CallsGoToTheProcess) {
    BeginIsolated("[Settings]\nNumber = 3\n");
    const pid_t process = Process();
    EXPECT_GT(process, 1);
    EXPECT_FALSE(IsMapped("base"));
    EXPECT_TRUE(Shows("base", "\"version\":\"1.2\""));
    EXPECT_TRUE(Shows("base", "\"threads\":1,\"isolated\":true"));
    EXPECT_TRUE(Contains(Ask(RequestOf("base", "echo \\u00e9")), "\"reply\":\"\u00e9\"}}"));
    EXPECT_TRUE(Contains(Ask(RequestOf("base", "flood")), "Message too long: 0123"));
    EXPECT_TRUE(Contains(Ask(RequestOf("base", "health 1 dust")), "\"reply\":\"\""));
    EXPECT_TRUE(Shows("base", "\"health\":\"warning\",\"healthText\":\"dust\""));
    Settings("modules.d/base.ini", "[Settings]\nNumber = 12\n");
    EXPECT_TRUE(Contains(Ask("reload", "base"), "keeps those that it had: result 34"));
    Settings("modules.d/base.ini", "[Module]\nIsolated = yes\n");
    // A stop ends the process, a start makes another one.
    EXPECT_TRUE(Contains(Ask("restart", "base"),
                         "\"started\":[\"base\",\"user\"],\"stopped\":[\"user\",\"base\"]"));
    EXPECT_EQ(kill(process, 0), -1);
    EXPECT_TRUE(InOrder(
        Trace(), {" base          number 3", " base          start", "module base.so started",
                  "module user.so started", " user          stop", " base          stop",
                  " base          number 0", " user          start"}));
    Settings("modules.d/base.ini", "");
    (void)Ask("restart", "base");
    EXPECT_TRUE(IsMapped("base"));
    EXPECT_TRUE(End());
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(IsolatedTest, AProcessThatEndsIsStartedAgain) {
    BeginIsolated();
    const pid_t first = Process();
    kill(first, SIGKILL);
    ASSERT_TRUE(WaitFor([] { return Shows("base", "\"state\":\"restarting\""); }));
    EXPECT_TRUE(Shows("base", "\"reason\":\"its process died by signal 9 (Killed)\""));
    EXPECT_TRUE(Shows("base", "\"health\":\"failed\""));
    EXPECT_TRUE(Shows("user", "\"state\":\"running\""));
    EXPECT_TRUE(Contains(Ask(RequestOf("base", "echo 1")), "not run now: its process died by sig"));
    ASSERT_TRUE(WaitFor([] { return Shows("base", "\"state\":\"running\""); }));
    EXPECT_NE(Process(), first);
    EXPECT_TRUE(InOrder(
        Trace(), {"module base.so: its process died by signal 9 (Killed); it is started again in 1",
                  " base          start", "module base.so started"}));
    // The administrator need not wait; one that is stopped stays so.
    kill(Process(), SIGKILL);
    ASSERT_TRUE(WaitFor([] { return Shows("base", "\"state\":\"restarting\""); }));
    EXPECT_TRUE(Contains(Ask("start", "base"), "\"state\":\"running\""));
    kill(Process(), SIGKILL);
    ASSERT_TRUE(WaitFor([] { return Shows("base", "\"state\":\"restarting\""); }));
    EXPECT_TRUE(Contains(Ask("stop", "base"), "\"stopped\":[\"user\",\"base\"]"));
    EXPECT_TRUE(Shows("base", "\"state\":\"stopped\""));
    // One whose process cannot be made again is tried later.
    (void)Ask("start", "base");
    fs::remove("/usr/bin/kemd-module-host");
    kill(Process(), SIGKILL);
    ASSERT_TRUE(
        WaitFor([] { return Shows("base", "No such file or directory; it is tried again in"); }));
    fs::create_symlink("/build/bin/kemd-module-host", "/usr/bin/kemd-module-host");
    EXPECT_TRUE(WaitFor([] { return Shows("base", "\"state\":\"running\""); }));
    EXPECT_TRUE(End());
}

TEST_F(IsolatedTest, ACrashIsInTheTraceAndInTheFileOfCrashes) {
    BeginIsolated();
    (void)Ask(RequestOf("base", "crash"));
    ASSERT_TRUE(WaitFor([] { return Shows("base", "\"state\":\"restarting\""); }));
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)  // they handle the signal
    EXPECT_TRUE(InOrder(Trace(), {" base          crashes\n", "its process ended with status "}));
#else
    EXPECT_TRUE(InOrder(
        Trace(),
        {" base          crashes\n", "process died by signal 11 (Segmentation fault)",
         "module base.so crashed: address 0x10, thread ", " (kemd-base): ", "/base.so+0x"}));
    EXPECT_TRUE(InOrder(ReadFile(kCrashFile), {"\"isolated\"", "\"module\":\"base\""}));
    (void)Ask("start", "base");
    kill(Process(), SIGABRT);
    EXPECT_TRUE(WaitFor([] { return Contains(Trace(), "crashed: sent by process 1, thread "); }));
#endif
}

TEST_F(IsolatedTest, WhatIsNotStartedAgain) {
    BeginIsolated("Restart = never\nisolated = no\n");
    EXPECT_TRUE(Contains(Trace(), "base.ini: [Module] isolated is no key that kemd knows\n"));
    kill(Process(), SIGKILL);
    ASSERT_TRUE(WaitFor([] { return Shows("base", "\"state\":\"failed\""); }));
    EXPECT_TRUE(Contains(Trace(), "it is not started again"));
    // Nobody can ask how it ended when a module ignores this signal.
    EXPECT_TRUE(Contains(Ask("start", "base"), "\"state\":\"running\""));
    const auto previous = std::signal(SIGCHLD, SIG_IGN);
    kill(Process(), SIGKILL);
    EXPECT_TRUE(WaitFor([] { return Shows("base", "its process ended, how is not known"); }));
    std::signal(SIGCHLD, previous);
    // Refusing to start is no crash.
    WriteFile("/tmp/fail", "");
    EXPECT_TRUE(Contains(Ask("start", "base"), "module base does not start: result 5"));
    EXPECT_TRUE(Shows("base", "\"state\":\"failed\",\"reason\":\"result 5\""));
    fs::remove("/tmp/fail");
    ASSERT_EQ(chmod("/tmp/modules/base.so", 0777), 0);
    EXPECT_TRUE(Contains(Ask("start", "base"), "may be written by others than root"));
    MakeSafe("/tmp/modules/base.so");
    EXPECT_TRUE(Contains(Ask("start", "base"), "\"state\":\"running\""));
    // One that ends while or right after it starts does not stay shown as running.
    WriteFile("/tmp/leave", "");
    for (int i = 0; i < 20; ++i) {
        (void)Ask("restart", "base");
        ASSERT_TRUE(WaitFor([] { return Shows("base", "\"its process ended with status 3\""); }));
    }
    fs::remove("/tmp/leave");
    EXPECT_TRUE(End());
    // Nor is a process that cannot be made.
    fs::remove("/usr/bin/kemd-module-host");
    BeginIsolated();
    EXPECT_TRUE(Shows("base", "\"reason\":\"cannot start /usr/bin/kemd-module-host: No such file"));
}

TEST(RestartPlanTest, LaterAndLaterAndAtMostTenTimesAnHour) {
    using std::chrono::seconds;
    RestartPlan plan;
    const RestartPlan::Clock::time_point begin{};
    std::vector<int64_t> delays;
    auto now = begin;
    for (int i = 0; i < 12; ++i) {
        const auto due = plan.Next(now);
        delays.push_back(std::chrono::duration_cast<seconds>(due - now).count());
        now = due;
    }
    EXPECT_EQ(delays, (std::vector<int64_t>{1, 2, 4, 8, 16, 32, 60, 60, 60, 60, 3298, 60}));
    // After a quiet hour it begins again.
    EXPECT_EQ(plan.Next(now + seconds(3601)) - now, seconds(3602));
}

}  // namespace
