// What the real program cannot be made to do: signals that it does not wait for, a wait that fails.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "daemon/service.h"
#include "tests/traced_test.h"

static int g_waitResult = 0;
extern "C" int sigwait(const sigset_t* /*set*/, int* signal) {
    *signal = SIGUSR1;
    return g_waitResult;
}

namespace {

class SignalLoopTest : public TracedTest {};

TEST_F(SignalLoopTest, UnexpectedSignalAbortsAndAFailedWaitStops) {
    WriteFile("/usr/bin/systemctl", "");
    WriteFile("/etc/orvmon/RunLevel", "6");
    int status = 0;
    const pid_t child = _Fork();  // traces, as no handler of a fork runs
    if (child == 0) WaitForStop(nullptr);
    if (child == 0) _exit(0);
    EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
    const std::string stop = "KEMD-MAIN: Current RunLevel = 6\n";
    EXPECT_TRUE(InOrder(Trace(), {"KEMD-MAIN: Signal 10 caught -> processing\n", stop,
                                  "KEMD-MAIN: Unexpected Signal 10 caught -> ABORT\n"}));
    ASSERT_TRUE(Debug.Init("kemd"));
    g_waitResult = EINVAL;
    WaitForStop(nullptr);
    EXPECT_TRUE(InOrder(
        Trace(), {"KEMD-MAIN: ## ERROR sigwait() failed (ret=22) ##\n",
                  "KEMD-MAIN: ## ERROR This is Operating System BUG, since sigwait() should never "
                  "return an error !!! ##\n",
                  "KEMD-MAIN: ## ERROR We do so as if SIGTERM has been sent to this process) --> "
                  "Do Shutdown !!! ##\n",
                  "KEMD-MAIN: Signal 15 caught -> processing\n", stop,
                  "KEMD-MAIN: ## Someone signaled exit state ##\n"}));
}

}  // namespace
