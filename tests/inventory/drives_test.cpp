// Drives in made trees of sysfs, and their health, with the kernel played by this program: ioctl is
// ours, and the nodes in /dev are others', told apart by their numbers.
#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <bit>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>

#include "base/text.h"
#include "inventory/drive_identity.h"
#include "inventory/host_inventory.h"
#include "inventory/sources.h"
#include "tests/world.h"

using Bytes = std::vector<uint8_t>;

// What a made drive answers to a command: data or sense.
struct Reply {
    Bytes data;
    Bytes sense;
    int error = 0;
    int result = 0;
};
using MadeDrive = std::function<Reply(const Bytes& command)>;

static std::mutex g_mutex;
static std::map<unsigned, MadeDrive> g_drives;               // by minor
static std::map<unsigned, std::vector<uint8_t>> g_commands;  // that each was asked

static Bytes Command(unsigned long request, void* argument) {
    if (request == NVME_IOCTL_ADMIN_CMD) return {static_cast<nvme_admin_cmd*>(argument)->opcode};
    const auto* const header = static_cast<const sg_io_hdr_t*>(argument);
    return {header->cmdp, header->cmdp + header->cmd_len};
}

// NOLINTNEXTLINE(readability-identifier-naming)
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* const argument = va_arg(args, void*);
    va_end(args);
    struct stat status {};
    fstat(fd, &status);
    const Bytes command = Command(request, argument);
    MadeDrive drive;
    {
        const std::lock_guard lock(g_mutex);
        g_commands[minor(status.st_rdev)].push_back(command[0] == 0x85 ? command[14] : command[0]);
        drive = g_drives[minor(status.st_rdev)];
    }
    const Reply reply = drive ? drive(command) : Reply{{}, {}, ENOTTY, 0};
    errno = reply.error;
    if (reply.error != 0) return -1;
    if (request == NVME_IOCTL_ADMIN_CMD) {
        auto* const admin = static_cast<nvme_admin_cmd*>(argument);
        const size_t size = std::min<size_t>(reply.data.size(), admin->data_len);
        std::copy_n(reply.data.begin(), size, std::bit_cast<uint8_t*>(admin->addr));
        return reply.result;
    }
    auto* const header = static_cast<sg_io_hdr_t*>(argument);
    const size_t size = std::min<size_t>(reply.data.size(), header->dxfer_len);
    std::copy_n(reply.data.begin(), size, static_cast<uint8_t*>(header->dxferp));
    header->resid = static_cast<int>(header->dxfer_len - size);
    header->status = reply.sense.empty() ? 0 : 2;
    header->sb_len_wr = static_cast<uint8_t>(std::min<size_t>(reply.sense.size(), 64));
    std::copy_n(reply.sense.begin(), header->sb_len_wr, header->sbp);
    return 0;
}

namespace {

class DrivesTest : public testing::Test {
  protected:
    void SetUp() override { std::filesystem::create_directories("/run/udev/data"); }
    void TearDown() override {
        for (const char* const folder : {"/sys", "/run/udev"}) {
            for (const auto& entry : std::filesystem::directory_iterator(folder)) {
                std::filesystem::remove_all(entry.path());
            }
        }
        const std::lock_guard lock(g_mutex);
        g_drives.clear();
        g_commands.clear();
    }

