// /etc/init.d/kemd with the real daemon, and what a purge of the package leaves.
#include "tests/packaging/script.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kPidFile = "/var/run/kemd.pid";

TEST(InitScript, StartsAndStopsTheDaemon) {
    fs::remove("/run/systemd/system");  // another init system, in its usual level
    WriteProgram("/usr/sbin/runlevel", "echo N 2");
    WriteFile("/etc/os-release", "ID=debian\nVERSION_ID=12\n");
    WriteFile("/etc/default/kemd",
              "LD_LIBRARY_PATH=/build/tests/switches/c\nOV_NICKNAME=\"SLES12\"\n'=\n");
    WriteFile("/etc/orvmon/RunLevel", "6\n");
    fs::remove_all("/var/log/orvmon");
    ConfigureTrace(1);

    EXPECT_EQ(Shell("/etc/init.d/kemd status"), 3);
    ASSERT_EQ(Shell("/etc/init.d/kemd start"), 0) << Output();
    const std::string first = ReadFile(kPidFile);
    EXPECT_FALSE(fs::exists("/etc/orvmon/RunLevel"));  // left by the last shutdown
    EXPECT_EQ(Shell("/etc/init.d/kemd start"), 0);
    EXPECT_TRUE(Contains(Output(), "already running"));
    EXPECT_EQ(Shell("/etc/init.d/kemd status"), 0);
    EXPECT_EQ(Shell("/etc/init.d/kemd restart"), 0) << Output();
    EXPECT_NE(ReadFile(kPidFile), first);
    // The trace of a crash is kept. The daemon is up before it has written its PID file.
    ASSERT_TRUE(WaitFor([] { return ReadFile(kPidFile).ends_with('\n'); }));
    EXPECT_EQ(fs::status("/var/lock/kemd.lock").permissions(), fs::perms(0600));
    EXPECT_FALSE(fs::exists("/var/log/orvmon/log.kemd_runs"));
    EXPECT_EQ(Shell("kill -KILL $(cat /run/kemd.pid)"), 0);
    ASSERT_TRUE(WaitFor([] { return Shell("kemdctl status") == 3; }));
    EXPECT_EQ(Shell("/etc/init.d/kemd start"), 0);
    EXPECT_TRUE(InOrder(Output(), {"is kept in /var/log/orvmon/log.kemd_runs/", "kemd: started"}));
    EXPECT_EQ(Shell("kemdctl trace --run 1 --last-run"), 1);
    fs::remove(kPidFile);  // then its lock finds it
    EXPECT_EQ(Shell("/etc/init.d/kemd stop"), 0) << Output();
    EXPECT_TRUE(InOrder(RingText("/var/log/orvmon/log.kemd_a"),
                        {"we are runing on OS \"SLES12\"\n", "Current RunLevel = 5\n"}));
    EXPECT_FALSE(fs::exists(kPidFile) || fs::exists("/var/lock/kemd.lock"));

    // Another process has the number now.
    WriteFile(kPidFile, "1\n");
    EXPECT_EQ(Shell("/etc/init.d/kemd status"), 1);
    EXPECT_EQ(Shell("/etc/init.d/kemd stop"), 0);
    WriteFile("/etc/default/kemd", "LD_LIBRARY_PATH=/nowhere\n");
    EXPECT_EQ(Shell("/etc/init.d/kemd start"), 1);
    EXPECT_TRUE(Contains(Output(), "has ended at once, see /var/log/orvmon/log.kemd")) << Output();
    fs::remove(kPidFile);
}

TEST(Purge, RemovesWhatKemdWroteAndNothingElse) {
    const std::string logs = "/var/log/orvmon", run = logs + "/log.kemd_runs/20200101T000000Z-0001";
    for (const char* file : {"/log.kemd", "/log.kemd_a", "/log.kemd_i.gz"}) {
        WriteFile(logs + file, "");
        WriteFile(run + file, "");
    }
    WriteFile("/etc/orvmon/registry.old", "");  // a mount point
    EXPECT_EQ(Shell("sh /debian/kemd.postrm purge"), 0) << Output();
    EXPECT_FALSE(fs::exists(logs) || fs::exists("/etc/orvmon/registry.old"));

    const std::string notes = "/elsewhere/log.kemd_runs/20200101T000000Z/notes";
    for (const std::string& file : {std::string("/elsewhere/log.kemd"), notes}) WriteFile(file, "");
    fs::create_directory_symlink("/elsewhere", logs);
    EXPECT_EQ(Shell("sh /debian/kemd.postrm purge"), 0) << Output();
    EXPECT_TRUE(fs::exists(notes));
    EXPECT_FALSE(fs::exists("/elsewhere/log.kemd"));
    fs::remove(logs);
}

}  // namespace
