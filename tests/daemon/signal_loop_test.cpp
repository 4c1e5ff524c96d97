// What the real program cannot be made to do: unexpected signals, a wait that fails, an init system
// that does not read.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "base/unique_fd.h"
#include "daemon/notify.h"
#include "daemon/service.h"
#include "kemd/exit_event.h"
#include "tests/traced_test.h"

static int g_signal = 0;
static int g_nextSignal = 0;
static int g_waitResult = 0;
extern "C" int sigwait(const sigset_t* /*set*/, int* signal) {
    *signal = std::exchange(g_signal, g_nextSignal);
    return g_waitResult;
}

// The daemon's time limit for sending, cut to a moment.
extern "C" int setsockopt(int fd, int level, int name, const void*, socklen_t size) noexcept {
    constexpr timeval kMoment{0, 1000};
    return static_cast<int>(syscall(SYS_setsockopt, fd, level, name, &kMoment, size));
}

namespace {

class SignalLoopTest : public TracedTest, public IModuleSwitch {
  protected:
    void SetUp() override {
        TracedTest::SetUp();
        WriteFile("/usr/bin/systemctl", "");
        WriteFile("/etc/orvmon/RunLevel", "6");
    }

    bool LoadModules(ModuleLoadParams* /*params*/) override { return true; }
    bool UnloadModules(uint32_t /*options*/) override { return true; }
    void StartAllModules() override {}
    void StopAllModules() override {}
    void NotifyModules(uint32_t code, void* /*data*/, uint32_t /*word*/) override {
        Debug.Message("notified %x", code);
    }
};

// Must be the first case: a stop, once decided, stays decided.
TEST_F(SignalLoopTest, EventThatIsSetAfterAModuleHasClosedItEndsTheLoop) {
    EventHandle thread = ExitEvent();
    CloseEvent(ExitEvent());
    SetEvent(thread);
    g_signal = SIGALRM;
    g_nextSignal = SIGTERM;
    WaitForStop(this);
    EXPECT_TRUE(Contains(Trace(), "KEMD-MAIN: ## Someone signaled exit state ##\n"));
    EXPECT_FALSE(Contains(Trace(), "notified"));
}

TEST_F(SignalLoopTest, UnexpectedSignalAbortsAndAFailedWaitStops) {
    g_signal = SIGUSR1;
    int status = 0;
    const pid_t child = _Fork();  // traces, as no handler of a fork runs
    if (child == 0) WaitForStop(this);
    if (child == 0) _exit(0);
    EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
    EXPECT_TRUE(InOrder(
        Trace(), {"KEMD-MAIN: Signal 10 caught -> processing\n",
                  "KEMD-MAIN: Current RunLevel = 6\n", "notified 20000\n", "notified 30000\n",
                  "KEMD-MAIN: Unexpected Signal 10 caught -> ABORT\n"}));
    ASSERT_TRUE(Debug.Init("kemd"));
    g_waitResult = EINVAL;
    WaitForStop(this);
    EXPECT_TRUE(InOrder(
        Trace(), {"KEMD-MAIN: ## ERROR sigwait() failed (ret=22) ##\n",
                  "KEMD-MAIN: ## ERROR This is Operating System BUG, since sigwait() should never "
                  "return an error !!! ##\n",
                  "KEMD-MAIN: ## ERROR We do so as if SIGTERM has been sent to this process) --> "
                  "Do Shutdown !!! ##\n",
                  "KEMD-MAIN: Signal 15 caught -> processing\n", "notified 30000\n",
                  "KEMD-MAIN: ## Someone signaled exit state ##\n"}));
}

TEST_F(SignalLoopTest, InitSystemThatDoesNotReadHoldsNothingUp) {
    sockaddr_un address{AF_UNIX, "/run/deaf"};
    const auto* to = reinterpret_cast<const sockaddr*>(&address);
    const UniqueFd deaf(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const UniqueFd sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ASSERT_EQ(bind(deaf.Get(), to, sizeof(address)), 0);
    while (sendto(sender.Get(), "x", 1, 0, to, sizeof(address)) == 1) continue;
    setenv("NOTIFY_SOCKET", address.sun_path, 1);
    NotifyReady();  // without a limit it would not return
    unsetenv("NOTIFY_SOCKET");
    EXPECT_TRUE(Contains(Trace(), "KEMD-MAIN: cannot send READY=1 to /run/deaf (Resource temp"));
}

}  // namespace
