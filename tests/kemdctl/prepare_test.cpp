// kemdctl prepare: what is kept of a run, what is removed before a start, and how kept runs are
// read.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "tests/daemon/daemon_test.h"
#include "tests/kemdctl/ctl.h"
#include "tests/kemdctl/json_check.h"

namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

const std::string kLogs = "/var/log/orvmon", kRuns = kLogs + "/log.kemd_runs";
const std::string kHead = "2026-11-15 10:00:00.000 [D82A0740]     3000 KB !";
const std::string kOrderly = kHead + "kemd          KEMD-MAIN: ## EXIT PROCESS KEMD ##\n";
const std::string kKilled = kHead + "kemd          KEMD-MAIN:  Waiting for signals...\n";

class PrepareTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        WriteFile("/etc/default/kemd", "");
    }
    static Names List(const std::string& directory) {
        Names names;
        if (!fs::is_directory(directory)) return names;
        for (const auto& each : fs::directory_iterator(directory)) {
            names.push_back(each.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    // A process that holds the lock file, as this user; 0 when there is no such user.
    static pid_t HoldLock(uid_t user, int operation) {
        fs::remove("/tmp/holds");
        const pid_t holder = fork();
        if (holder == 0) {
            const int said = creat("/tmp/holds", 0600);
            const bool isHeld =
                setuid(user) == 0 && flock(open(kLockFile, O_RDONLY), operation) == 0;
            (void)!write(said, isHeld ? "y" : "n", 1);
            for (;;) pause();
        }
        EXPECT_TRUE(WaitFor([] { return !ReadFile("/tmp/holds").empty(); }));
        if (ReadFile("/tmp/holds") == "y") return holder;
        End(holder);
        return 0;
    }
    static void End(pid_t process) {
        kill(process, SIGKILL);
        EXPECT_EQ(waitpid(process, nullptr, 0), process);
    }
};

TEST_F(PrepareTest, ACrashIsReadAfterTheRestart) {
    Kill(Run());
    const Names files = List(kLogs);
    EXPECT_TRUE(fs::exists(kLockFile) && fs::exists(kPidFile));
    EXPECT_TRUE(Shows("prepare", 0,
                      {"is kept in " + kRuns + "/2", "removed /var/lock/kemd.lock",
                       "removed /var/run/kemd.pid"}));
    EXPECT_FALSE(fs::exists(kLockFile) || fs::exists(kPidFile));
    EXPECT_EQ(List(kLogs), Names{"log.kemd_runs"});
    ASSERT_EQ(List(kRuns).size(), 1u);
    EXPECT_EQ(List(kRuns + "/" + List(kRuns)[0]), files);
    EXPECT_EQ(fs::status(kRuns).permissions(), fs::perms::owner_all);
    // Before the restart and after it.
    EXPECT_TRUE(Shows("trace --last-run", 1, {"killed: no exit message"}));
    const pid_t pid = Run();
    EXPECT_TRUE(Shows("trace --last-run", 0, {"is running", "the newest run that", "killed: no"}));
    const std::string json = Ctl("trace --last-run --json").out;
    EXPECT_TRUE(JsonCheck::IsValid(json) && InOrder(json, {"\"running\"", "\"killed\""})) << json;

    // One that runs keeps its files, one that ended in order is overwritten.
    const Names used = List(kLogs);
    EXPECT_TRUE(Shows("prepare", 1, {"kemd runs as process " + std::to_string(pid)}));
    EXPECT_TRUE(fs::exists(kLockFile) && fs::exists(kPidFile));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_EQ(Ctl("prepare").out, "");
    EXPECT_EQ(List(kLogs), used);

    EXPECT_TRUE(Shows("trace --run 1 --last-run", 1));
    EXPECT_TRUE(Shows("trace -q --run 1 -g signals", 0, {"Waiting for signals..."}));
    EXPECT_TRUE(Shows("trace --list-runs", 0, {"1  2", "Z  ", " KiB  2", " to 2", "killed: no"}));
    EXPECT_TRUE(JsonCheck::IsValid(Ctl("trace --list-runs --json " + kLogs).out));
    for (const char* wrong : {"--run 2", "--run 0", "--run 1 -f", "--run 1 --list-runs"}) {
        EXPECT_TRUE(Shows(std::string("trace ") + wrong, 2));
    }
}

TEST_F(PrepareTest, WhatCountsAsNoOrderlyEnd) {
    const struct {
        std::string log;
        const char* lock;  // null: none
        bool hasPid;
        const char* settings;
        bool isKept;
    } cases[] = {
        {kKilled, nullptr, false, "", true},
        {kOrderly, nullptr, false, "", false},
        {kOrderly, "kemd#4242", false, "", true},
        {kOrderly, "", false, "", false},
        {kOrderly, nullptr, true, "", true},
        {kHead + "module        KEMD-MAIN: ## EXIT PROCESS KEMD ##\n", nullptr, false, "", true},
        {kKilled, "kemd#1", true, "KEMD_KEEP_RUNS=0\n", false},
        {kKilled, nullptr, false, "KEMD_KEEP_RUNS=many\n", true},
        {kKilled + std::string(2 << 20, 'x'), nullptr, false, "KEMD_KEEP_MIB=1\n", false},
    };
    for (const auto& each : cases) {
        SetUp();
        WriteFile(kLogs + "/log.kemd", each.log);
        if (each.lock != nullptr) WriteFile(kLockFile, each.lock);
        if (each.hasPid) WriteFile(kPidFile, "1\n");
        WriteFile("/etc/default/kemd", each.settings);
        const Result result = Ctl("prepare");
        EXPECT_EQ(List(kRuns).size(), each.isKept ? 1 : 0) << result.out << each.log.substr(0, 200);
        EXPECT_EQ(fs::exists(kLogs + "/log.kemd"), !each.isKept);
        EXPECT_FALSE(fs::exists(kLockFile) || fs::exists(kPidFile)) << result.err;
        EXPECT_EQ(Contains(result.err, "many is not a number"), Contains(each.settings, "many"));
        EXPECT_EQ(Contains(result.err, "is not kept: /var/log/orvmon/log.kemd has 2.0 MiB"),
                  each.log.size() > 9999);
    }
}

TEST_F(PrepareTest, TheOldestRunsGoAndNothingElse) {
    // One of the future, as after a clock that was wrong; one with a file of somebody's.
    const Names old = {"20200101T000000Z", "20200102T000000Z", "20200103T000000Z",
                       "20200103T000000Z-0001", "29991231T235959Z"};
    for (const std::string& name : old) WriteFile(kRuns + "/" + name + "/log.kemd", kKilled);
    WriteFile(kRuns + "/" + old[0] + "/notes", "mine");
    WriteFile(kRuns + "/notes/log.kemd", "mine");
    fs::permissions(kRuns, fs::perms::owner_all);
    for (const char* text : {"first", "second"}) {
        WriteFile(kLogs + "/log.kemd", kKilled + kHead + "kemd          " + text + "\n");
        const std::string why = "cannot remove " + kRuns + "/" + old[0] + ": Directory not";
        EXPECT_EQ(Contains(Ctl("prepare").err, why), *text == 'f');
    }
    EXPECT_EQ(List(kRuns),
              (Names{old[0], old[2], old[3], old[4], old[4] + "-0001", old[4] + "-0002", "notes"}));
    EXPECT_EQ(List(kRuns + "/" + old[0]), Names{"notes"});
    EXPECT_TRUE(Shows("trace -q --run 1", 0, {"second"}));
    EXPECT_TRUE(Shows("trace -q --run 2", 0, {"first"}));
    // By size: the newest stays.
    WriteFile("/etc/default/kemd", "KEMD_KEEP_MIB=2\nKEMD_KEEP_RUNS=9\n");
    for (int i = 0; i < 2; ++i) {
        WriteFile(kLogs + "/log.kemd", kKilled + std::string(1 << 20, 'x'));
        EXPECT_TRUE(Shows("prepare", 0));
    }
    EXPECT_EQ(List(kRuns), (Names{old[0], old[4] + "-0004", "notes"}));
}

TEST_F(PrepareTest, OfARunThatIsTooLargeTheLogIsKept) {
    WriteFile("/etc/default/kemd", "KEMD_KEEP_MIB=2\n");
    WriteFile(kLogs + "/log.kemd", kKilled);
    WriteFile(kLogs + "/log.kemd_a", std::string(1 << 20, 'x'));
    WriteFile(kLogs + "/log.kemd_i", std::string(4 << 20, 'x'));
    EXPECT_TRUE(
        Shows("prepare", 2,
              {"a part of the trace of the last run is not kept: ",
               "log.kemd_i has 4.0 MiB, and no more than 2.0 MiB are left for it: raise KEMD"}));
    EXPECT_EQ(List(kLogs), (Names{"log.kemd_i", "log.kemd_runs"}));
    EXPECT_EQ(List(kRuns + "/" + List(kRuns).at(0)), (Names{"log.kemd", "log.kemd_a"}));
}

TEST_F(PrepareTest, FailedStartsDoNotPushOutTheCrashBeforeThem) {
    const std::string started = kHead + "kemd          KEMD-MAIN: ## Done initializing ##\n";
    WriteFile("/etc/default/kemd", "KEMD_KEEP_RUNS=3\n");
    const auto crash = [](const std::string& log) {
        WriteFile(kLogs + "/log.kemd", log);
        EXPECT_EQ(Ctl("prepare").code, 0);
    };
    crash(started + kKilled);
    for (int i = 0; i < 4; ++i) crash(kKilled);
    EXPECT_EQ(ReadFile(kRuns + "/" + List(kRuns).front() + "/log.kemd"), started + kKilled);
    // One failed start is as old as any other run.
    for (int i = 0; i < 3; ++i) crash(started);
    ASSERT_EQ(List(kRuns).size(), 3u);
    for (const std::string& run : List(kRuns)) {
        EXPECT_EQ(ReadFile(kRuns + "/" + run + "/log.kemd"), started);
    }
}

TEST_F(PrepareTest, FollowsNoLinkAndTrustsNoForeignDirectory) {
    WriteFile("/tmp/elsewhere/log.kemd", "elsewhere");
    const auto refused = [](const char* why) {
        WriteFile(kLogs + "/log.kemd", kKilled);
        EXPECT_TRUE(Shows("prepare", 2, {why}));
        EXPECT_TRUE(fs::exists(kLogs + "/log.kemd"));
    };
    fs::create_directory_symlink("/tmp/elsewhere", kRuns);
    refused("cannot open /var/log/orvmon/log.kemd_runs: ");
    fs::remove(kRuns);
    fs::create_directory(kRuns);
    fs::permissions(kRuns, fs::perms::all);
    refused("may be written by others than root");
    fs::permissions(kRuns, fs::perms::owner_all);
    fs::create_directory_symlink("/tmp/elsewhere", kRuns + "/20200101T000000Z");
    fs::create_symlink("/tmp/elsewhere/log.kemd", kLogs + "/log.kemd_a");
    fs::create_symlink("/tmp/elsewhere/log.kemd", kLockFile);
    WriteFile("/etc/default/kemd", "KEMD_KEEP_RUNS=1\n");
    EXPECT_EQ(Ctl("prepare").code, 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(kLockFile)));
    EXPECT_EQ(List(kLogs), (Names{"log.kemd_a", "log.kemd_runs"}));
    EXPECT_EQ(ReadFile("/tmp/elsewhere/log.kemd"), "elsewhere");
    EXPECT_FALSE(Contains(Ctl("trace --list-runs -q " + kLogs).out, "20200101"));
}

TEST_F(PrepareTest, AMaskedLogIsNoCrash) {
    fs::create_symlink("/dev/null", kLogs + "/log.kemd");
    WriteFile(kLogs + "/log.kemd_a", kKilled);
    EXPECT_EQ(Ctl("prepare").out, "");
    EXPECT_EQ(List(kLogs), (Names{"log.kemd", "log.kemd_a"}));
    EXPECT_TRUE(Shows("trace --list-runs", 1, {"kemdctl: no run is kept\n"}));
    EXPECT_TRUE(Shows("prepare now", 2, {"unexpected argument now"}));
}

TEST_F(PrepareTest, StartsGoOnWithoutRoom) {
    const struct {
        const char* directory;  // file systems of their own, see CMakeLists.txt
        int code;
        const char* why;
    } cases[] = {{"/full", 0, "/full has 0 bytes free, the trace takes 52"},
                 {"/read-only", 2, "Read-only file system"},
                 {"/nowhere", 2, "cannot open /nowhere: No such file"}};
    WriteFile("/full/log.kemd", kKilled);
    std::ofstream("/full/filler") << std::string(1 << 20, 'x');
    for (const auto& each : cases) {
        WriteFile("/etc/default/kemd", std::string("OV_LOG_RINGBUF_DIR=") + each.directory + "\n");
        WriteFile(kLockFile, "kemd#1");
        const Result result = Ctl("prepare");
        EXPECT_EQ(result.code, each.code);
        EXPECT_TRUE(Contains(result.err, each.why)) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1);
        EXPECT_FALSE(fs::exists(kLockFile));
    }
}