    // Lines "FILE=TEXT" and "LINK>TARGET", relative to /sys as targets are.
    static void Tree(std::string_view lines) {
        while (!lines.empty()) {
            const std::string line(TakeLine(lines));
            const size_t mark = line.find_first_of("=>");
            if (mark == line.npos) continue;
            const std::string path = "/sys/" + line.substr(0, mark);
            if (line[mark] == '=') {
                WriteFile(path, line.substr(mark + 1) + "\n");
                continue;
            }
            std::filesystem::create_directories(std::filesystem::path(path).parent_path());
            std::filesystem::create_symlink("/sys/" + line.substr(mark + 1), path);
        }
    }
    // `device`: the folder that the drive's "block" is in.
    static void Drive(const std::string& device, const std::string& name,
                      const std::string& number = "8:0", const std::string& size = "2048") {
        const std::string folder = "devices/" + device + "/block/" + name;
        Tree(folder + "/size=" + size + "\n" + folder + "/dev=" + number + "\n" + folder +
             "/device>devices/" + device + "\nblock/" + name + ">" + folder + "\n");
    }
    static void Host(const std::string& device, const std::string& name,
                     const std::string& driver) {
        const std::string folder = "devices/" + device + "/" + name + "/scsi_host/" + name;
        Tree(folder + "/proc_name=" + driver + "\nclass/scsi_host/" + name + ">" + folder + "\n");
    }
    // A drive that can be asked: the node is the one of memory's character devices with that minor.
    static void Asked(const std::string& name, unsigned minor, const std::string& vendor,
                      MadeDrive drive) {
        const std::map<unsigned, std::string> nodes = {
            {3, "null"}, {5, "zero"}, {7, "full"}, {8, "random"}, {9, "urandom"}};
        std::filesystem::remove("/dev/" + name);
        std::filesystem::create_symlink("/dev/" + nodes.at(minor), "/dev/" + name);
        const std::string device = "pci0000:00/0000:00:0" + std::to_string(minor) +
                                   (vendor.empty() ? ".0" : ".0/host1/1:0:0:0");
        Drive(device, name, "1:" + std::to_string(minor));
        if (!vendor.empty()) Tree("devices/" + device + "/vendor=" + vendor);
        const std::lock_guard lock(g_mutex);
        g_drives[minor] = std::move(drive);
    }
    static Bytes Commands(unsigned minor) {
        const std::lock_guard lock(g_mutex);
        return g_commands[minor];
    }

    static KemdInventory Scan(bool withHealth = false) {
        KemdInventory inventory;
        ScanDrives(inventory, withHealth);
        return inventory;
    }
    // "ID < PARENT: FIELD=VALUE ..." of the item with that name.
    static std::string Item(const KemdInventory& inventory, const std::string& name) {
        std::string text;
        for (const KemdInventoryItem& item : inventory.items) {
            if (item.name != name) continue;
            text += item.id + " < " + item.parent + ":";
            for (const auto& value : item.values) {
                text += std::string(" ") + value.field.Info().name + "=" + value.text;
            }
        }
        return text;
    }
    static std::string Health(const KemdInventory& inventory, const std::string& name) {
        const std::string text = Item(inventory, name);
        const size_t start = std::min(text.find("power_state="), text.find("health="));
        return start == text.npos ? "" : text.substr(start);
    }
};

TEST_F(DrivesTest, SasDriveHasItsBayItsAdapterAndItsPaths) {
    Tree(R"(devices/pci0000:00/0000:03:00.0/host0/scsi_host/host0/version_fw=16.00.01.00
devices/pci0000:00/0000:03:00.0/host0/scsi_host/host0/board_name=HBA 9400
class/sas_host/host0/uevent=
devices/pci0000:00/0000:03:00.0/host0/enclosure/0:0:9:0/id=0x500a098004b7a6c0
devices/pci0000:00/0000:03:00.0/host0/enclosure/0:0:9:0/Slot 07/slot=7
class/enclosure/0:0:9:0>devices/pci0000:00/0000:03:00.0/host0/enclosure/0:0:9:0
devices/virtual/block/dm-3/dm/name=mpatha
devices/virtual/block/dm-3/dm/uuid=mpath-35000
block/dm-3>devices/virtual/block/dm-3
block/sdz>it went while it was listed
)");
    Host("pci0000:00/0000:03:00.0", "host0", "mpt3sas");
    for (const auto& [unit, name] : {std::pair("0:0:2:0", "sdb"), std::pair("0:0:1:0", "sda")}) {
        const std::string device = std::string("pci0000:00/0000:03:00.0/host0/") + unit;
        Drive(device, name, name == std::string("sda") ? "8:0" : "8:16");
        std::string tree = R"(@/vendor=ACME
@/model=ST4000	X
@/rev=0003
@/wwid=naa.5000c50012345678
@/sas_address=0x5000c50012345679
@/enclosure_device:Slot 07>devices/pci0000:00/0000:03:00.0/host0/enclosure/0:0:9:0/Slot 07
@/block/#/queue/scheduler=none [mq-deadline] kyber
@/block/#/queue/zoned=host-managed
@/block/#/queue/nr_zones=20
@/block/#/queue/chunk_sectors=524288
@/block/#/holders/dm-3/x=
)";
        for (size_t at = 0; (at = tree.find_first_of("@#", at)) != tree.npos;) {
            tree.replace(at, 1, tree[at] == '@' ? "devices/" + device : name);
        }
        Tree(tree);
        WriteFile("/sys/devices/" + device + "/vpd_pg80", {"\0\x80\0\x08 ZA1B2C3 ", 13});
    }
    WriteFile("/run/udev/data/b8:0",
              "S:disk/by-path/x\nE:ID_PATH=pci-0000:03:00.0-sas-phy1-lun-0\n");
    const KemdInventory inventory = Scan();
    EXPECT_EQ(Item(inventory, "mpt3sas 0000:03:00.0"),
              "storage_adapter:0000:03:00.0 < pci:0000:03:00.0: driver=mpt3sas interface=sas "
              "firmware=16.00.01.00 model=HBA 9400 hosts=host0");
    EXPECT_EQ(Item(inventory, "sda"),
              "drive:0x5000c50012345678 < storage_adapter:0000:03:00.0: device=/dev/sda "
              "device_number=8:0 type=disk vendor=ACME serial=ZA1B2C3 wwn=0x5000c50012345678 "
              "model=ST4000 X firmware=0003 sas_address=0x5000c50012345679 hctl=0:0:1:0 "
              "bay=Slot 07 enclosure=0x500a098004b7a6c0 interface=sas "
              "by_path=/dev/disk/by-path/pci-0000:03:00.0-sas-phy1-lun-0 size=1048576 "
              "scheduler=mq-deadline zoned=host-managed zones=20 zone_size=268435456 "
              "holders=mpatha multipath=mpatha");
    EXPECT_TRUE(Item(inventory, "sdb").starts_with("drive:0x5000c50012345678#2 <"));
    EXPECT_EQ(inventory.items.size(), 3U);
    EXPECT_TRUE(inventory.notes.empty());
}

