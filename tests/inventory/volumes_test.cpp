// Partitions, volumes and mounts: the kernel's texts, and made files of sysfs and udev.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "base/unique_fd.h"
#include "inventory/host_inventory.h"
#include "inventory/mount_table.h"
#include "inventory/sources.h"
#include "inventory/store.h"
#include "inventory/uevent.h"
#include "tests/world.h"

namespace {

std::string MountText(std::string_view line) {
    std::string text;
    for (const MountEntry& mount : ParseMounts(line)) {
        text += std::to_string(mount.id) + "|" + std::to_string(mount.major) + "|" + mount.root +
                "|" + mount.target + "|" + mount.source + "|" + mount.type + "|" + mount.options;
    }
    return text;
}

}  // namespace

TEST(MountTableTest, LinesOfTheKernel) {
    const struct {
        const char* line;
        const char* expected;
    } cases[] = {
        {"36 35 98:0 /@home /a\\040b\\011c\\012d\\134e rw,noatime master:1 propagate_from:2 - ext4 "
         "/dev/sd\\043a rw,errors=continue",
         "36|98|/@home|/a b\tc\nd\\e|/dev/sd#a|ext4|rw,noatime,errors=continue"},
        {"1 0 0:5 / / rw - tmpfs  ro", "1|0|/|/||tmpfs|ro"},  // no source
        {"1 0 0:5 / /x ro,rw_hook - t s rw", "1|0|/|/x|s|t|ro,rw_hook"},
        {"1 0 0:5 / /\\04 rw - t \\999 rw", "1|0|/|/\\04|\\999|t|rw"},
        {"1 0 0:5 / /x rw shared:1", ""},
        {"1 0 0 / /x rw - t s rw", ""},
        {"x 0 0:5 / /x rw - t s rw", ""},
        {"1 0 0:5", ""},
    };
    for (const auto& test : cases) EXPECT_EQ(MountText(test.line), test.expected) << test.line;
    const auto swaps = ParseSwaps(
        "Filename Type Size Used Priority\n/dev/dm-1  partition\t1024\t8\t-2\n/s\\040w file 4 0 5\n"
        "/x file 9");
    ASSERT_EQ(swaps.size(), 2U);
    EXPECT_EQ(swaps[0].size + swaps[0].used, 1032U * 1024);
    EXPECT_EQ(swaps[0].priority, "-2");
    EXPECT_EQ(swaps[1].path, "/s w");
    EXPECT_TRUE(swaps[1].isFile);
}

// A file system whose process never answers, and one that is mounted below it.
TEST(MountsTest, WhatMayNotAnswerIsNotAsked) {
    const UniqueFd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!fuse.IsOpen()) GTEST_SKIP() << "no /dev/fuse";
    for (const char* const path : {"/far/below", "/farther"}) {
        std::filesystem::create_directories(path);
        ASSERT_EQ(mount("near", path, "tmpfs", 0, "size=1M"), 0);
    }
    const std::string options =
        "fd=" + std::to_string(fuse.Get()) + ",rootmode=40000,user_id=0,group_id=0";
    ASSERT_EQ(mount("nobody", "/far", "fuse", 0, options.c_str()), 0) << strerror(errno);
    KemdInventory inventory;
    ScanVolumes(inventory);
    EXPECT_EQ(umount2("/far", MNT_DETACH), 0);
    EXPECT_EQ(umount("/far/below"), 0);
    EXPECT_EQ(umount("/farther"), 0);
    for (const char* const id : {"mount:/far", "mount:/far/below"}) {
        ASSERT_NE(inventory.Find(id), nullptr) << id;
        EXPECT_EQ(inventory.Find(id)->Find("fs_size"), nullptr) << id;
    }
    EXPECT_EQ(inventory.Find("mount:/farther")->Number("fs_size"), 1U << 20);
}

TEST(MountsTest, TableThatIsTooLongIsNoted) {
    WriteFile("/tmp/swaps", std::string(17 << 20, 'x'));
    ASSERT_EQ(mount("/tmp/swaps", "/proc/swaps", "", MS_BIND, nullptr), 0);
    KemdInventory inventory;
    ScanVolumes(inventory);
    EXPECT_EQ(umount("/proc/swaps"), 0);
    const auto& notes = inventory.notes;
    EXPECT_EQ(std::count(notes.begin(), notes.end(), "/proc/swaps: more than 16 MiB: cut"), 1);
}

uint64_t Space(const KemdInventory& inventory, const char* id, std::string_view source) {
    const KemdInventoryItem* const item = inventory.Find(id);
    return item != nullptr && item->Text("source") == source ? item->Number("fs_size") : 0;
}

