// kemdctl prepare: which files of a run are kept, what is removed before a start, and how kept runs
// are read.
#include <fcntl.h>
#include <sys/file.h>

#include "base/unique_fd.h"
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
    void TearDown() override {
        DaemonTest::TearDown();
        fs::remove("/etc/default/kemd");
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
    static bool HasLeftovers() { return fs::exists(kLockFile) || fs::exists(kPidFile); }
    // A run ends with this log, and the next one is prepared.
    static Result PrepareAfter(const std::string& log) {
        WriteFile(kLogs + "/log.kemd", log);
        return Ctl("prepare");
    }
};

TEST_F(PrepareTest, ACrashIsReadAfterTheRestart) {
    Kill(Run());
    const Names files = List(kLogs);
    EXPECT_TRUE(Shows("prepare", 0,
                      {"is kept in " + kRuns + "/2", "removed /var/lock/kemd.lock",
                       "removed /var/run/kemd.pid"}));
    EXPECT_FALSE(HasLeftovers());
    EXPECT_EQ(List(kLogs), Names{"log.kemd_runs"});
    ASSERT_EQ(List(kRuns).size(), 1u);
    EXPECT_EQ(List(kRuns + "/" + List(kRuns)[0]), files);
    EXPECT_EQ(fs::status(kRuns).permissions(), fs::perms::owner_all);
    // A process that will be the daemon has the lock already.
    const UniqueFd lock(open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(lock.Get(), LOCK_EX), 0);
    EXPECT_TRUE(Shows("prepare", 1, {"is held by process 1: nothing is touched"}));
    EXPECT_TRUE(fs::remove(kLockFile));
    // Before the restart and after it.
    EXPECT_TRUE(Shows("trace --last-run", 1, {"killed: no exit message"}));
    const pid_t pid = Run();
    EXPECT_TRUE(Shows("trace --last-run", 0, {"is running", "the newest run that", "killed: no"}));
    const std::string json = Ctl("trace --last-run --json").out;
    EXPECT_TRUE(JsonCheck::IsValid(json) && InOrder(json, {"\"running\"", "\"killed\""})) << json;

    // The files of a running daemon stay, and those of an orderly end are overwritten.
    const Names used = List(kLogs);
    EXPECT_TRUE(Shows("prepare", 1, {"kemd runs as process " + std::to_string(pid)}));
    EXPECT_TRUE(fs::exists(kLockFile) && fs::exists(kPidFile));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_EQ(Ctl("prepare").out, "");
    EXPECT_EQ(List(kLogs), used);

    EXPECT_TRUE(Shows("trace -q --run 1 -g signals", 0, {"Waiting for signals..."}));
    EXPECT_TRUE(Shows("trace --list-runs", 0, {"1  2", "Z  ", " KiB  2", " to 2", "killed: no"}));
    EXPECT_TRUE(JsonCheck::IsValid(Ctl("trace --list-runs --json " + kLogs).out));
    EXPECT_TRUE(Shows("trace --run 2", 2));
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
    };
    for (const auto& each : cases) {
        SetUp();
        if (each.lock != nullptr) WriteFile(kLockFile, each.lock);
        if (each.hasPid) WriteFile(kPidFile, "1\n");
        WriteFile("/etc/default/kemd", each.settings);
        const Result result = PrepareAfter(each.log);
        EXPECT_EQ(List(kRuns).size(), each.isKept ? 1 : 0) << result.out << each.log;
        EXPECT_EQ(fs::exists(kLogs + "/log.kemd"), !each.isKept);
        EXPECT_FALSE(HasLeftovers()) << result.err;
        EXPECT_EQ(Contains(result.err, "many is not a number"), Contains(each.settings, "many"));
    }
}

TEST_F(PrepareTest, TheOldestRunsGoAndNothingElse) {
    // One is of the future, as after a wrong clock; one holds a file that kemd did not write.
    const Names old = {"20200101T000000Z", "20200102T000000Z", "20200103T000000Z",
                       "20200103T000000Z-0001", "29991231T235959Z"};
    for (const std::string& name : old) WriteFile(kRuns + "/" + name + "/log.kemd", kKilled);
    WriteFile(kRuns + "/" + old[0] + "/notes", "mine");
    WriteFile(kRuns + "/notes/log.kemd", "mine");
    fs::permissions(kRuns, fs::perms::owner_all);
    EXPECT_TRUE(Contains(PrepareAfter(kKilled + kHead + "kemd          first\n").err,
                         "cannot remove " + kRuns + "/" + old[0] + ": Directory not"));
    EXPECT_EQ(PrepareAfter(kKilled + kHead + "kemd          second\n").code, 0);
    EXPECT_EQ(List(kRuns),
              (Names{old[0], old[2], old[3], old[4], old[4] + "-0001", old[4] + "-0002", "notes"}));
    EXPECT_TRUE(Shows("trace -q --run 2", 0, {"first"}));
    // By size: the newest stays.
    WriteFile("/etc/default/kemd", "KEMD_KEEP_MIB=2\nKEMD_KEEP_RUNS=9\n");
    for (int i = 0; i < 2; ++i) (void)PrepareAfter(kKilled + std::string(1 << 20, 'x'));
    EXPECT_EQ(List(kRuns), (Names{old[0], old[4] + "-0004", "notes"}));
}

