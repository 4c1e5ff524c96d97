#include "daemon/run_level.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <utmp.h>

#include <filesystem>

#include "tests/traced_test.h"

namespace {

namespace fs = std::filesystem;

struct World {
    bool systemctl;
    const char* nickname;  // null: unset
    const char* file;      // null: there is none
    std::string utmp;      // its run level's character, or empty
    const char* command;   // what /sbin/runlevel prints; null: there is none
};

void WriteUtmp(const std::string& level) {
    utmp records[3]{};
    records[0].ut_type = BOOT_TIME;
    records[0].ut_pid = '1';
    records[1].ut_type = level.empty() ? USER_PROCESS : RUN_LVL;
    records[1].ut_pid = level.empty() ? '2' : 'N' * 256 + level[0];
    records[2].ut_type = DEAD_PROCESS;
    WriteFile("/run/utmp", {reinterpret_cast<const char*>(records), sizeof(records)});
}

void Make(const World& world) {
    for (const char* file : {"/usr/bin/systemctl", "/etc/orvmon/RunLevel", "/usr/sbin/runlevel"}) {
        fs::remove(file);
    }
    if (world.systemctl) WriteFile("/usr/bin/systemctl", "");
    if (world.file != nullptr) WriteFile("/etc/orvmon/RunLevel", world.file);
    WriteUtmp(world.utmp);
    if (world.command != nullptr) {
        const std::string script = std::string("#!/bin/sh\necho '") + world.command + "'\n";
        WriteFile("/usr/sbin/runlevel", script);
        chmod("/usr/sbin/runlevel", 0755);
    }
    world.nickname != nullptr ? setenv("OV_NICKNAME", world.nickname, 1) : unsetenv("OV_NICKNAME");
}

class RunLevelTest : public TracedTest {};

TEST_F(RunLevelTest, IsWhatTheSystemSays) {
    const std::string longLine = std::string(62, 'x') + " 5";
    const struct {
        World world;
        int32_t level;
    } cases[] = {
        // The file counts: there is systemctl, or the nickname is one of three.
        {{true, "SLES11", "6\n", "3", "N 4"}, 6},
        {{true, nullptr, " 0", "3", "N 4"}, 0},
        {{true, "RHEL7", "3", "6", "N 6"}, -1},
        {{true, "RHEL7", "5", "6", "N 6"}, -1},
        {{true, "RHEL7", "level 6", "6", "N 6"}, -1},
        {{true, "RHEL7", "", "6", "N 6"}, -1},
        {{false, "SLES12", "6", "3", "N 4"}, 6},
        {{false, "RHEL7", "6", "3", "N 4"}, 6},
        {{false, "OL7", "6", "3", "N 4"}, 6},
        // It does not.
        {{false, "sles12", "6", "3", "N 4"}, 3},
        {{false, "SLES12 ", "6", "0", "N 4"}, 0},
        {{false, "SLES1", "6", "S", nullptr}, 'S' - '0'},
        {{false, nullptr, "6", "6", nullptr}, 6},
        {{false, "", "6", "", "N 5"}, 5},
        {{false, "SLES11", "6", "/", "3 2"}, 2},  // one below the digit 0 is no level
        {{false, "SLES11", "6", "", "N5"}, -1},
        {{false, "SLES11", "6", "", ""}, -1},
        {{false, "SLES11", "6", "", nullptr}, -1},
        {{false, "SLES11", "6", "", longLine.c_str()}, '\0' - '0'},  // cut at 63 characters
    };
    for (const auto& [world, level] : cases) {
        Make(world);
        EXPECT_EQ(DetectRunLevel(), level) << (&world - &cases[0].world) / sizeof(cases[0]);
    }
}

TEST_F(RunLevelTest, CommandRunsOnlyWithoutARecord) {
    Make({false, "SLES11", nullptr, "3", "N 5'; echo >/tmp/command '"});
    EXPECT_EQ(DetectRunLevel(), 3);
    EXPECT_FALSE(fs::exists("/tmp/command"));
    fs::remove("/run/utmp");
    EXPECT_EQ(DetectRunLevel(), 5);
    EXPECT_TRUE(fs::exists("/tmp/command"));
}

TEST_F(RunLevelTest, IsTraced) {
    Make({true, "SLES%d", "3", "", nullptr});
    DetectRunLevel();
    Make({false, nullptr, nullptr, "3", nullptr});
    DetectRunLevel();
    Make({false, "SLES12", nullptr, "", nullptr});
    EXPECT_EQ(DetectRunLevel(), 5);
    EXPECT_TRUE(InOrder(
        Trace(), {"KEMD-MAIN: we are runing on OS \"SLES%d\"\n",
                  "KEMD-MAIN: /usr/bin/systemctl detected on this OS\n",
                  "KEMD-MAIN: OS shutdown reguired: RunLevel = 3 from /etc/orvmon/RunLevel\n",
                  "KEMD-MAIN: cannot identify OS (from OV_NICKNAME) on which we are running\n",
                  "KEMD-MAIN: try to indentify runlevel on older OS\n", "on OS \"SLES12\"\n",
                  "KEMD-MAIN: cannot open /etc/orvmon/RunLevel (try 0)\n",
                  "KEMD-MAIN: cannot open /etc/orvmon/RunLevel (try 1)\n",
                  "KEMD-MAIN: cannot open /etc/orvmon/RunLevel (try 2)\n",
                  "KEMD-MAIN: this seems to be a simple stop of KEMD (not OS shutdown)\n"}));
}

}  // namespace