TEST_F(DrivesTest, OneNoteSaysThatThereIsNoUdev) {
    std::filesystem::remove("/run/udev/data");
    KemdInventory inventory;
    inventory.sections = KEMD_INVENTORY_DRIVES | KEMD_INVENTORY_VOLUMES;
    ScanDrives(inventory, false);
    EXPECT_EQ(inventory.notes, std::vector<std::string>{"/sys/block: not there: no drives"});
    Drive("pci0000:00/0000:00:06.0/virtio3", "vda");
    std::filesystem::create_directories("/sys/class/block");
    ScanDrives(inventory, false);
    ScanVolumes(inventory);
    EXPECT_EQ(std::count_if(inventory.notes.begin(), inventory.notes.end(),
                            [](const auto& note) { return Contains(note, "udev"); }),
              1);
}

TEST_F(DrivesTest, NvmePathsAreNoDrives) {
    Tree(R"(devices/virtual/nvme-subsystem/nvme-subsys0/serial=S1
devices/virtual/nvme-subsystem/nvme-subsys0/nvme0n1/wwid=eui.0011
devices/virtual/nvme-subsystem/nvme-subsys0/nvme0n1/eui=00 00
devices/virtual/nvme-subsystem/nvme-subsys0/nvme0n1/nsid=3
devices/virtual/nvme-subsystem/nvme-subsys0/nvme0n1/device>devices/virtual/nvme-subsystem/nvme-subsys0
devices/pci0000:00/0000:01:00.0/nvme/nvme0/nvme0c0n1/hidden=1
devices/pci0000:00/0000:02:00.0/nvme/nvme1/nvme0c1n1/hidden=1
devices/pci0000:00/0000:02:00.0/nvme/nvme1/firmware_rev=F1
devices/pci0000:00/0000:02:00.0/nvme/nvme1/cntlid=1
class/nvme/nvme0>devices/pci0000:00/0000:01:00.0/nvme/nvme0
class/nvme/nvme1>devices/pci0000:00/0000:02:00.0/nvme/nvme1
block/nvme0n1>devices/virtual/nvme-subsystem/nvme-subsys0/nvme0n1
block/nvme0c0n1>devices/pci0000:00/0000:01:00.0/nvme/nvme0/nvme0c0n1
block/nvme0c1n1>devices/pci0000:00/0000:02:00.0/nvme/nvme1/nvme0c1n1
)");
    const KemdInventory inventory = Scan();
    ASSERT_EQ(inventory.items.size(), 3U);
    EXPECT_EQ(Item(inventory, "nvme1"),
              "storage_adapter:0000:02:00.0 < pci:0000:02:00.0: driver=nvme interface=nvme "
              "firmware=F1 controller_id=1");
    EXPECT_EQ(Item(inventory, "nvme0n1"),
              "drive:eui.0011 < storage_adapter:0000:01:00.0: device=/dev/nvme0n1 type=disk "
              "serial=S1 wwn=eui.0011 namespace=3 nvme_paths=nvme0c0n1 nvme_paths=nvme0c1n1 "
              "interface=nvme");
}

