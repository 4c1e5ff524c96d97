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
#include <tuple>
#include <utility>

#include "base/unique_fd.h"
#include "tests/failing_memory.h"
#include "tests/traced_test.h"

namespace fs = std::filesystem;

constexpr int kTake = LOCK_EX | LOCK_NB;

static int Flock(int fd, int operation) {
    return static_cast<int>(syscall(SYS_flock, fd, operation));
}

// Replaces the system's flock. Before an attempt a hook does what another instance might do at that
// moment. Attempts may fail with error 32, which Linux never returns.
static int g_sharingViolations = 0;
static int g_attempts = 0;
static bool g_isRemovedLocked = false;
static int g_hookAt = 0;  // 0: each
static void (*g_hook)() = nullptr;
extern "C" int flock(int fd, int operation) noexcept {
    if (operation == LOCK_UN) g_isRemovedLocked = access("/tmp/locks/kemd.lock", F_OK) != 0;
    if (operation == kTake) ++g_attempts;
    const bool isDue = operation == kTake && (g_hookAt == 0 || g_hookAt == g_attempts);
    if (isDue && g_hook != nullptr) g_hook();
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
    }
};

TEST_F(FileLockTest, OddPathsNeitherBlockNorHarm) {
    const std::string locks = "/tmp/locks/";
    fs::create_directories(locks + "directory.lock");
    WriteFile(locks + "file", "");
    WriteFile(locks + "other", "precious");
    ASSERT_EQ(mkfifo("/tmp/locks/fifo.lock", 0600), 0);
    fs::create_hard_link(locks + "other", locks + "linked.lock");
    fs::create_symlink("missing", locks + "dangling.lock");
    fs::create_symlink("other", locks + "foreign.lock");
    fs::create_symlink("file", locks + "own.lock");
    const std::pair<const char*, int> cases[] = {
        {"directory", EISDIR}, {"file/x", ENOTDIR}, {"fifo", EINVAL}, {"linked", EMLINK},
        {"dangling", ELOOP},   {"foreign", ELOOP},  {"own", 0}};
    for (const auto& [name, error] : cases) {
        g_user = error == ELOOP ? 1 : 0;  // the links are root's
        CFileLock lock;
        EXPECT_EQ(lock.Lock((locks + name).c_str(), "kemd", 0), error == 0) << name;
        EXPECT_EQ(lock.LastError(), error) << name;
    }
    EXPECT_FALSE(CFileLock().Lock("var/lock/x", "kemd", 0));
    EXPECT_EQ(ReadFile(locks + "other"), "precious");
    EXPECT_FALSE(fs::exists(locks + "missing") || fs::exists("var/lock/x.lock"));
    EXPECT_TRUE(InOrder(Trace(), {"Could NOT open lockfile /tmp/locks/fifo.lock\n",
                                  "lock directory var/lock (LastError = 0x00000000)"}));
}

TEST_F(FileLockTest, HoldsTheFileUntilItGoes) {
    {
        CFileLock lock;
        ASSERT_TRUE(lock.Lock(kBase, "kemd", 0));
        EXPECT_EQ(fs::status("/tmp/locks").permissions(), fs::perms(0711));
        EXPECT_EQ(fs::status(kFile).permissions(), fs::perms(0644));
        ASSERT_TRUE(lock.Lock(kBase, nullptr, 0));  // its own lock does not stop it
        EXPECT_EQ(ReadFile(kFile), Content(""));
    }
    EXPECT_FALSE(fs::exists(kFile));
    EXPECT_TRUE(g_isRemovedLocked);  // or the next instance could take the old file
    WriteFile(kFile, "kemd#4711, which died some time ago");
    CFileLock lock;
    EXPECT_TRUE(lock.Lock(kBase, "kemd", 0));
    EXPECT_EQ(ReadFile(kFile), Content("kemd"));
    EXPECT_TRUE(InOrder(Trace(), {"  apply file lock using file /tmp/locks/kemd...\n",
                                  "  release file lock using file /tmp/locks/kemd.lock\n"}));
}

int g_other = -1;

void TakeAsOther() {
    g_other = open(kFile, O_RDONLY | O_CLOEXEC);
    (void)Flock(g_other, kTake);
}

void Replace() {
    WriteFile("/tmp/locks/new", "kemd#4711");
    (void)rename("/tmp/locks/new", kFile);
}

TEST_F(FileLockTest, OtherInstancesBetweenTheStepsAreNoticed) {
    const std::tuple<const char*, int, void (*)(), int32_t, int, int> cases[] = {
        {"held: no wait helps", 1, TakeAsOther, 60000, EWOULDBLOCK, 1},
        {"taken after the probe", 2, TakeAsOther, 0, EWOULDBLOCK, 2},
        {"its holder ends and removes it", 2, [] { (void)unlink(kFile); }, 0, 0, 3},
        {"replaced again and again", 0, Replace, 0, EWOULDBLOCK, 22},
        {"no lock without waiting: starts", 2, [] { g_sharingViolations = 1; }, 0, 0, 2},
        {"error 32 is tried again", 0, [] { g_sharingViolations = 1; }, 250, 32, 2},
    };
    // `at`: the attempt before which it happens; 0: each.
    for (const auto& [name, at, meanwhile, waitMs, error, attempts] : cases) {
        SCOPED_TRACE(name);
        const bool locked = error == 0;
        WriteFile(kFile, "kemd#4711");
        g_attempts = 0;
        g_hookAt = at;
        g_hook = meanwhile;
        {
            CFileLock lock;
            EXPECT_EQ(lock.Lock(kBase, "kemd", waitMs), locked);
            g_hook = nullptr;
            EXPECT_EQ(g_attempts, attempts);
            EXPECT_EQ(lock.LastError(), error);
            EXPECT_EQ(lock.Owner(), locked ? "" : "kemd#4711");
            EXPECT_EQ(ReadFile(kFile), locked ? Content("kemd") : "kemd#4711");
            close(std::exchange(g_other, -1));
            const UniqueFd second(open(kFile, O_RDONLY | O_CLOEXEC));
            EXPECT_EQ(Flock(second.Get(), kTake) != 0, locked);
        }
        EXPECT_EQ(fs::exists(kFile), !locked);
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
    const std::string owner(100, 'o');
    for (const bool held : {false, true}) {
        CFileLock holder;
        ASSERT_TRUE(!held || holder.Lock(kBase, owner.c_str(), 0));
        int failures = 0;
        for (int error = ENOMEM; error == ENOMEM; ++failures) {
            CFileLock lock;
            g_allocations = failures;
            (void)lock.Lock(kBase, owner.c_str(), 0);
            g_allocations = -1;
            error = lock.LastError();
        }
        EXPECT_GT(failures, 3);
        EXPECT_EQ(ReadFile(kFile), held ? Content(owner) : "");
    }
}

}  // namespace
