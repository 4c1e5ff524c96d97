// kemdctl inventory over a made sysfs: forms, kept inventories, differences, masks.
#include "inventory/host_inventory.h"
#include "inventory/store.h"
#include "kemdctl/inventory/mask.h"
#include "tests/inventory/memory_world.h"
#include "tests/kemdctl/ctl.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kBridge = "/sys/devices/pci0000:00/0000:00:03.0";
constexpr const char* kCard = "/sys/devices/pci0000:00/0000:00:03.0/0000:01:00.0";

void Link(const std::string& target, const std::string& path) {
    fs::create_directories(fs::path(path).parent_path());
    std::error_code error;
    fs::create_symlink(target, path, error);
}

// A machine with a bridge, below it a card with drives that have a partition each.
struct InventoryItems : testing::Test {
    InventoryItems() {
        for (const char* const path : {"/sys/bus", "/sys/devices", "/sys/block", "/sys/class"}) {
            fs::remove_all(path);
        }
        MakeFunction(kBridge, "60400", "8");
        MakeFunction(kCard, "10000", "4");
        MakeDrive("vda", "SERIAL-0001");
    }
    static void MakeFunction(const std::string& path, const std::string& classCode,
                             const std::string& lanes) {
        const std::pair<const char*, std::string> attributes[] = {
            {"/uevent", "PCI_CLASS=" + classCode + "\nPCI_ID=1AF4:1042\n"},
            {"/current_link_width", lanes + "\n"},
            {"/max_link_width", "8\n"},
            {"/current_link_speed", "8.0 GT/s PCIe\n"},
            {"/max_link_speed", "8.0 GT/s PCIe\n"}};
        for (const auto& [name, text] : attributes) WriteFile(path + name, text);
        Link(path, "/sys/bus/pci/devices/" + fs::path(path).filename().string());
    }
    static void MakeDrive(const std::string& name, const std::string& serial) {
        const std::string minor = std::to_string(16 * (name.back() - 'a'));
        const std::string device = std::string(kCard) + "/virtio" + minor;
        const std::string path = device + "/block/" + name;
        WriteFile(device + "/uevent", "DRIVER=virtio_blk\n");
        Link("../../../../bus/virtio", device + "/subsystem");
        fs::create_directories("/sys/bus/virtio/drivers/virtio_blk");
        Link("../../../../../bus/virtio/drivers/virtio_blk", device + "/driver");
        WriteFile(path + "/uevent", "MAJOR=254\nMINOR=" + minor + "\nDEVTYPE=disk\n");
        WriteFile(path + "/dev", "254:" + minor + "\n");
        WriteFile(path + "/size", "4194304\n");
        WriteFile(path + "/serial", serial + "\n");
        WriteFile(path + "/ro", "0\n");
        Link("../..", path + "/device");
        Link(path, "/sys/block/" + name);
        Link(path, "/sys/class/block/" + name);
    }
};

TEST_F(InventoryItems, AreShownInEachForm) {
    EXPECT_TRUE(Shows("inventory pci", 0,
                      {"pci           class\n", "0000:00:03.0", "0000:01:00.0",
                       "warning: PCI 0000:01:00.0 runs with 4 of 8 lanes\n"}));
    EXPECT_TRUE(Shows("inventory drives --long", 0,
                      {"drive vda\n  id:", "drive:", "  serial:               SERIAL-0001\n",
                       "  size:                 2 GiB\n"}));
    EXPECT_TRUE(Shows(
        "inventory --tree", 0,
        {"0000:00:03.0  PCI bridge", "\n`- 0000:01:00.0", "\n   `- ", "\n      `- vda  2 GiB"}));
    EXPECT_TRUE(Shows("inventory memory --tree", 0, {"nothing found\n"}));
    EXPECT_TRUE(Shows("inventory drives pci --json", 0,
                      {"\"sections\": [\"pci\", \"drives\"]", "\"id\": \"pci:0000:01:00.0\"",
                       "\"serial\": \"SERIAL-0001\"", "\"size\": 2147483648"}));
    ASSERT_EQ(Ctl("inventory --xml >/tmp/inventory.xml").code, 0);
    EXPECT_TRUE(Holds(ReadFile("/tmp/inventory.xml"),
                      {R"(<field name="size" type="number" unit="bytes">2147483648</field>)",
                       R"(<section>volumes</section>)"}));
    EXPECT_EQ(std::system("/usr/bin/xmllint --noout --relaxng /inventory.rng /tmp/inventory.xml "
                          "2>/tmp/xmllint.err"),
              0)
        << ReadFile("/tmp/xmllint.err");
    WriteFile("/large", "");
    fs::resize_file("/large", (64 << 20) + 1);
    ExpectAll("inventory ",
              {{"disks", 2, "", "there is no section disks; see kemdctl inv"},
               {"pci --tables", 2, "", "sections do not go with"},
               {"pci save x", 2, "", "save comes before all other words"},
               {"save", 2, "", "save takes the name of a file"},
               {"save pci", 2, "", "pci is a section; a file of that name is ./pci"},
               {"diff a drives", 2, "", "drives is a section; a file"},
               {"diff a b c", 2, "", "diff takes the names of one file or two"},
               {"diff /a --ignore flux", 2, "", "there is no field and no kind flux"},
               {"diff /none", 2, "", "cannot read /none: No such file"},
               {"diff /inventory.rng", 2, "", "it must be what kemdctl inventory save wrote"},
               {"diff /large", 2, "", "cannot read /large: it has more than the 64 MiB"},
               {"--tree --xml", 2, "", "exclude each other"},
               {"pci --volatile", 2, "", "--volatile does not go with sections"},
               {"diff /large --bogus", 2, "", "unknown option --bogus"},
               {"save /none/x pci", 2, "", "cannot write /none/x: No such file"},
               {"save - pci >/dev/full", 2, "", "No space left"}});
}

