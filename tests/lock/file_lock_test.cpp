#include "lock/file_lock.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

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

constexpr const char* kBase = "/var/lock/kemd";
constexpr const char* kFile = "/var/lock/kemd.lock";

class FileLockTest : public TracedTest {
  protected:
    void TearDown() override {
        g_sharingViolations = 0;
        fs::remove_all(kFile);
        TracedTest::TearDown();
    }
    static std::string Content(const std::string& owner) {
        return owner + "#" + std::to_string(getpid());
    }
};

TEST_F(FileLockTest, RefusesPathsThatAreNotAbsolute) {
    CFileLock lock;
    EXPECT_FALSE(lock.Lock(nullptr, "kemd", 0));
    EXPECT_FALSE(lock.Lock("", "kemd", 0));
    EXPECT_FALSE(InOrder(Trace(), {"CFileLock"}));

    for (const char* base : {"var/lock/x", "x", "./x"}) EXPECT_FALSE(lock.Lock(base, "kemd", 0));
    const std::string error =
        "CFileLock           : ## ERROR! Failed to open/create lock directory ";
    EXPECT_TRUE(InOrder(Trace(), {error + "var/lock (LastError = 0x00000000)",
                                  error + "x.lock (LastError = 0x00000000)",
                                  error + ". (LastError = 0x00000000)"}));
    EXPECT_FALSE(fs::exists("var/lock/x.lock") || fs::exists("x.lock"));
    EXPECT_EQ(lock.LastError(), 0);
}

TEST_F(FileLockTest, WhatIsNoFileCannotBeTheLockFile) {
    fs::create_directories("/tmp/locks/directory.lock");
    fs::create_symlink("loop.lock", "/tmp/locks/loop.lock");
    WriteFile("/tmp/locks/file", "");
    const struct {
        const char* base;
        int error;
    } cases[] = {
        {"/x", EISDIR},  // directly under the root the path stands for its directory
        {"/tmp/locks/directory", EISDIR},
        {"/tmp/locks/loop", ELOOP},
        {"/tmp/locks/file/below", ENOTDIR},
        {"/tmp/locks/file/made/below", 0},  // the error of making a directory is not kept
    };
    for (const auto& [base, error] : cases) {
        CFileLock lock;
        EXPECT_FALSE(lock.Lock(base, "kemd", 0)) << base;
        EXPECT_EQ(lock.LastError(), error) << base;
    }
    EXPECT_TRUE(fs::is_directory("/x.lock"));
    EXPECT_TRUE(fs::is_directory("/tmp/locks/directory.lock"));
    EXPECT_TRUE(fs::is_symlink("/tmp/locks/loop.lock"));
}

TEST_F(FileLockTest, FifoDoesNotBlock) {
    ASSERT_EQ(mkfifo(kFile, 0600), 0);
    alarm(20);
    CFileLock lock;
    EXPECT_TRUE(lock.Lock(kBase, "kemd", 0));
    alarm(0);
}

TEST_F(FileLockTest, HoldsTheFileUntilItGoes) {
    umask(0);
    {
        CFileLock lock;
        ASSERT_TRUE(lock.Lock("/tmp/made/for/kemd", "kemd", 0));
        EXPECT_EQ(ReadFile("/tmp/made/for/kemd.lock"), Content("kemd"));
        EXPECT_EQ(fs::status("/tmp/made/for").permissions(), fs::perms(0711));
        EXPECT_EQ(fs::status("/tmp/made/for/kemd.lock").permissions(), fs::perms(0644));
        // Once more, by itself: its own file is free for it.
        ASSERT_TRUE(lock.Lock("/tmp/made/for/kemd", nullptr, 0));
        EXPECT_EQ(ReadFile("/tmp/made/for/kemd.lock"), Content(""));
        EXPECT_EQ(lock.LastError(), 0);
    }
    EXPECT_FALSE(fs::exists("/tmp/made/for/kemd.lock"));
    EXPECT_TRUE(InOrder(
        Trace(), {"CFileLock           :   apply file lock using file /tmp/made/for/kemd...\n",
                  "CFileLock::Lock     : LockFileName.c_str() = /tmp/made/for/kemd.lock\n",
                  "CFileLock::Lock     : LockFileDir.c_str() = /tmp/made/for\n",
                  "CFileLock::Lock     : nrRetries = 0\n",
                  "CFileLock::Lock     : lockfile /tmp/made/for/kemd.lock does NOT exist!\n",
                  "CFileLock::Lock     : fileIsLockable = true\n", "kemd.lock EXISTS!\n",
                  "CFileLock           :   release file lock using file /tmp/made/for/kemd.lock"}));
}

TEST_F(FileLockTest, StaleFileIsTakenOver) {
    WriteFile(kFile, "kemd#4711, which died some time ago");
    CFileLock lock;
    EXPECT_TRUE(lock.Lock(kBase, "kemd", 0));
    EXPECT_EQ(ReadFile(kFile), Content("kemd"));
    EXPECT_EQ(lock.Owner(), "");
}

TEST_F(FileLockTest, HeldFileFailsAtOnceAndStays) {
    CFileLock holder;
    ASSERT_TRUE(holder.Lock(kBase, "kemd", 0));
    {
        CFileLock second;
        const auto start = Clock::now();
        EXPECT_FALSE(second.Lock(kBase, "other", 60000));
        EXPECT_LT(Clock::now() - start, milliseconds(1000));
        EXPECT_EQ(second.Owner(), Content("kemd"));
        EXPECT_EQ(second.LastError(), EWOULDBLOCK);
    }
    EXPECT_EQ(ReadFile(kFile), Content("kemd"));
    EXPECT_TRUE(
        InOrder(Trace(), {"nrRetries = 600\n", "Could NOT lock lockfile /var/lock/kemd.lock",
                          "fileIsLockable = false\n"}));
}

TEST_F(FileLockTest, OwnerTextIsCutAt255) {
    WriteFile(kFile, std::string(400, 'o'));
    const int fd = open(kFile, O_RDONLY);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    CFileLock lock;
    EXPECT_FALSE(lock.Lock(kBase, "kemd", 0));
    EXPECT_EQ(lock.Owner(), std::string(255, 'o'));
    close(fd);
}

TEST_F(FileLockTest, OnlyASharingViolationIsTriedAgain) {
    const struct {
        int32_t waitMs;
        int failures;
        bool locked;
        int attempts;
    } cases[] = {
        {250, 9, false, 2},
        {0, 9, false, 1},
        {-5000, 9, false, 1},
        {250, 1, true, 1},
    };
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
    const std::string cut = (directory + "/kemd.lock").substr(0, 260);
    {
        CFileLock lock;
        EXPECT_TRUE(lock.Lock((directory + "/kemd").c_str(), "kemd", 0));
        EXPECT_EQ(ReadFile(cut), Content("kemd"));
        EXPECT_FALSE(fs::exists(directory));
    }
    EXPECT_FALSE(fs::exists(cut));
}

}  // namespace
