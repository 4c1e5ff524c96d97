#include "daemon/run_level.h"

#include <stdlib.h>
#include <utmp.h>

#include "tests/traced_test.h"

namespace {

namespace fs = std::filesystem;

class RunLevelTest : public TracedTest {};

TEST_F(RunLevelTest, IsWhatTheSystemSays) {
    const std::string longLine = std::string(62, 'x') + " 5";
    const struct {
        const char* systemctl;  // null: there is none
        const char* nickname;
        const char* file;     // what the run-level file holds
        char utmp;            // the run level's character there; 0: there is none
        std::string command;  // what /sbin/runlevel prints
        int32_t level;
    } cases[] = {
        // With systemctl, or one of three nicknames, the file counts.
        {"", "SLES11", "6\n", '3', "N 4", 6},
        {"", "", " 0", '3', "N 4", 0},
        {"", "RHEL7", "3", '6', "N 6", -1},
        {nullptr, "SLES12", "6", '3', "N 4", 6},
        {nullptr, "RHEL7", "6", '3', "N 4", 6},
        // Otherwise it does not.
        {nullptr, "sles12", "6", '3', "N 4", 3},
        {nullptr, "", "6", 0, "N 5", 5},
        {nullptr, "SLES11", "6", '/', "3 2", 2},            // one below the digit 0 is no level
        {nullptr, "SLES11", "6", 0, longLine, '\0' - '0'},  // cut at 63 characters
    };
    for (const auto& [systemctl, nickname, file, level, command, expected] : cases) {
        fs::remove("/usr/bin/systemctl");
        if (systemctl != nullptr) WriteFile("/usr/bin/systemctl", systemctl);
        WriteFile("/etc/orvmon/RunLevel", file);
        utmp records[2]{};  // the first one is empty
        records[1].ut_type = level == 0 ? USER_PROCESS : RUN_LVL;
        records[1].ut_pid = 'N' * 256 + level;
        WriteFile("/run/utmp", {reinterpret_cast<const char*>(records), sizeof(records)});
        WriteFile("/usr/sbin/runlevel", "#!/bin/sh\necho '" + command + "'\n");
        fs::permissions("/usr/sbin/runlevel", fs::perms(0755));
        setenv("OV_NICKNAME", nickname, 1);
        EXPECT_EQ(DetectRunLevel(), expected) << nickname << ", " << file << ", " << command;
    }
    EXPECT_TRUE(InOrder(
        Trace(), {"KEMD-MAIN: we are runing on OS \"SLES11\"\n",
                  "KEMD-MAIN: /usr/bin/systemctl detected on this OS\n",
                  "KEMD-MAIN: OS shutdown reguired: RunLevel = 6 from /etc/orvmon/RunLevel\n",
                  "KEMD-MAIN: cannot identify OS (from OV_NICKNAME) on which we are running\n",
                  "KEMD-MAIN: OS shutdown reguired: RunLevel = 3 from /etc/orvmon/RunLevel\n",
                  "on OS \"sles12\"\n", "KEMD-MAIN: try to indentify runlevel on older OS\n"}));
}

}  // namespace
