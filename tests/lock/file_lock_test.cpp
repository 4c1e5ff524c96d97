#include "lock/file_lock.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>

#include "tests/traced_test.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The system's flock, which first fails with an error number that Linux never gives.
static int g_sharingViolations = 0;
extern "C" int flock(int fd, int operation) noexcept {
    if (g_sharingViolations == 0) return static_cast<int>(syscall(SYS_flock, fd, operation));
    --g_sharingViolations;
    errno = 32;
    return -1;
}

namespace {

constexpr const char* kBase = "/tmp/locks/kemd";
constexpr const char* kFile = "/tmp/locks/kemd.lock";

class FileLockTest : public TracedTest {
  protected:
    void SetUp() override {
        TracedTest::SetUp();
        fs::remove_all("/tmp/locks");
        umask(0);
        ASSERT_EQ(chdir("/tmp"), 0);
    }
    static std::string Content(const std::string& owner) {
        return owner + "#" + std::to_string(getpid());
    }
};

TEST_F(FileLockTest, OddPathsNeitherBlockNorHarm) {
    fs::create_directories("/tmp/locks/directory.lock");
    fs::create_symlink("loop.lock", "/tmp/locks/loop.lock");
    WriteFile("/tmp/locks/file", "");
    ASSERT_EQ(mkfifo("/tmp/locks/fifo.lock", 0600), 0);
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
        {"/x", false, EISDIR, "LockFileDir.c_str() = /x.lock\n"},  // it stands for its directory
        {"/tmp/locks/directory", false, EISDIR, "directory.lock EXISTS!\n"},
        {"/tmp/locks/loop", false, ELOOP, "loop.lock does NOT exist!\n"},
        {"/tmp/locks/file/x", false, ENOTDIR, "does NOT exist!\n"},
        {"/tmp/locks/file/y/x", false, 0, "lock directory /tmp/locks/file/y (LastError = 0x0000"},
        {"/tmp/locks/fifo", true, 0, "Successfully locked lockfile /tmp/locks/fifo.lock\n"},
    };
    alarm(60);  // ends a lock that blocks
    for (const auto& [base, locked, error, traced] : cases) {
        CFileLock lock;
        EXPECT_EQ(lock.Lock(base, "kemd", 0), locked) << traced;
        EXPECT_EQ(lock.LastError(), error) << traced;
        EXPECT_TRUE(Contains(Trace(), traced)) << traced;
        EXPECT_EQ(Contains(Trace(), "CFileLock"), *traced != '\0');
    }
    alarm(0);
    EXPECT_FALSE(fs::exists("var/lock/x.lock") || fs::exists("x.lock"));
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
    {
        CFileLock second;
        const auto start = Clock::now();
        EXPECT_FALSE(second.Lock(kBase, "other", 60000));
        EXPECT_LT(Clock::now() - start, milliseconds(5000));
        EXPECT_EQ(second.Owner(), owner.substr(0, 255));
        EXPECT_EQ(second.LastError(), EWOULDBLOCK);
    }
    EXPECT_EQ(ReadFile(kFile), Content(owner));
    EXPECT_TRUE(InOrder(Trace(), {"nrRetries = 600\n", "Could NOT lock lockfile /tmp/locks/kemd",
                                  "fileIsLockable = false\n"}));
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
        const auto start = Clock::now();
        EXPECT_EQ(lock.Lock(kBase, "kemd", waitMs), locked) << waitMs;
        EXPECT_GE(Clock::now() - start, milliseconds(100 * attempts)) << waitMs;
        EXPECT_EQ(failures - g_sharingViolations, attempts) << waitMs;
        g_sharingViolations = 0;
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