// Whatever the machine has, the page fits a screen.
TEST_F(InventoryItems, ThePageFitsAScreen) {
    const Bytes memory = FirmwareImage("pc");
    WriteFile("/dev/mem", std::string(memory.begin(), memory.end()));
    for (const char name : std::string("bcdefghijklmnop")) {
        MakeDrive(std::string("vd") + name, std::string("S") + name);
    }
    WriteFile(std::string(kCard) + "/virtio0/block/vda/size", "8388608\n");
    for (char card = 'a'; card <= 'f'; ++card) {
        MakeFunction(std::string(kBridge) + "/0000:0" + card + ":00.0", "10000", "4");
    }
    const std::string page = Ctl("inventory").out;
    EXPECT_TRUE(InOrder(
        page,
        {"Machine     ", "Firmware    ", "Memory      ",
         "Drives      vda        4 GiB  virtio  slot 2\n            15 x       2 GiB  virtio\n",
         "Attention   PCI 0000:01:00.0 runs with 4 of 8 lanes\n",
         "            and 3 more: kemdctl inventory --long"}));
    std::istringstream lines(page);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) EXPECT_LE(line.size(), 80U) << line;
    EXPECT_LE(count, 24 - 6 - 1);  // ports have up to six lines, the prompt one
    fs::remove("/dev/mem");
}

TEST_F(InventoryItems, WhatChangedIsALineEach) {
    const std::string sections = " pci drives";
    ASSERT_TRUE(Prints("inventory save /tmp/before" + sections + " 2>/dev/null", 0, ""));
    ASSERT_EQ(Ctl("inventory diff /tmp/before").code, 0);
    EXPECT_EQ(Ctl("inventory save -" + sections).out.substr(0, 60),
              ReadFile("/tmp/before").substr(0, 60));
    WriteFile(std::string(kCard) + "/uevent", "PCI_CLASS=10000\nPCI_ID=1AF4:1043\n");
    MakeDrive("vdb", "SERIAL-0002");
    ASSERT_EQ(Ctl("inventory save /tmp/after" + sections).code, 0);
    const std::string changed = "pci:0000:01:00.0 changed: device_id: 1042 -> 1043\n";
    EXPECT_TRUE(InOrder(Ctl("inventory diff /tmp/before").out, {changed, " added: vdb\n"}));
    EXPECT_EQ(Ctl("inventory diff /tmp/before /tmp/after").code, 1);
    EXPECT_TRUE(InOrder(Ctl("inventory diff /tmp/after /tmp/before").out,
                        {" removed: vdb\n", "device_id: 1043 -> 1042\n"}));
    EXPECT_EQ(Ctl("inventory diff /tmp/before --ignore 'drive:*' --ignore storage_adapter").out,
              changed);
    EXPECT_EQ(Ctl("inventory diff /tmp/before --ignore pci.device_id --ignore drive "
                  "--ignore storage_adapter")
                  .code,
              0);
    EXPECT_TRUE(Contains(Ctl("inventory diff /tmp/before --json").out,
                         R"({"change":"changed","kind":"pci","id":"pci:0000:01:00.0",)"
                         R"("name":"0000:01:00.0","fields":[{"name":"device_id",)"
                         R"("before":"1042","after":"1043"}]})"));
    // Another place, and what changes by itself.
    std::string moved = ReadFile("/tmp/after");
    const size_t speed = moved.find("\"link_speed\": 8000");
    moved.replace(speed, 18, "\"link_speed\": 2500");
    const size_t parent = moved.find("\"parent\": \"pci:0000:00:03.0\"");
    moved.replace(parent, 28, "\"parent\": \"pci:0000:00:04.0\"");
    WriteFile("/tmp/moved", moved);
    EXPECT_EQ(Ctl("inventory diff /tmp/after /tmp/moved").out,
              "pci:0000:01:00.0 changed: parent: pci:0000:00:03.0 -> pci:0000:00:04.0\n");
    EXPECT_EQ(Ctl("inventory diff /tmp/after /tmp/moved --ignore parent --volatile").out,
              "pci:0000:00:03.0 changed: link_speed: 8000 MT/s -> 2500 MT/s\n");
    // Notes of the same reason are a few lines.
    std::string noted = ReadFile("/tmp/after");
    std::string notes;
    for (const char place : std::string("abcde")) {
        notes += std::string("\"/mnt/") + place + ": Permission denied\", ";
    }
    noted.insert(noted.find("\"notes\": [") + 10, notes + "\"x: none\", ");
    WriteFile("/tmp/noted", noted);
    const std::string said = Ctl("inventory diff /tmp/noted /tmp/after").err;
    EXPECT_TRUE(Holds(
        said, {"note: /tmp/noted: /mnt/c: Permission denied\n", "/tmp/noted: x: none",
               "note: both: ", "note: /tmp/noted: 2 more: Permission denied; the document has"}));
    EXPECT_FALSE(Contains(said, "/mnt/d"));
    ASSERT_EQ(Ctl("inventory save /tmp/pci pci").code, 0);
    EXPECT_TRUE(Contains(Ctl("inventory diff /tmp/after /tmp/pci").err,
                         "these sections, which are not compared: drives\n"));
}