// Each kind's interface, its id without a name of its own, and what is no drive or no size.
TEST_F(DrivesTest, EachKindHasItsInterfaceAndAnId) {
    struct Case {
        const char* device;
        const char* name;
        const char* driver;  // of its host
        const char* interface;
        const char* id;
        const char* parent;
    };
    const std::vector<Case> cases = {
        {"pci0000:00/0000:00:1f.2/ata3/host2/2:0:0:0", "sda", "ahci", "sata",
         "0000:00:1f.2-ata5-0:0:0", "0000:00:1f.2"},
        {"pci0000:00/0000:00:1.1/ata9/host3/3:0:1:0", "sdb", "ata_piix", "ide", "0000:00:1.1-0:1:0",
         "0000:00:1.1"},
        {"pci0000:00/0000:00:14.0/usb1/1-1/1-1.2/1-1.2:1.0/host4/4:0:0:0", "sdc", "usb-storage",
         "usb", "1-1.2-0:0:0", "1-1.2"},
        {"pci0000:00/0000:00:5.0/virtio2/host5/5:0:0:1", "sr0", "virtio_scsi", "scsi",
         "0000:00:5.0-0:0:1", "0000:00:5.0"},
        {"platform/host6/session1/6:0:0:0", "sdd", "iscsi_tcp", "iscsi", "host6-0:0:0",
         "iscsi_tcp"},
        {"pci0000:00/0000:00:6.0/virtio3", "vda", "", "virtio", "0000:00:6.0", "0000:00:6.0"},
        {"vbd-51712", "xvda", "", "xen", "vbd-51712", "vbd-51712"},
        {"platform/floppy.0", "fd0", "", "floppy", "floppy.0", "floppy.0"},
        {"pci0000:00/0000:00:7.0/mmc_host/mmc0/mmc0:0001", "mmcblk0", "", "mmc", "0000:00:7.0",
         "0000:00:7.0"},
    };
    for (const Case& c : cases) {
        const std::string device = c.device;
        const size_t host = device.find("/host");
        Drive(device, c.name);
        if (host == device.npos) continue;
        Host(device.substr(0, host), device.substr(host + 1, 5), c.driver);
    }
    Tree(
        "devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1.2/1-1.2:1.0/host4/4:0:0:0/block/sdc/removable=1");
    Tree("class/iscsi_host/host6/uevent=\nclass/ata_port/ata3/port_no=5\n");
    Tree(
        "devices/pci0000:00/0000:00:7.0/mmc_host/mmc0/mmc0:0001/life_time=0x02 0x0a\n"
        "devices/pci0000:00/0000:00:7.0/mmc_host/mmc0/mmc0:0001/pre_eol_info=0x02\n");
    for (const char* const name : {"loop0", "ram0", "zram0", "md0", "nbd0"}) Drive("virtual", name);
    Drive("pci0000:00/0000:00:8.0/virtio4", "vdb", "8:0", "36028797018963968");
    const KemdInventory inventory = Scan(true);
    for (const Case& c : cases) {
        const std::string text = Item(inventory, c.name);
        EXPECT_TRUE(
            text.starts_with("drive:" + std::string(c.id) + " < storage_adapter:" + c.parent + ":"))
            << c.name << ": " << text;
        EXPECT_TRUE(Contains(text, std::string(" interface=") + c.interface)) << text;
    }
    // A USB stick is asked nothing, and eMMC needs no question.
    EXPECT_EQ(std::count_if(inventory.notes.begin(), inventory.notes.end(),
                            [](const auto& note) { return note.starts_with("drive:sdc"); }),
              0);
    EXPECT_EQ(Health(inventory, "mmcblk0"),
              "health=ok critical_warning=spare blocks at 80 % percentage_used=100");
    EXPECT_FALSE(Contains(Item(inventory, "vdb"), "size=3"));
    EXPECT_EQ(inventory.notes[0], "drive:vdb: a size of 36028797018963968 sectors is no size");
    EXPECT_EQ(inventory.items.size(), 2 * cases.size() + 2);
}

