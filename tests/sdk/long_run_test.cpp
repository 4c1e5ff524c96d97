// The real daemon over a long time: what it does while nothing happens, and what remains of many
// starts and stops of a module.
#include <sys/syscall.h>

#include <filesystem>
#include <iomanip>
#include <sstream>

#include "tests/control/control_client.h"
#include "tests/daemon/daemon_test.h"
#include "tests/modules.h"

namespace {

namespace fs = std::filesystem;

class LongRunTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        UseReferenceSwitch();
    }
    void RunWith(const std::vector<std::string>& modules) {
        for (const std::string& module : modules) AddModule("/build/modules/" + module + ".so");
        m_pid = Run();
        m_proc = "/proc/" + std::to_string(m_pid);
    }
    void ExpectOrderlyEnd() {
        EXPECT_EQ(Stop(m_pid), 0);
        ExpectNoChildLeft();
    }
    static void Restart(Client& client, int rounds) {
        for (int i = 0; i < rounds; ++i) {
            ASSERT_EQ(
                client.Ask(R"({"request":"restart","module":"heartbeat"})"),
                R"({"result":{"module":"heartbeat","state":"running","started":["heartbeat"],"stopped":["heartbeat"]}})");
        }
    }
    [[nodiscard]] size_t Count(const std::string& directory) const {
        const fs::directory_iterator entries(m_proc + directory);
        return static_cast<size_t>(std::distance(begin(entries), end(entries)));
    }
    [[nodiscard]] long OwnKilobytes() const {
        const std::string status = ReadFile(m_proc + "/status");
        return std::stol(status.substr(status.find("RssAnon:") + 8));
    }
    // The threads that are not in a wait that only something from outside ends.
    [[nodiscard]] std::string Awake() const;

    pid_t m_pid = 0;
    std::string m_proc;
};

std::string LongRunTest::Awake() const {
    std::string awake;
    for (const auto& task : fs::directory_iterator(m_proc + "/task")) {
        std::istringstream line(ReadFile(task.path() / "syscall"));
        line >> std::setbase(0);
        uint64_t values[6]{};  // the call's number, and its arguments
        for (uint64_t& value : values) line >> value;
        const auto& [call, first, second, third, fourth, fifth] = values;
        const bool waits = (call == SYS_rt_sigtimedwait && third == 0) ||
                           (call == SYS_futex && fourth == 0) ||
                           (call == SYS_poll && static_cast<int>(third) < 0);
        if (line.fail() || !waits) awake += ReadFile(task.path() / "comm") + line.str();
    }
    return awake;
}

TEST_F(LongRunTest, NothingHappensInTheIdleDaemon) {
    if (kIsSanitized) GTEST_SKIP() << "a sanitizer's thread is never idle";
    Settings("counter", "Isolated = yes\n");
    RunWith({"counter", "notifications"});
    EXPECT_TRUE(Contains(Ask("show", "counter"), R"("state":"running")"));
    EXPECT_TRUE(WaitFor([&] { return Awake().empty(); })) << Awake();
    EXPECT_EQ(Count("/task"), 4U);
    // A timer would end one.
    EXPECT_EQ(ReadFile(m_proc + "/timers"), "");
    for (const auto& descriptor : fs::directory_iterator(m_proc + "/fdinfo")) {
        const std::string info = ReadFile(descriptor.path());
        EXPECT_TRUE(!Contains(info, "it_value") || Contains(info, "it_value: (0, 0)")) << info;
    }
    ExpectOrderlyEnd();
}

TEST_F(LongRunTest, ManyRoundsLeaveNothingBehind) {
    for (const auto& [isolated, rounds] : {std::pair{"no", 10'000}, {"yes", 500}}) {
        SCOPED_TRACE(isolated);
        Settings("heartbeat", std::string("Isolated = ") + isolated + "\n");
        RunWith({"heartbeat"});
        Client client;  // for all of it: the daemon notices later that one has gone
        Restart(client, kIsSanitized ? 2 : 500);
        const size_t descriptors = Count("/fd");
        const size_t threads = Count("/task");
        const long kilobytes = OwnKilobytes();
        Restart(client, kIsSanitized ? 10 : rounds);
        EXPECT_EQ(Count("/fd"), descriptors);
        EXPECT_EQ(Count("/task"), threads);
        if (!kIsSanitized) {
            EXPECT_LT(OwnKilobytes(), kilobytes + 8 + rounds / 100);  // 10 bytes a round
        }
        ExpectOrderlyEnd();
    }
}

}  // namespace
