// The daemon with a full disk: see CMakeLists.txt.
#include <filesystem>

#include "tests/daemon/daemon_test.h"

namespace {

namespace fs = std::filesystem;

TEST_F(DaemonTest, RunsOnAFullDisk) {
    EXPECT_EQ(Stop(StartAndWait({"-n"})), 0);
    // The log is on the same disk, so the ring must have released its space.
    EXPECT_EQ(fs::file_size("/var/log/orvmon/log.kemd_i"), 0u);
    EXPECT_TRUE(InOrder(
        Log(), {"### InitRingBuffer(): (2) write m_InternalDebugBuffer to "
                "/var/log/orvmon/log.kemd_i failed ###\n",
                "KEMD-MAIN: ## Done initializing ##\n", "KEMD-MAIN: ## EXIT PROCESS KEMD ##\n"}));
    EXPECT_FALSE(fs::exists("/var/log/orvmon/log.kemd_a"));
}

}  // namespace