TEST_F(DrivesTest, FiveHundredDrivesHaveOneIdEachInTheOrderOfTheirNames) {
    const auto name = [](int i) {
        const std::string last(1, static_cast<char>('a' + i % 26));
        return i < 26 ? "sd" + last
                      : "sd" + std::string(1, static_cast<char>('a' + i / 26 - 1)) + last;
    };
    Host("pci0000:00/0000:00:01.0", "host0", "mpt3sas");
    for (int i = 0; i < 500; ++i) {
        Drive("pci0000:00/0000:00:01.0/host0/0:0:" + std::to_string(i) + ":0", name(i));
    }
    const KemdInventory inventory = Scan();
    ASSERT_EQ(inventory.items.size(), 501U);
    for (int i = 0; i < 500; ++i) {
        const KemdInventoryItem& item = inventory.items[static_cast<size_t>(i) + 1];
        EXPECT_EQ(item.name, name(i));
        EXPECT_EQ(item.id, "drive:0000:00:01.0-0:" + std::to_string(i) + ":0");
    }
}

// An ATA drive behind a SCSI command set.
Bytes AtaPage(std::initializer_list<std::pair<size_t, Bytes>> parts) {
    Bytes page(512);
    for (const auto& [offset, bytes] : parts) {
        std::copy(bytes.begin(), bytes.end(), page.begin() + static_cast<ptrdiff_t>(offset));
    }
    return page;
}

Bytes Registers(uint8_t count, uint8_t mid, uint8_t high, uint8_t status = 0x50) {
    return {0x72, 1, 0, 0x1D, 0, 0, 0, 14, 9, 12, 0, 0, 0, count, 0, 0, 0, mid, 0, high, 0, status};
}

Reply AnswerAta(const Bytes& command, uint8_t power, bool isFailing) {
    const Bytes identify = AtaPage({{170, {1, 0}}, {174, {0x20, 0x40}}});
    // Temperature 41, and a byte that makes the sum 0.
    const Bytes attributes =
        AtaPage({{2, {194, 0, 0, 100, 100, 41}}, {511, {static_cast<uint8_t>(-435)}}});
    constexpr uint8_t kValid = 0xC0;
    const std::map<uint8_t, Bytes> logs = {
        {0, AtaPage({{0, {1, 0, 0}}, {8, {3, 0, 1, 7}}})},
        {1, AtaPage({{2, {1}},
                     {8, {12, 0, 0, 0, 0, 0, 0, kValid}},
                     {16, {0xE8, 3, 0, 0, 0, 0, 0, kValid}},
                     {24, {0, 0, 1, 0, 0, 0, 0, 0x80}}})},
        {7, AtaPage({{2, {7}}, {8, {93, 0, 0, 0, 0, 0, 0, kValid}}})}};
    switch (command[14]) {
        case 0xE5:
            return {{}, Registers(power, 0, 0)};
        case 0xEC:
            return {identify, {}};
        case 0xB0:
            if (command[4] == 0xD0) return {attributes, {}};
            return {{}, isFailing ? Registers(0, 0xF4, 0x2C) : Registers(0, 0x4F, 0xC2)};
        case 0x2F:
            return logs.contains(command[10]) ? Reply{logs.at(command[10]), {}} : Reply{{}, {0x70}};
        default:
            return {{}, {0x70, 0, 5}};
    }
}

