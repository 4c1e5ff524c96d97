// The watch: made messages, which reach it as the kernel's, over made files; mounts for real.
#include <linux/netlink.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "base/unique_fd.h"
#include "kemd/inventory.h"
#include "tests/world.h"

namespace {

enum class From { kKernel, kProcess, kNobody };
std::atomic<From> g_from = From::kKernel;

}  // namespace

// The linker prefers it to the C library's.
extern "C" ssize_t recvmsg(int fd, msghdr* message, int flags) {
    const auto length = static_cast<ssize_t>(syscall(SYS_recvmsg, fd, message, flags));
    const int error = errno;
    if (length >= 0 && g_from == From::kKernel) {
        static_cast<sockaddr_nl*>(message->msg_name)->nl_pid = 0;
    }
    errno = length >= 0 ? ENOBUFS : error;
    return length >= 0 && g_from == From::kNobody ? -1 : length;
}

namespace {

class InventoryWatchTest : public testing::Test {
  protected:
    InventoryWatchTest() {
        std::filesystem::create_directories("/sys/class/block");
        std::filesystem::create_directories("/run/udev/data");
        std::filesystem::create_directories("/mnt");
        Open();
    }
    ~InventoryWatchTest() override {
        KemdInventoryWatchClose(m_watch);
        std::filesystem::remove_all("/sys/class/block");
        std::filesystem::remove_all("/sys/devices");
        std::filesystem::remove_all("/run/udev");
        g_from = From::kKernel;
    }
    void Open() {
        KemdInventoryWatchClose(m_watch);
        const int error = KemdInventoryWatchOpen(
            &m_watch, KEMD_INVENTORY_VOLUMES | KEMD_INVENTORY_DRIVES, OnChange, this);
        EXPECT_EQ(error, 0);
    }
    static void MakeLoop(const std::string& number, const std::string& size) {
        const std::string directory = "/sys/devices/virtual/block/loop" + number + "/";
        WriteFile(directory + "uevent", "MAJOR=7\nMINOR=" + number + "\nDEVTYPE=disk\n");
        WriteFile(directory + "size", size);
        std::error_code error;
        std::filesystem::create_symlink("../../devices/virtual/block/loop" + number,
                                        "/sys/class/block/loop" + number, error);
    }
    static void RemoveLoop(const std::string& number) {
        std::filesystem::remove_all("/sys/class/block/loop" + number);
        std::filesystem::remove_all("/sys/devices/virtual/block/loop" + number);
    }
    void Send(const std::string& action, const std::string& path,
              const std::string& type = "disk") {
        const char nul = '\0';
        std::string text = action + "@" + path + nul + "ACTION=" + action + nul +
                           "DEVPATH=" + path + nul + "SUBSYSTEM=block" + nul + "DEVTYPE=" + type +
                           nul;
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = 1;
        EXPECT_EQ(sendto(m_sender.Get(), text.data(), text.size(), 0,
                         reinterpret_cast<sockaddr*>(&address), sizeof address),
                  static_cast<ssize_t>(text.size()));
    }
    std::string Lines() {
        const std::scoped_lock lock(m_mutex);
        return m_lines;
    }
    // Waits for so many lines; returns them and forgets them.
    std::string Take(ptrdiff_t count) {
        EXPECT_TRUE(WaitFor([&] {
            const std::string lines = Lines();
            return std::count(lines.begin(), lines.end(), '\n') >= count;
        })) << Lines();
        const std::scoped_lock lock(m_mutex);
        return std::exchange(m_lines, {});
    }

    KemdInventoryWatch* m_watch = nullptr;

  private:
    static void OnChange(void* user, const KemdInventoryChange* change) {
        auto& test = *static_cast<InventoryWatchTest*>(user);
        const auto* const item = change->after != nullptr ? change->after : change->before;
        std::string line = change->before == nullptr  ? "new"
                           : change->after == nullptr ? "gone"
                                                      : "changed";
        line += std::string(" ") + KemdInventoryItemKind(item) + " " + KemdInventoryItemName(item);
        for (uint32_t i = 0; i < change->fieldCount; ++i) {
            line += std::string(" ") + change->fields[i].name;
        }
        const std::scoped_lock lock(test.m_mutex);
        test.m_lines += line + "\n";
    }

    UniqueFd m_sender{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT)};
    std::mutex m_mutex;
    std::string m_lines;
};

constexpr const char* kLoop1 = "/devices/virtual/block/loop1";

}  // namespace

TEST_F(InventoryWatchTest, NothingThatComesAndGoesIsMissed) {
    // Before a scan sees it, with a part, and twice.
    for (const char* const action : {"add", "remove", "add", "remove"}) {
        Send(action, "/devices/pci0/block/sdq");
        Send(action, "/devices/pci0/block/sdq/sdq1", "partition");
    }
    EXPECT_EQ(Take(8),
              "new drive sdq\ngone drive sdq\nnew partition sdq1\ngone partition sdq1\n"
              "new drive sdq\ngone drive sdq\nnew partition sdq1\ngone partition sdq1\n");
    // One that is there; one that another takes the place of.
    MakeLoop("1", "8");
    Send("add", kLoop1);
    EXPECT_EQ(Take(1), "new volume loop1\n");
    Send("add", kLoop1);
    Send("remove", kLoop1);
    Send("add", kLoop1);
    EXPECT_EQ(Take(2), "gone volume loop1\nnew volume loop1\n");
    // A device without a medium becomes an item later.
    MakeLoop("2", "0");
    Send("add", "/devices/virtual/block/loop2");
    MakeLoop("1", "16");
    Send("change", kLoop1);
    EXPECT_EQ(Take(1), "changed volume loop1 size\n");
    MakeLoop("2", "8");
    Send("change", "/devices/virtual/block/loop2");
    EXPECT_EQ(Take(1), "new volume loop2\n");
    RemoveLoop("2");
    Send("remove", "/devices/virtual/block/loop2");
    EXPECT_EQ(Take(1), "gone volume loop2\n");
}

