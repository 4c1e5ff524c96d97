#include "lock/file_lock.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <utility>

#include "base/unique_fd.h"
#include "tests/failing_memory.h"
#include "tests/traced_test.h"

namespace fs = std::filesystem;

static int Flock(int fd, int operation) {
    return static_cast<int>(syscall(SYS_flock, fd, operation));
}

constexpr int kTake = LOCK_EX | LOCK_NB;

// The system's flock, which first fails with an error number that Linux never returns. A hook does
// before each attempt what another instance may do at that moment.
static int g_sharingViolations = 0;
static int g_attempts = 0;
static bool g_isRemovedLocked = false;
static void (*g_beforeAttempt)(int attempt) = nullptr;
extern "C" int flock(int fd, int operation) noexcept {
    if (operation == LOCK_UN) g_isRemovedLocked = access("/tmp/locks/kemd.lock", F_OK) != 0;
    if (operation == kTake) ++g_attempts;
    if (operation == kTake && g_beforeAttempt != nullptr) g_beforeAttempt(g_attempts);
    if (g_sharingViolations == 0) return Flock(fd, operation);
    --g_sharingViolations;
    errno = 32;
    return -1;
}

static uid_t g_user = 0;
extern "C" uid_t geteuid() noexcept {
    return g_user;
}