TEST_F(DrivesTest, AtaHealthIsAskedOfDrivesThatAreAwake) {
    const std::string known =
        "temperature=41 percentage_used=93 power_cycles=12 power_on_hours=1000";
    Asked("sda", 3, "ATA", [](const Bytes& c) { return AnswerAta(c, 0xFF, false); });
    Asked("sdb", 5, "ATA", [](const Bytes& c) { return AnswerAta(c, 0x82, true); });
    Asked("sdc", 7, "ATA", [](const Bytes& c) { return AnswerAta(c, 0x00, false); });
    // A bridge that passes commands on, but not the registers: it cannot say that the drive is
    // awake.
    Asked("sdd", 8, "ATA", [](const Bytes&) { return Reply{Bytes(512), {}}; });
    Asked("sde", 9, "ATA", [](const Bytes& c) { return AnswerAta(c, 0xFF, false); });
    Tree("devices/pci0000:00/0000:00:09.0/host1/1:0:0:0/power/runtime_status=suspended");
    const KemdInventory inventory = Scan(true);
    EXPECT_EQ(Health(inventory, "sda"), "power_state=active health=ok " + known);
    EXPECT_EQ(Health(inventory, "sdb"),
              "power_state=idle health=failing critical_warning=failure predicted " + known);
    EXPECT_EQ(Health(inventory, "sdc"), "power_state=standby health=unknown");
    EXPECT_EQ(Health(inventory, "sdd"), "health=unknown");
    EXPECT_EQ(Health(inventory, "sde"), "power_state=suspended");
    EXPECT_EQ(Commands(7), Bytes{0xE5});
    EXPECT_EQ(Commands(8), Bytes{0xE5});
    EXPECT_EQ(Commands(9), Bytes{});
}

TEST_F(DrivesTest, ScsiHealthIsAskedOfDrivesThatAreAwake) {
    const auto answer = [](const Bytes& command, const Bytes& sense, const Bytes& notReady) {
        const std::map<uint8_t, Bytes> logs = {
            {0x40, {0, 0, 0, 4, 0, 0x0D, 0x11, 0x2F}},
            {0x6F, {0x2F, 0, 0, 8, 0, 0, 3, 4, 0x5D, 0x10, 38, 0}},
            {0x4D, {0x0D, 0, 0, 6, 0, 0, 3, 2, 0, 37}},
            {0x51, {0x11, 0, 0, 8, 0, 1, 3, 4, 0, 0, 0, 12}}};
        if (command[0] == 0x03) return Reply{sense, {}};
        if (command[0] == 0x00) return Reply{{}, notReady};
        return logs.contains(command[2]) ? Reply{logs.at(command[2]), {}} : Reply{{}, {0x70, 0, 5}};
    };
    const Bytes good = {0x70, 0, 0, 0, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0};
    const Bytes standby = {0x70, 0, 0, 0, 0, 0, 0, 6, 0, 0, 0, 0, 0x5E, 0x02};
    const Bytes stopped = {0x72, 2, 0x04, 0x02};
    Asked("sda", 3, "ACME", [&](const Bytes& c) { return answer(c, good, {}); });
    Asked("sdb", 5, "ACME", [&](const Bytes& c) { return answer(c, standby, {}); });
    Asked("sdc", 7, "ACME", [&](const Bytes& c) { return answer(c, good, stopped); });
    Asked("sdd", 8, "ACME", [&](const Bytes&) { return Reply{{0x70}, {0x70, 0, 5}}; });
    const KemdInventory inventory = Scan(true);
    EXPECT_EQ(Health(inventory, "sda"),
              "power_state=active health=failing critical_warning=failure predicted "
              "temperature=37 percentage_used=12");
    EXPECT_EQ(Health(inventory, "sdb"), "power_state=standby health=unknown");
    EXPECT_EQ(Health(inventory, "sdc"), "power_state=standby health=unknown");
    EXPECT_EQ(Commands(5), Bytes{0x03});
    EXPECT_EQ(Commands(7), (Bytes{0x03, 0x00}));
    EXPECT_EQ(Health(inventory, "sdd"), "health=unknown");
}