TEST_F(InventoryWatchTest, WhatUdevFindsOutLaterIsAChange) {
    MakeLoop("1", "8");
    Send("add", kLoop1);
    EXPECT_EQ(Take(1), "new volume loop1\n");
    WriteFile("/tmp/record", "E:ID_FS_TYPE=ext4\nE:ID_FS_UUID_ENC=1-2\n");
    std::filesystem::rename("/tmp/record", "/run/udev/data/b7:1");
    EXPECT_EQ(Take(1), "changed volume loop1 fs_type fs_uuid\n");
    // Other ids of the same devices are changes too.
    MakeLoop("2", "8");
    Send("add", "/devices/virtual/block/loop2");
    EXPECT_EQ(Take(1), "new volume loop2\n");
    WriteFile("/tmp/record", "E:MD_UUID=a:b\nE:ID_FS_TYPE=x\n");
    WriteFile("/tmp/record2", "E:MD_UUID=a:c\nE:ID_FS_TYPE=x\n");
    std::filesystem::rename("/tmp/record", "/run/udev/data/b7:1");
    std::filesystem::rename("/tmp/record2", "/run/udev/data/b7:2");
    EXPECT_EQ(Take(2), "changed volume loop1 fs_type fs_uuid\nchanged volume loop2 fs_type\n");
}

TEST_F(InventoryWatchTest, UdevMayStartLater) {
    std::filesystem::remove_all("/run/udev");
    Open();
    MakeLoop("1", "8");
    Send("add", kLoop1);
    EXPECT_EQ(Take(1), "new volume loop1\n");
    std::filesystem::create_directories("/run/udev/data");
    MakeLoop("1", "16");
    Send("change", kLoop1);
    EXPECT_EQ(Take(1), "changed volume loop1 size\n");
    WriteFile("/tmp/record", "E:ID_FS_TYPE=ext4\n");
    std::filesystem::rename("/tmp/record", "/run/udev/data/b7:1");
    EXPECT_EQ(Take(1), "changed volume loop1 fs_type\n");
}

TEST_F(InventoryWatchTest, LostMessagesLeadToAScanAndForeignOnesToNothing) {
    g_from = From::kProcess;
    MakeLoop("1", "8");
    Send("add", kLoop1);
    Send("remove", "/devices/virtual/block/loop9");
    ASSERT_EQ(mount("tmp", "/mnt", "tmpfs", 0, ""), 0);
    // The mount alone led to a scan, after the messages.
    EXPECT_EQ(Take(2), "new volume loop1\nnew mount /mnt\n");
    g_from = From::kNobody;
    RemoveLoop("1");
    Send("change", "/devices/virtual/block/loop9");
    EXPECT_EQ(Take(1), "gone volume loop1\n");
    ASSERT_EQ(umount("/mnt"), 0);
    EXPECT_EQ(Take(1), "gone mount /mnt\n");
}

TEST(InventoryWatchOpenTest, EndsAtOnceAndRefusesNonsense) {
    KemdInventoryWatch* watch = nullptr;
    EXPECT_EQ(KemdInventoryWatchOpen(&watch, KEMD_INVENTORY_ALL, nullptr, nullptr), EINVAL);
    EXPECT_EQ(KemdInventoryWatchOpen(
                  &watch, 0, [](void*, const KemdInventoryChange*) {}, nullptr),
              0);
    KemdInventoryWatchClose(watch);
    KemdInventoryWatchClose(nullptr);
}

// A service with mounts of its own, which those of the host do not reach.
TEST(InventoryWatchOpenTest, SeesTheMountsOfTheHost) {
    std::filesystem::create_directories("/mnt");
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t service = fork();
    if (service == 0) {
        std::atomic<bool> isSeen = false;
        const auto look = [](void* seen, const KemdInventoryChange* change) {
            const bool isNew = change->before == nullptr && change->after != nullptr;
            if (isNew && std::string_view(KemdInventoryItemName(change->after)) == "/mnt") {
                *static_cast<std::atomic<bool>*>(seen) = true;
            }
        };
        KemdInventoryWatch* watch = nullptr;
        if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
            KemdInventoryWatchOpen(&watch, KEMD_INVENTORY_VOLUMES, look, &isSeen) != 0 ||
            write(ready[1], "", 1) != 1) {
            _exit(2);
        }
        _exit(WaitFor([&] { return isSeen.load(); }) ? 0 : 1);
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    EXPECT_EQ(mount("tmp", "/mnt", "tmpfs", 0, ""), 0);
    int status = -1;
    EXPECT_EQ(waitpid(service, &status, 0), service);
    EXPECT_EQ(umount("/mnt"), 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
