// The daemon where files cannot be written. See CMakeLists.txt for what is special in this root.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "tests/daemon/daemon_test.h"

namespace {

namespace fs = std::filesystem;

TEST_F(DaemonTest, RunsWithoutAProcessIdFile) {
    sockaddr_un address{AF_UNIX, "/dev/log"};
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(log, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    m_logDirectory = m_environment["OV_LOG_RINGBUF_DIR"] = "/tmp/log";
    fs::create_directories(m_logDirectory);

    const pid_t pid = Run();
    const std::string process = std::to_string(pid);
    EXPECT_FALSE(fs::exists(kPidFile));
    EXPECT_TRUE(Contains(Calls(), "StartAllModules\n"));
    EXPECT_TRUE(InOrder(Trace(), {"KEMD-MAIN: ERROR! Cannot create kemd PID file /var/run/kemd.pid "
                                  "for kemd PID " +
                                  process + " (errno=30)!\n"}));
    char text[512]{};
    EXPECT_GT(recv(log, text, sizeof(text) - 1, MSG_DONTWAIT), 0);
    EXPECT_TRUE(InOrder(text, {"<27>", " kemd[" + process +
                                           "]: Cannot create kemd PID file "
                                           "/var/run/kemd.pid for kemd PID " +
                                           process + " (errno = 30)!"}));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_FALSE(fs::exists(kLockFile));
    close(log);
}

TEST_F(DaemonTest, RunsOnAFullDisk) {
    EXPECT_EQ(Stop(StartAndWait({"-n"})), 0);
    // The log is on the same disk: the ring gave back what it had taken.
    EXPECT_EQ(fs::file_size("/var/log/orvmon/log.kemd_i"), 0u);
    EXPECT_TRUE(InOrder(
        Log(), {"### InitRingBuffer(): (2) write m_InternalDebugBuffer to "
                "/var/log/orvmon/log.kemd_i failed ###\n",
                "KEMD-MAIN: ## Done initializing ##\n", "KEMD-MAIN: ## EXIT PROCESS KEMD ##\n"}));
    EXPECT_FALSE(fs::exists("/var/log/orvmon/log.kemd_a"));
}

}  // namespace