TEST_F(DrivesTest, NvmeHealthAndWhatRefuses) {
    // Warnings, temperature 310 K, spare 4 of at least 10 %, 255 % used, counters.
    Bytes log(512);
    const Bytes head = {0x0B, 0x36, 0x01, 4, 10, 255};
    std::copy(head.begin(), head.end(), log.begin());
    log[32] = 2;
    log[56] = 1;  // above what 64 bits hold
    log[144] = 9;
    Asked("nvme0n1", 3, "", [&](const Bytes&) { return Reply{log, {}}; });
    Asked("nvme1n1", 5, "", [&](const Bytes&) { return Reply{log, {}, 0, 0x4002}; });
    Asked("nvme2n1", 7, "", [](const Bytes&) { return Reply{{}, {}, EACCES}; });
    Asked("nvme3n1", 8, "", [](const Bytes&) { return Reply{{}, {}, EPERM}; });
    Asked("nvme4n1", 9, "", [](const Bytes&) { return Reply{{}, {}, EIO}; });
    // A node of another device in its place.
    std::filesystem::remove("/dev/nvme9n1");
    std::filesystem::create_symlink("/dev/null", "/dev/nvme9n1");
    Drive("pci0000:00/0000:00:0a.0", "nvme9n1", "1:11");
    const KemdInventory inventory = Scan(true);
    EXPECT_EQ(Health(inventory, "nvme0n1"),
              "health=failing critical_warning=spare below its threshold "
              "critical_warning=temperature critical_warning=media read-only temperature=37 "
              "percentage_used=255 spare=4 spare_threshold=10 media_errors=0 "
              "unsafe_shutdowns=9 power_cycles=0 power_on_hours=0 data_read=1024000 "
              "data_written=18446744073709551615");
    EXPECT_EQ(Health(inventory, "nvme1n1"), "health=unknown");
    EXPECT_EQ(std::vector(inventory.notes.end() - 3, inventory.notes.end()),
              (std::vector<std::string>{"health of drives: only root may ask for it",
                                        "drive:nvme4n1: health: Input/output error",
                                        "drive:nvme9n1: health: No such device"}));
}

TEST_F(DrivesTest, DriveThatHangsIsGivenUpAndNotAskedAgain) {
    std::condition_variable released;
    bool isReleased = false;
    bool hasEnded = false;
    Asked("sda", 3, "ATA", [](const Bytes& c) { return AnswerAta(c, 0xFF, false); });
    Asked("sdb", 5, "ATA", [&](const Bytes&) {
        std::unique_lock lock(g_mutex);
        released.wait(lock, [&] { return isReleased; });
        hasEnded = true;
        return Reply{{}, {}, EIO};
    });
    for (int scan = 0; scan < 2; ++scan) {
        const KemdInventory inventory = Scan(true);
        EXPECT_TRUE(Contains(Health(inventory, "sda"), "health=ok"));
        EXPECT_EQ(Health(inventory, "sdb"), "health=unknown");
        EXPECT_EQ(inventory.notes.back(), "drive:sdb: health: no answer within 2 s");
        EXPECT_EQ(Commands(5), Bytes{0xE5});
    }
    {
        const std::lock_guard lock(g_mutex);
        isReleased = true;
        g_drives[5] = [](const Bytes& c) { return AnswerAta(c, 0xFF, false); };
        released.notify_all();
    }
    // As soon as the question has ended, the next scan asks again.
    EXPECT_TRUE(WaitFor([&] { return Contains(Health(Scan(true), "sdb"), "health=ok"); }));
    const std::lock_guard lock(g_mutex);
    EXPECT_TRUE(hasEnded);
}