namespace {

constexpr const char* kBase = "/tmp/locks/kemd";
constexpr const char* kFile = "/tmp/locks/kemd.lock";
constexpr const char* kLongOwner = "an owner whose name takes memory of its own";

std::string Content(const std::string& owner) {
    return owner + "#" + std::to_string(getpid());
}

class FileLockTest : public TracedTest {
  protected:
    void SetUp() override {
        TracedTest::SetUp();
        fs::remove_all("/tmp/locks");
        umask(0);
        // Ends a lock that blocks: the default action does not end process 1.
        (void)signal(SIGALRM, [](int) { _exit(1); });
        alarm(100);
        ASSERT_EQ(chdir("/tmp"), 0);
    }
};

TEST_F(FileLockTest, OddPathsNeitherBlockNorHarm) {
    fs::create_directories("/tmp/locks/directory.lock");
    WriteFile("/tmp/locks/file", "");
    WriteFile("/tmp/locks/other", "precious");
    ASSERT_EQ(mkfifo("/tmp/locks/fifo.lock", 0600), 0);
    fs::create_hard_link("/tmp/locks/other", "/tmp/locks/linked.lock");
    for (const auto& [target, link] : {std::pair{"loop.lock", "loop"},
                                       {"missing", "dangling"},
                                       {"file", "own"},
                                       {"other", "foreign"}}) {
        fs::create_symlink(target, std::string("/tmp/locks/") + link + ".lock");
    }
    const struct {
        const char* base;
        bool locked;
        int error;
        const char* traced;
    } cases[] = {
        {nullptr, false, 0, ""},
        {"", false, 0, ""},
        {"var/lock/x", false, 0, "directory var/lock (LastError = 0x00000000)"},
        {"x", false, 0, "## ERROR! Failed to open/create lock directory x.lock (LastError"},
        {"/x", false, EISDIR,
         "LockFileDir.c_str() = /x.lock\n"},  // the name is taken as a directory
        {"/tmp/locks/directory", false, EISDIR, "directory.lock EXISTS!\n"},
        {"/tmp/locks/loop", false, ELOOP, "loop.lock does NOT exist!\n"},
        {"/tmp/locks/file/x", false, ENOTDIR, "does NOT exist!\n"},
        {"/tmp/locks/file/y/x", false, 0, "lock directory /tmp/locks/file/y (LastError = 0x0000"},
        {"/tmp/locks/fifo", false, EINVAL, "Could NOT open lockfile /tmp/locks/fifo.lock\n"},
        {"/tmp/locks/linked", false, EMLINK, "Could NOT open lockfile /tmp/locks/linked.lock\n"},
        {"/tmp/locks/own", true, 0, "Successfully locked lockfile /tmp/locks/own.lock\n"},
        {"/tmp/locks/foreign", false, ELOOP, "lockfile /tmp/locks/foreign.lock EXISTS!\n"},
        {"/tmp/locks/dangling", false, ELOOP, "lockfile /tmp/locks/dangling.lock does NOT"},
    };
    for (const auto& [base, locked, error, traced] : cases) {
        g_user = error == ELOOP ? 1 : 0;  // the links are root's
        CFileLock lock;
        EXPECT_EQ(lock.Lock(base, "kemd", 0), locked) << traced;
        EXPECT_EQ(lock.LastError(), error) << traced;
        EXPECT_TRUE(Contains(Trace(), traced)) << traced;
    }
    g_user = 0;
    EXPECT_EQ(ReadFile("/tmp/locks/other"), "precious");
    for (const char* file : {"/tmp/locks/missing", "var/lock/x.lock", "x.lock"}) {
        EXPECT_FALSE(fs::exists(file)) << file;
    }
    EXPECT_TRUE(fs::is_directory("/x.lock") && fs::is_directory("/tmp/locks/directory.lock"));
}

TEST_F(FileLockTest, HoldsTheFileUntilItGoes) {
    {
        CFileLock lock;
        ASSERT_TRUE(lock.Lock(kBase, "kemd", 0));
        EXPECT_EQ(ReadFile(kFile), Content("kemd"));
        EXPECT_EQ(fs::status("/tmp/locks").permissions(), fs::perms(0711));
        EXPECT_EQ(fs::status(kFile).permissions(), fs::perms(0644));
        // Once more, by itself: its own file is free for it.
        ASSERT_TRUE(lock.Lock(kBase, nullptr, 0));
        EXPECT_EQ(ReadFile(kFile), Content(""));
    }
    EXPECT_FALSE(fs::exists(kFile));
    EXPECT_TRUE(g_isRemovedLocked);  // or the next instance could take the old file
    WriteFile(kFile, "kemd#4711, which died some time ago");
    CFileLock lock;
    EXPECT_TRUE(lock.Lock(kBase, "kemd", 0));
    EXPECT_EQ(ReadFile(kFile), Content("kemd"));
    EXPECT_TRUE(InOrder(Trace(), {"  apply file lock using file /tmp/locks/kemd...\n",
                                  "LockFileName.c_str() = /tmp/locks/kemd.lock\n",
                                  "LockFileDir.c_str() = /tmp/locks\n", "nrRetries = 0\n",
                                  "does NOT exist!\n", "fileIsLockable = true\n", "EXISTS!\n",
                                  "  release file lock using file /tmp/locks/kemd.lock\n"}));
}

TEST_F(FileLockTest, HeldFileFailsAtOnceAndStays) {
    CFileLock holder;
    const std::string owner(300, 'o');
    ASSERT_TRUE(holder.Lock(kBase, owner.c_str(), 0));
    g_attempts = 0;
    {
        CFileLock second;
        EXPECT_FALSE(second.Lock(kBase, "other", 60000));
        EXPECT_EQ(second.Owner(), owner.substr(0, 255));
        EXPECT_EQ(second.LastError(), EWOULDBLOCK);
    }
    EXPECT_EQ(g_attempts, 1);
    EXPECT_EQ(ReadFile(kFile), Content(owner));
    EXPECT_TRUE(InOrder(Trace(), {"nrRetries = 600\n", "Could NOT lock lockfile /tmp/locks/kemd",
                                  "fileIsLockable = false\n"}));
}

int g_other = -1;

TEST_F(FileLockTest, OtherInstancesBetweenTheStepsAreNoticed) {
    const struct {
        const char* name;
        void (*meanwhile)(int attempt);
        bool locked;
        int attempts;
    } cases[] = {
        {"another one took it after the probe",
         [](int attempt) {
             if (attempt == 2) g_other = open(kFile, O_RDONLY | O_CLOEXEC);
             if (attempt == 2) (void)Flock(g_other, kTake);
         },
         false, 2},
        {"its holder ended and removed it",
         [](int attempt) {
             if (attempt == 2) unlink(kFile);
         },
         true, 3},
        // Which prevents no start.
        {"the file system fails to lock without waiting",
         [](int attempt) { g_sharingViolations = attempt == 2 ? 1 : 0; }, true, 2},
        {"it is replaced again and again",
         [](int) {
             WriteFile("/tmp/locks/new", "kemd#4711");
             (void)rename("/tmp/locks/new", kFile);
         },
         false, 22},
    };
    for (const auto& [name, meanwhile, locked, attempts] : cases) {
        SCOPED_TRACE(name);
        WriteFile(kFile, "kemd#4711");
        g_attempts = 0;
        g_beforeAttempt = meanwhile;
        CFileLock lock;
        EXPECT_EQ(lock.Lock(kBase, "kemd", 0), locked);
        g_beforeAttempt = nullptr;
        EXPECT_EQ(g_attempts, attempts);
        EXPECT_EQ(lock.LastError(), locked ? 0 : EWOULDBLOCK);
        EXPECT_EQ(lock.Owner(), locked ? "" : "kemd#4711");
        EXPECT_EQ(ReadFile(kFile), locked ? Content("kemd") : "kemd#4711");
        close(std::exchange(g_other, -1));
        const UniqueFd second(open(kFile, O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(Flock(second.Get(), kTake) != 0, locked);
    }
}

// Takes the lock as one of several instances: 0 held it alone, 1 failed, 2 anything else.
int Compete() {
    CFileLock lock;
    if (!lock.Lock(kBase, "kemd", 0)) return 1;
    const UniqueFd alone(open("/tmp/locks/alone", O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    sched_yield();
    const bool isOurs = ReadFile(kFile) == Content("kemd");
    return alone.IsOpen() && isOurs && unlink("/tmp/locks/alone") == 0 ? 0 : 2;
}

TEST_F(FileLockTest, OneOfSeveralInstancesHoldsIt) {
    for (int round = 0; round < 30; ++round) {
        if (round % 2 == 0) WriteFile(kFile, "kemd#4711");
        int gate[2];
        ASSERT_EQ(pipe2(gate, O_CLOEXEC), 0);
        for (int instance = 0; instance < 4; ++instance) {
            if (fork() != 0) continue;
            close(gate[1]);
            char end = 0;
            (void)!read(gate[0], &end, 1);
            alarm(100);
            _exit(Compete());
        }
        for (const int end : gate) close(end);
        int winners = 0;
        for (int status = 0; wait(&status) > 0;) {
            ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 2) << status;
            winners += status == 0 ? 1 : 0;
        }
        EXPECT_GE(winners, 1);
        EXPECT_FALSE(fs::exists(kFile));
    }
}

TEST_F(FileLockTest, FailsWithoutMemory) {
    for (const bool held : {false, true}) {
        CFileLock holder;
        ASSERT_TRUE(!held || holder.Lock(kBase, kLongOwner, 0));
        int failures = 0;
        for (int error = ENOMEM; error == ENOMEM; ++failures) {
            CFileLock lock;
            g_allocations = failures;
            const bool locked = lock.Lock(kBase, kLongOwner, 0);
            g_allocations = -1;
            error = lock.LastError();
            EXPECT_EQ(locked, error == 0);
        }
        EXPECT_GT(failures, 3);
        EXPECT_EQ(ReadFile(kFile), held ? Content(kLongOwner) : "");
    }
}

TEST_F(FileLockTest, OnlyASharingViolationIsTriedAgain) {
    const struct {
        int32_t waitMs;
        int failures;
        bool locked;
        int attempts;
    } cases[] = {{250, 9, false, 2}, {0, 9, false, 1}, {-500, 9, false, 1}, {250, 1, true, 1}};
    for (const auto& [waitMs, failures, locked, attempts] : cases) {
        WriteFile(kFile, "kemd#4711");
        g_sharingViolations = failures;
        CFileLock lock;
        EXPECT_EQ(lock.Lock(kBase, "kemd", waitMs), locked) << waitMs;
        EXPECT_EQ(failures - std::exchange(g_sharingViolations, 0), attempts) << waitMs;
    }
}

TEST_F(FileLockTest, LongPathIsCut) {
    const std::string part = "/" + std::string(99, 'd');
    const std::string directory = "/tmp" + part + part + part;
    const std::string cut = directory.substr(0, 260);
    {
        CFileLock lock;
        EXPECT_TRUE(lock.Lock((directory + "/kemd").c_str(), "kemd", 0));
        EXPECT_EQ(ReadFile(cut), Content("kemd"));
    }
    EXPECT_FALSE(fs::exists(cut) || fs::exists(directory));
}

}  // namespace
