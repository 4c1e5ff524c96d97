#include "daemon/run_level.h"

#include <stdlib.h>
#include <utmp.h>

#include <filesystem>

#include "tests/traced_test.h"

namespace {

namespace fs = std::filesystem;

struct World {
    bool systemctl;
    const char* nickname;  // null: unset
    const char* file;      // what the run-level file holds
    std::string utmp;      // the run level's character there, or empty
    const char* command;   // what /sbin/runlevel prints; null: there is none
};

void Make(const World& world) {
    for (const char* file : {"/usr/bin/systemctl", "/usr/sbin/runlevel", "/tmp/asked"}) {
        fs::remove(file);
    }
    if (world.systemctl) WriteFile("/usr/bin/systemctl", "");
    WriteFile("/etc/orvmon/RunLevel", world.file);
    utmp records[3]{};
    records[0].ut_type = BOOT_TIME;
    records[0].ut_pid = '1';
    records[1].ut_type = world.utmp.empty() ? USER_PROCESS : RUN_LVL;
    records[1].ut_pid = world.utmp.empty() ? '2' : 'N' * 256 + world.utmp[0];
    WriteFile("/run/utmp", {reinterpret_cast<const char*>(records), sizeof(records)});
    if (world.command != nullptr) {
        WriteFile("/usr/sbin/runlevel",
                  "#!/bin/sh\n>/tmp/asked\necho '" + std::string(world.command) + "'\n");
        fs::permissions("/usr/sbin/runlevel", fs::perms(0755));
    }
    world.nickname != nullptr ? setenv("OV_NICKNAME", world.nickname, 1) : unsetenv("OV_NICKNAME");
}

class RunLevelTest : public TracedTest {};

TEST_F(RunLevelTest, IsWhatTheSystemSays) {
    const std::string longLine = std::string(62, 'x') + " 5";
    const struct {
        World world;
        int32_t level = 0;
        bool asked = false;  // /sbin/runlevel ran
    } cases[] = {
        // With systemctl, or one of three nicknames, the file counts.
        {{true, "SLES11", "6\n", "3", "N 4"}, 6, false},
        {{true, nullptr, " 0", "3", "N 4"}, 0, false},
        {{true, "RHEL7", "3", "6", "N 6"}, -1, false},
        {{true, "RHEL7", "level 6", "6", "N 6"}, -1, false},
        {{true, "RHEL7", "", "6", "N 6"}, -1, false},
        {{false, "SLES12", "6", "3", "N 4"}, 6, false},
        {{false, "RHEL7", "6", "3", "N 4"}, 6, false},
        {{false, "OL7", "6", "3", "N 4"}, 6, false},
        // Otherwise it does not.
        {{false, "sles12", "6", "3", "N 4"}, 3, false},
        {{false, "SLES12 ", "6", "0", "N 4"}, 0, false},
        {{false, "SLES1", "6", "S", nullptr}, 'S' - '0', false},
        {{false, nullptr, "6", "6", nullptr}, 6, false},
        {{false, "", "6", "", "N 5"}, 5, true},
        {{false, "SLES11", "6", "/", "3 2"}, 2, true},  // one below the digit 0 is no level
        {{false, "SLES11", "6", "", "N5"}, -1, true},
        {{false, "SLES11", "6", "", ""}, -1, true},
        {{false, "SLES11", "6", "", nullptr}, -1, false},
        {{false, "SLES11", "6", "", longLine.c_str()}, '\0' - '0', true},  // cut at 63 characters
    };
    for (const auto& [world, level, asked] : cases) {
        Make(world);
        const auto number = (&world - &cases[0].world) * sizeof(World) / sizeof(cases[0]);
        EXPECT_EQ(DetectRunLevel(), level) << number;
        EXPECT_EQ(fs::exists("/tmp/asked"), asked) << number;
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