// Questions that come often keep drives awake: between them the last answer stays.
TEST_F(DrivesTest, BetweenTheQuestionsTheLastAnswerStays) {
    Asked("sda", 3, "ATA", [](const Bytes& c) { return AnswerAta(c, 0xFF, true); });
    Asked("nvme0n1", 5, "", [](const Bytes&) { return Reply{{}, {}, EIO}; });
    Asked("nvme1n1", 7, "", [](const Bytes&) { return Reply{{}, {}, EPERM}; });
    KemdInventory first = Scan(true);
    first.time = 1795387462;
    const Bytes questions = Commands(3);
    const std::string given = Health(first, "sda").substr(strlen("power_state=active "));
    const std::string answer = given + " health_time=2026-11-22T22:44:22Z";
    EXPECT_FALSE(Contains(given, "health_time"));
    Asked("sdb", 8, "ATA", [](const Bytes& c) { return AnswerAta(c, 0xFF, false); });
    KemdInventory second;
    ScanDrives(second, true, &first, true);
    EXPECT_EQ(Commands(3), questions);
    EXPECT_EQ(Commands(5).size() + Commands(7).size(), 2U);
    EXPECT_EQ(Health(second, "sda"), answer);
    EXPECT_TRUE(Contains(Health(second, "sdb"), "health=ok"));
    EXPECT_EQ(Health(second, "nvme0n1"), "health=unknown");
    EXPECT_EQ(second.notes, first.notes);
    // All are asked, and this one sleeps.
    {
        const std::lock_guard lock(g_mutex);
        g_drives[3] = [](const Bytes& c) { return AnswerAta(c, 0x00, false); };
    }
    KemdInventory third;
    ScanDrives(third, true, &second);
    EXPECT_EQ(Health(third, "sda"), "power_state=standby " + answer);
    // Another drive in the same place.
    Tree("devices/pci0000:00/0000:00:03.0/host1/1:0:0:0/block/sda/size=4096");
    KemdInventory fourth;
    ScanDrives(fourth, true, &third, true);
    EXPECT_EQ(Health(fourth, "sda"), "power_state=standby health=unknown");
    // That it was asked is known also when it never was before.
    const KemdInventory unasked = Scan();
    KemdInventory fifth;
    ScanDrives(fifth, true, &unasked);
    EXPECT_EQ(Health(fifth, "sda"), "power_state=standby health=unknown");
}

TEST(DriveIdentity, PagesAreReadWithinTheirLength) {
    Bytes page(572);
    page[1] = 0x89;
    page[2] = 0x02;
    page[3] = 0x38;
    const auto put = [&](size_t word, const std::string& text) {
        for (size_t i = 0; i < text.size(); ++i) {
            page[60 + word * 2 + (i ^ 1)] = static_cast<uint8_t>(text[i]);
        }
    };
    put(10, "  SERIAL-0001       ");
    put(23, "FW012345");
    put(27, "Model of more than sixteen letters      ");
    put(87, "\x41");
    put(108, "\x50\x01\x02\x03\x04\x05\x06\x07");
    put(217, "\x1C\x20");
    const AtaIdentity identity = ReadAtaIdentity(page);
    EXPECT_EQ(identity.serial, "SERIAL-0001");
    EXPECT_EQ(identity.firmware, "FW012345");
    EXPECT_EQ(identity.model, "Model of more than sixteen letters");
    EXPECT_EQ(identity.wwn, "0x5001020304050607");
    EXPECT_EQ(identity.rotationRate, 7200);
    page.pop_back();
    EXPECT_EQ(ReadAtaIdentity(page).serial, "");

    const Bytes page83 = {0, 0x83, 0, 32, 2, 1, 0, 4, 'n', 'a', 'm',  'e', 1, 0x13, 0, 8, 0, 0,
                          0, 0,    0, 0,  0, 9, 1, 3, 0,   8,   0x50, 1,   2, 3,    4, 5, 6, 7};
    EXPECT_EQ(ReadWwnPage(page83), "0x5001020304050607");
    EXPECT_EQ(ReadWwnPage(std::span(page83).first(page83.size() - 1)), "");
    EXPECT_EQ(ReadSerialPage(Bytes{0, 0x80, 0xFF, 0xFF, 'a', 'b', 0, 'c'}), "ab");
}

}  // namespace