TEST_F(PrepareTest, OnlyAProcessOfRootKeepsTheLock) {
    WriteFile(kLogs + "/log.kemd", kKilled);
    WriteFile(kLockFile, "kemd#1");
    const pid_t daemon = HoldLock(0, LOCK_EX);
    EXPECT_TRUE(Shows("prepare", 1, {"is held by process " + std::to_string(daemon)}));
    EXPECT_TRUE(fs::exists(kLockFile) && fs::exists(kLogs + "/log.kemd"));
    End(daemon);
    const pid_t somebody = HoldLock(65534, LOCK_SH);
    if (somebody == 0) GTEST_SKIP() << "there is no other user in this name space";
    EXPECT_TRUE(Shows("prepare", 0));
    EXPECT_FALSE(fs::exists(kLockFile) || fs::exists(kLogs + "/log.kemd"));
    End(somebody);
    // A file of his own tells nothing about the daemon, also when a program of root got it from
    // him.
    WriteFile(kLogs + "/log.kemd", kOrderly);
    WriteFile(kLockFile, "kemd#1");
    ASSERT_EQ(chown(kLockFile, 65534, 65534), 0);
    const pid_t program = HoldLock(0, LOCK_EX);
    EXPECT_EQ(Ctl("prepare").code, 0);
    EXPECT_FALSE(fs::exists(kLockFile));
    EXPECT_TRUE(fs::exists(kLogs + "/log.kemd"));
    End(program);
}

}  // namespace