// What is not there, and why.
TEST_F(InventoryItems, NothingIsSaidToBeNothing) {
    EXPECT_TRUE(Shows("inventory usb", 0, {"nothing found\n"}));
    fs::remove_all("/sys/devices");
    ExpectAll("inventory ", {{"drives", 0, "nothing found\n", "note: /sys: not mounted: "}});
    EXPECT_FALSE(Contains(Ctl("inventory --json").out, "boot_mode"));
}

// Nothing of a serial number is left, also in ids, and equal ones stay equal.
TEST_F(InventoryItems, PrivateFieldsAreMasked) {
    MakeDrive("vdb", "SERIAL-0002");
    for (const char* const form : {"--long", "--json", "--xml", "--tree", ""}) {
        const std::string shown = Ctl(std::string("inventory --mask ") + form).out;
        EXPECT_FALSE(Contains(shown, "SERIAL-000")) << form;
    }
    ASSERT_EQ(Ctl("inventory save /tmp/masked drives --mask").code, 0);
    const std::string json = ReadFile("/tmp/masked");
    EXPECT_TRUE(InOrder(json, {"\"id\": \"drive:", "masked-1\"", "\"serial\": \"masked-1\"",
                               "masked-2\"", "\"serial\": \"masked-2\""}));
    EXPECT_FALSE(Contains(json, "SERIAL"));
}

// The same name with other signs, a part of it, a short one, the ports on the way to a drive.
TEST_F(InventoryItems, PrivateTextsAreFoundInOtherForms) {
    const std::pair<std::string, std::string> items[] = {
        // before, after
        {R"("kind":"kernel","id":"k","name":"k","host_name":"db1.example.org")",
         R"("host_name": "masked-1")"},
        {R"("kind":"volume","id":"volume:LVM-x","name":"db1-vg-root","volume_group":"db12")",
         R"("name": "masked-2-vg-root", "volume_group": "db12")"},
        {R"("kind":"interface","id":"i","name":"enx525400123456","mac":"52:54:00:12:34:56")",
         R"("name": "enxmasked-3", "mac": "masked-3")"},
        {R"("kind":"drive","id":"drive:0x5000c500a1b2c3d4","name":"sda","by_path":)"
         R"("/dev/disk/by-path/pci-0000:03:00.0-sas-exp0x500605b0000272bf-lun-0",)"
         R"("wwn":"naa.5000c500a1b2c3d4","serial":"00000001")",
         R"("id": "drive:0xmasked-5", "name": "sda", "by_path": )"
         R"("/dev/disk/by-path/pci-0000:03:00.0-sas-exp0xmasked-4-lun-0", "wwn": "masked-5")"},
        {R"("kind":"pci","id":"pci:0000:00:01.0","name":"0000:00:01.0")", "pci:0000:00:01.0"}};
    std::string json = R"({"format":"kemd inventory","version":1,"time":1,"sections":[],)"
                       R"("warnings":[],"notes":[],"items":[)";
    for (const auto& [before, after] : items)
        json += (json.ends_with('[') ? "{" : ",{") + before + "}";
    KemdInventory inventory;
    std::string fault;
    ASSERT_EQ(ParseInventory(json + "]}", inventory, fault), 0) << fault;
    MaskInventory(inventory);
    const std::string masked = InventoryJson(inventory);
    for (const auto& [before, after] : items) EXPECT_TRUE(Contains(masked, after)) << masked;
}

}  // namespace