TEST_F(PrepareTest, OfARunThatIsTooLargeTheLogIsKept) {
    WriteFile("/etc/default/kemd", "KEMD_KEEP_MIB=2\n");
    WriteFile(kLogs + "/log.kemd_i", std::string(4 << 20, 'x'));
    const Result result = PrepareAfter(kKilled);
    EXPECT_EQ(result.code, 2);
    EXPECT_TRUE(
        InOrder(result.err,
                {"a part of the trace of the last run is not kept: ",
                 "log.kemd_i has 4.0 MiB, and no more than 2.0 MiB are left for it: raise KEMD"}));
    EXPECT_EQ(List(kLogs), (Names{"log.kemd_i", "log.kemd_runs"}));
    EXPECT_EQ(List(kRuns + "/" + List(kRuns).at(0)), Names{"log.kemd"});
}

TEST_F(PrepareTest, FailedStartsDoNotPushOutTheCrashBeforeThem) {
    const std::string started = kHead + "kemd          KEMD-MAIN: ## Done initializing ##\n";
    WriteFile("/etc/default/kemd", "KEMD_KEEP_RUNS=3\n");
    (void)PrepareAfter(started + kKilled);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(PrepareAfter(kKilled).code, 0);
    EXPECT_EQ(ReadFile(kRuns + "/" + List(kRuns).front() + "/log.kemd"), started + kKilled);
    // A single failed start is as old as any other run.
    for (int i = 0; i < 3; ++i) EXPECT_EQ(PrepareAfter(started).code, 0);
    ASSERT_EQ(List(kRuns).size(), 3u);
    EXPECT_EQ(ReadFile(kRuns + "/" + List(kRuns).front() + "/log.kemd"), started);
}

TEST_F(PrepareTest, FollowsNoLinkAndTrustsNoForeignDirectory) {
    WriteFile("/tmp/elsewhere/log.kemd", "elsewhere");
    fs::create_directory_symlink("/tmp/elsewhere", kRuns);
    EXPECT_TRUE(Contains(PrepareAfter(kKilled).err, "cannot open " + kRuns + ": "));
    fs::remove(kRuns);
    fs::create_directory(kRuns);
    fs::permissions(kRuns, fs::perms::all);
    EXPECT_TRUE(Contains(PrepareAfter(kKilled).err, "may be written by others than root"));
    EXPECT_EQ(List(kLogs), (Names{"log.kemd", "log.kemd_runs"}));
    fs::permissions(kRuns, fs::perms::owner_all);
    fs::create_directory_symlink("/tmp/elsewhere", kRuns + "/20200101T000000Z");
    fs::create_symlink("/tmp/elsewhere/log.kemd", kLogs + "/log.kemd_a");
    fs::create_symlink("/tmp/elsewhere/log.kemd", kLockFile);
    WriteFile("/etc/default/kemd", "KEMD_KEEP_RUNS=1\n");
    EXPECT_EQ(Ctl("prepare").code, 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(kLockFile)));
    EXPECT_EQ(List(kLogs), (Names{"log.kemd_a", "log.kemd_runs"}));
    EXPECT_EQ(ReadFile("/tmp/elsewhere/log.kemd"), "elsewhere");
    // A log that leads to /dev/null is no sign of a crash.
    fs::create_symlink("/dev/null", kLogs + "/log.kemd");
    EXPECT_EQ(Ctl("prepare").out, "");
}

TEST_F(PrepareTest, StartsGoOnWithoutRoom) {
    // The first two are file systems of their own: see CMakeLists.txt.
    const std::pair<std::string, const char*> cases[] = {
        {"/full", "/full has 0 bytes free, the trace takes 52"},
        {"/read-only", "Read-only file system"},
        {"/nowhere", "cannot open /nowhere: No such file"}};
    WriteFile("/full/log.kemd", kKilled);
    WriteFile("/full/filler", std::string(1 << 20, 'x'));
    for (const auto& [directory, why] : cases) {
        WriteFile("/etc/default/kemd", "OV_LOG_RINGBUF_DIR=" + directory + "\n");
        WriteFile(kLockFile, "kemd#1");
        EXPECT_TRUE(Shows("prepare", directory == "/full" ? 0 : 2, {why}));
        EXPECT_FALSE(fs::exists(kLockFile));
    }
}

}  // namespace
