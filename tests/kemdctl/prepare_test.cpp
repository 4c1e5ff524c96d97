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
    // A process that holds the lock file, as this user, until the pipe's end is closed.
    static pid_t HoldLock(uid_t user, int operation) {
        int ready[2] = {};
        EXPECT_EQ(pipe(ready), 0);
        const pid_t holder = fork();
        if (holder == 0) {
            const int fd = setuid(user) == 0 ? open(kLockFile, O_RDONLY) : -1;
            const char said = fd >= 0 && flock(fd, operation) == 0 ? 'y' : 'n';
            (void)!write(ready[1], &said, 1);
            for (;;) pause();
        }
        char said = 'n';
        EXPECT_EQ(read(ready[0], &said, 1), 1);
        close(ready[0]);
        close(ready[1]);
        if (said == 'y') return holder;
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
    const Result kept = Ctl("prepare");
    EXPECT_EQ(kept.code, 0) << kept.err;
    EXPECT_TRUE(InOrder(kept.out, {"is kept in " + kRuns + "/2", "removed /var/lock/kemd.lock",
                                   "removed /var/run/kemd.pid"}));
    EXPECT_FALSE(fs::exists(kLockFile) || fs::exists(kPidFile));
    EXPECT_EQ(List(kLogs), Names{"log.kemd_runs"});
    ASSERT_EQ(List(kRuns).size(), 1u);
    EXPECT_EQ(List(kRuns + "/" + List(kRuns)[0]), files);
    EXPECT_EQ(fs::status(kRuns).permissions(), fs::perms::owner_all);
    // Before the restart and after it.
    EXPECT_TRUE(Contains(Ctl("trace --last-run").out, "killed: no exit message"));
    const pid_t pid = Run();
    const Result running = Ctl("trace --last-run");
    EXPECT_EQ(running.code, 0);
    EXPECT_TRUE(InOrder(running.out, {"is running", "the newest run that", "killed: no exit"}));
    const std::string json = Ctl("trace --last-run --json").out;
    EXPECT_TRUE(JsonCheck::IsValid(json) && InOrder(json, {"\"running\"", "\"killed\""})) << json;

    // One that runs keeps its files, one that ended in order is overwritten.
    const Names used = List(kLogs);
    EXPECT_EQ(Ctl("prepare").code, 1);
    EXPECT_TRUE(Contains(ReadFile("/tmp/err"), "kemd runs as process " + std::to_string(pid)));
    EXPECT_TRUE(fs::exists(kLockFile) && fs::exists(kPidFile));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_EQ(Ctl("prepare").out, "");
    EXPECT_EQ(List(kLogs), used);

    EXPECT_EQ(Ctl("trace --run 1 --last-run").code, 1);
    EXPECT_TRUE(InOrder(Ctl("trace -q --run 1 -g signals").out, {"Waiting for signals..."}));
    const Result list = Ctl("trace --list-runs");
    EXPECT_EQ(list.code, 0);
    EXPECT_TRUE(InOrder(list.out, {"1  2", "Z  ", " KiB  2", " to 2", "killed: no exit"}));
    EXPECT_TRUE(JsonCheck::IsValid(Ctl("trace --list-runs --json " + kLogs).out));
    for (const char* wrong : {"--run 2", "--run 0", "--run 1 -f", "--run 1 --list-runs"}) {
        EXPECT_EQ(Ctl(std::string("trace ") + wrong).code, 2) << wrong;
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
        EXPECT_EQ(Contains(result.err, "many is no number"), Contains(each.settings, "many"));
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
        const Result result = Ctl("prepare");
        EXPECT_EQ(Contains(result.err, "cannot remove " + kRuns + "/" + old[0] + ": Directory not"),
                  *text == 'f');
    }
    EXPECT_EQ(List(kRuns),
              (Names{old[0], old[2], old[3], old[4], old[4] + "-0001", old[4] + "-0002", "notes"}));
    EXPECT_EQ(List(kRuns + "/" + old[0]), Names{"notes"});
    EXPECT_TRUE(Contains(Ctl("trace -q --run 1").out, "second"));
    EXPECT_TRUE(Contains(Ctl("trace -q --run 2").out, "first"));
    // By size: the newest stays.
    WriteFile(kLogs + "/log.kemd", kKilled + std::string(1 << 20, 'x'));
    WriteFile("/etc/default/kemd", "KEMD_KEEP_MIB=2\nKEMD_KEEP_RUNS=9\n");
    EXPECT_EQ(Ctl("prepare").code, 0);
    WriteFile(kLogs + "/log.kemd", kKilled + std::string(1 << 20, 'x'));
    EXPECT_EQ(Ctl("prepare").code, 0);
    EXPECT_EQ(List(kRuns), (Names{old[0], old[4] + "-0004", "notes"}));
}

TEST_F(PrepareTest, OfARunThatIsTooLargeTheLogIsKept) {
    WriteFile("/etc/default/kemd", "KEMD_KEEP_MIB=2\n");
    WriteFile(kLogs + "/log.kemd", kKilled);
    WriteFile(kLogs + "/log.kemd_a", std::string(1 << 20, 'x'));
    WriteFile(kLogs + "/log.kemd_i", std::string(4 << 20, 'x'));
    const Result result = Ctl("prepare");
    EXPECT_EQ(result.code, 2);
    EXPECT_TRUE(
        InOrder(result.err,
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
        EXPECT_EQ(Ctl("prepare").code, 2);
        EXPECT_TRUE(Contains(ReadFile("/tmp/err"), why)) << ReadFile("/tmp/err");
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
    EXPECT_EQ(Ctl("trace --list-runs -q " + kLogs).code, 0);
    EXPECT_FALSE(Contains(ReadFile("/tmp/out"), "20200101"));
}

TEST_F(PrepareTest, AMaskedLogIsNoCrash) {
    fs::create_symlink("/dev/null", kLogs + "/log.kemd");
    WriteFile(kLogs + "/log.kemd_a", kKilled);
    EXPECT_EQ(Ctl("prepare").out, "");
    EXPECT_EQ(List(kLogs), (Names{"log.kemd", "log.kemd_a"}));
    EXPECT_EQ(Ctl("trace --list-runs").code, 1);
    EXPECT_EQ(ReadFile("/tmp/err"), "kemdctl: no run is kept\n");
    EXPECT_EQ(Ctl("prepare now").code, 2);
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
    EXPECT_EQ(Ctl("prepare").code, 1);
    EXPECT_TRUE(Contains(ReadFile("/tmp/err"), "is held by process " + std::to_string(daemon)));
    EXPECT_TRUE(fs::exists(kLockFile) && fs::exists(kLogs + "/log.kemd"));
    End(daemon);
    const pid_t somebody = HoldLock(65534, LOCK_SH);
    if (somebody == 0) GTEST_SKIP() << "there is no other user in this name space";
    EXPECT_EQ(Ctl("prepare").code, 0) << ReadFile("/tmp/err");
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