// A service with mounts of its own sees those of the host, with their space; one that may not look
// there its own.
TEST(MountsTest, AreThoseOfTheHost) {
    std::filesystem::create_directories("/both");
    ASSERT_EQ(mount("host", "/both", "tmpfs", 0, "size=1M"), 0);
    const pid_t service = fork();
    if (service == 0) {
        KemdInventory inventory;
        if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("own", "/both", "tmpfs", MS_NOSUID, "size=2M") != 0) {
            _exit(2);
        }
        ScanVolumes(inventory);
        const bool isHosts = Space(inventory, "mount:/both", "host") == 1U << 20 &&
                             inventory.Find("mount:/both#2") == nullptr;
        if (mount("none", "/proc/1", "tmpfs", 0, nullptr) != 0) _exit(2);
        KemdInventory hardened;
        ScanVolumes(hardened);
        const bool isOwn = Space(hardened, "mount:/both#2", "own") == 2U << 20;
        _exit(isHosts && isOwn ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(service, &status, 0), service);
    EXPECT_EQ(umount("/both"), 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(UeventTest, MessagesOfTheKernelOnly) {
    const std::string good("add@/devices/x\0ACTION=add\0DEVPATH=/devices/x\0A==b\0C", 50);
    const auto event = Uevent::FromMessage(good);
    ASSERT_TRUE(event);
    EXPECT_EQ(event->Field("A"), "=b");
    EXPECT_FALSE(event->Number("A") || event->Number("C"));
    for (const std::string_view bad :
         {std::string_view("libudev\0\xfe\xed\xca\xfe", 12), std::string_view("add@/devices/x"),
          std::string_view("add@/x\0ACTION=remove\0DEVPATH=/x", 31),
          std::string_view("add@x\0ACTION=add\0DEVPATH=x", 26), std::string_view()}) {
        EXPECT_FALSE(Uevent::FromMessage(bad)) << bad;
    }
}

namespace {

class VolumesTest : public testing::Test {
  protected:
    ~VolumesTest() override {
        std::filesystem::remove_all("/sys/class");
        std::filesystem::remove_all("/sys/devices");
        std::filesystem::remove_all("/run/udev");
    }
    // "virtual/block/md0": with `files`, "NAME=TEXT" each.
    static void Make(const std::string& path, const std::string& number, const std::string& uevent,
                     const std::vector<std::string>& files = {}) {
        const std::string name = path.substr(path.rfind('/') + 1);
        const std::string directory = "/sys/devices/" + path + "/";
        WriteFile(directory + "uevent", "MAJOR=" + number.substr(0, number.find(':')) + "\nMINOR=" +
                                            number.substr(number.find(':') + 1) + "\n" + uevent);
        WriteFile(directory + "size", "2048\n");
        for (const std::string& file : files) {
            const size_t equals = file.find('=');
            WriteFile(directory + file.substr(0, equals), file.substr(equals + 1) + "\n");
        }
        std::filesystem::create_directories("/sys/class/block");
        std::filesystem::create_symlink("../../devices/" + path, "/sys/class/block/" + name);
    }
    // The items of volumes and partitions, a line each, then the notes.
    static std::string Scan() {
        KemdInventory inventory;
        inventory.sections = KEMD_INVENTORY_VOLUMES;
        ScanVolumes(inventory);
        std::erase_if(inventory.items,
                      [](const auto& item) { return item.kind == ItemKind::kMount; });
        return InventoryJson(inventory);
    }
};

}  // namespace

TEST_F(VolumesTest, EachKindOfVolumeWithoutUdev) {
    Make("pci0/block/sdy", "8:1", "DEVTYPE=disk\n");
    Make("pci0/block/sdy/sdy2", "8:3", "DEVTYPE=partition\nPARTN=2\nPARTNAME=a b\n",
         {"start=2048", "ro=1"});
    Make("virtual/block/md0", "9:0", "DEVTYPE=disk\n",
         {"md/level=raid1", "md/array_state=write-pending", "md/raid_disks=2", "md/degraded=1",
          "md/sync_action=recover", "md/sync_completed=300 / 400", "md/dev-sdy2/state=faulty",
          "slaves/sdy2/x=", "slaves/sdx/x="});
    Make("virtual/block/dm-0", "253:0", "DEVTYPE=disk\n",
         {"dm/name=vg--1-lv--a", "dm/uuid=LVM-abc", "dm/suspended=1", "slaves/md0/x="});
    Make("virtual/block/dm-1", "253:1", "DEVTYPE=disk\n",
         {"dm/name=mp", "dm/uuid=mpath-36", "slaves/sdy/x="});
    Make("virtual/block/dm-2", "253:2", "DEVTYPE=disk\n",
         {"dm/name=c", "dm/uuid=CRYPT-LUKS2-ff-c", "slaves/dm-0/x="});
    Make("virtual/block/bcache0", "251:0", "DEVTYPE=disk\n",
         {"bcache/state=dirty", "bcache/cache_mode=writethrough [writeback] none"});
    Make("virtual/block/loop3", "7:3", "DEVTYPE=disk\n",
         {"loop/backing_file=/i", "loop/offset=512"});
    Make("virtual/block/zram1", "252:1", "DEVTYPE=disk\n",
         {"comp_algorithm=lzo [zstd]", "mm_stat=1 2 4096 0"});
    Make("virtual/block/loop4", "7:4", "DEVTYPE=disk\n", {"size=0"});
    Make("virtual/hidden/nvme0c0n1", "", "");
    WriteFile("/sys/class/block/nvme0c0n1/uevent", "DEVTYPE=disk\n");
    const std::string json = Scan();
    EXPECT_TRUE(InOrder(
        json,
        {R"("volume:bcache0", "name": "bcache0", "device")",
         R"("type": "bcache", "cache_mode": )"
         R"("writeback", "state": "active"})",
         R"("volume:LVM-abc", "name": "vg--1-lv--a")", R"("uuid": "LVM-abc", "state": "suspended")",
         R"("volume_group": "vg-1", "logical_volume": "lv-a", "members": ["volume:md0"]})",
         R"("volume:mpath-36")", R"("type": "mpath")", R"("members": ["sdy"]})",
         R"("volume:CRYPT-LUKS2-ff-c", "name": "c")",
         R"("encryption": "LUKS2", "members": ["volume:LVM-abc"]})",
         R"("volume:/i", "name": "loop3")",
         R"("type": "loop", "backing_file": "/i", "offset": 512})", R"("volume:md0")",
         R"("type": "raid1", "state": "active", "raid_disks": 2, "degraded": 1, )"
         R"("sync_action": "recover", "sync_percent": 75, "members": ["sdx", "partition:sdy2"], )"
         R"("failed_members": ["partition:sdy2"]})",
         R"("type": "zram", "algorithm": "zstd", "memory_used": 4096})",
         R"("partition:sdy2", "name": "sdy2", "device": "/dev/sdy2", "device_number": "8:3", "size": 1048576, )"
         R"("read_only": true, "partition_number": 2, "partition_start": 1048576, "partition_name": "a b"})",
         "no udev: labels"}))
        << json;
    EXPECT_FALSE(Contains(json, "loop4") || Contains(json, "nvme0c0n1"));
}

TEST_F(VolumesTest, WhatUdevHasFoundOut) {
    Make("pci0/block/sdy", "8:1", "DEVTYPE=disk\n");
    Make("pci0/block/sdz", "8:2", "DEVTYPE=disk\n");
    Make("pci0/block/sdz/sdz1", "8:3", "DEVTYPE=partition\nPARTN=1\nPARTNAME=cut\n");
    Make("virtual/block/md127", "9:127", "DEVTYPE=disk\n", {"md/level=raid5", "size=0"});
    WriteFile("/run/udev/data/b8:1", "E:ID_FS_TYPE=ext4\nE:ID_FS_LABEL_ENC=my\\x20disk\\x4\nbad\n");
    WriteFile("/run/udev/data/b8:2", "E:ID_FS_TYPE=x\nE:ID_PART_TABLE_TYPE=gpt\n");
    WriteFile("/run/udev/data/b8:3",
              "E:ID_PART_ENTRY_NAME=EFI\\x20a\nE:ID_PART_ENTRY_UUID=u-1\nE:ID_PART_ENTRY_TYPE="
              "c12a7328-f81f-11d2-ba4b-00a0c93ec93b\nE:ID_PART_ENTRY_SCHEME=gpt\n");
    WriteFile("/run/udev/data/b9:127", "E:MD_UUID=1:2\nE:MD_DEVNAME=big\n");
    const std::string json = Scan();
    EXPECT_TRUE(InOrder(
        json,
        {R"("volume:md-1:2", "name": "big")", R"("uuid": "1:2")",
         R"("volume:sdy", "name": "sdy", "type": "disk")",
         R"("fs_type": "ext4", "fs_label": "my disk\\x4")",
         R"("partition_table": "gpt", "partition_name": "EFI a", "partition_type": "c12a7328-)",
         R"("partition_type_name": "EFI System", "partition_uuid": "u-1"})"}))
        << json;
    EXPECT_FALSE(Contains(json, "\"volume:sdz\"") || Contains(json, "no udev"));
}
