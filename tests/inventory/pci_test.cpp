// PCI functions of made trees of sysfs and /proc/bus/pci. The names of real ones are compared with
// those of other tools in pci_peers_test.cpp.
#include "inventory/id_names.h"
#include "inventory/pci_classes.h"
#include "inventory/pci_function.h"
#include "inventory/sources.h"
#include "tests/inventory/made_tree.h"
#include "tests/inventory/memory_world.h"

namespace {

constexpr const char* kRoot = "pci0000:00/0000:00:1c.0";
constexpr const char* kIds = "/usr/share/misc/pci.ids";

class PciTest : public testing::Test {
  protected:
    PciTest() {
        std::filesystem::remove_all("/sys/bus");
        std::filesystem::remove_all("/sys/devices");
        std::filesystem::remove_all("/proc/bus/pci");
        std::filesystem::remove(kIds);
    }
    // What the slot map is gathered from, once.
    static void SetUpTestSuite() { WriteFile("/dev/mem", ToText(FirmwareImage("pc"))); }
    static void Make(const std::string& path, const Attributes& attributes) {
        MakeDevice(path, "bus/pci/devices", attributes);
    }
    // A port or a card with a PCI Express link; "" for an attribute that is not there.
    static void MakeLinked(const std::string& path, const char* classCode, const char* speeds,
                           const char* widths) {
        const std::string speed = speeds;  // "8.0 of 16.0"
        const std::string width = widths;
        const size_t of = speed.find(" of ");
        const size_t ofWidth = width.find(" of ");
        Make(path, {{"uevent", std::string("PCI_CLASS=") + classCode + "\nPCI_ID=8086:1234"},
                    {"current_link_speed", speed.substr(0, of) + " GT/s PCIe"},
                    {"max_link_speed", speed.substr(of + 4) + " GT/s PCIe"},
                    {"current_link_width", width.substr(0, ofWidth)},
                    {"max_link_width", width.substr(ofWidth + 4)}});
    }
    std::string Scan(const std::string& id) {
        m_inventory = {};
        ScanPci(m_inventory);
        return FieldsOf(m_inventory, id);
    }
    // The parent, and all about the link, of what a new scan finds.
    std::string LinkOf(const std::string& id) {
        std::istringstream lines(Scan("pci:" + id));
        std::string text;
        for (std::string line; std::getline(lines, line);) {
            const bool isWanted =
                line.starts_with("parent=") || Contains(line, "_max") || Contains(line, "link_");
            if (isWanted) text += line + "|";
        }
        return text;
    }
    KemdInventory m_inventory;
};

}  // namespace

TEST_F(PciTest, AFunctionHasAllThatTheKernelAndPciIdsKnow) {
    WriteFile(kIds,
              "# list\n1002  Other\n\t1563  Wrong\n8086  Intel\n\t1563  X550  \n"
              "\t\t1028 1fa8  Quad port\n\t\t8086 0001  " +
                  std::string(3000, 'x') + "\nC 02  Network\n\t00  Ethernet\n\t\t00  Plain\n");
    const std::string path = std::string(kRoot) + "/0000:03:00.0";
    Make(path, {{"uevent",
                 "DRIVER=ixgbe\nPCI_CLASS=20000\nPCI_ID=8086:1563\nPCI_SUBSYS_ID=1028:1FA8\n"
                 "PCI_SLOT_NAME=0000:03:00.0\nMODALIAS=pci:v00008086d00001563"},
                {"revision", "0x01"},
                {"irq", "35"},
                {"numa_node", "-1"},
                {"enable", "2"},
                {"power_state", "D0"},
                {"label", "NIC 1\t"},
                {"sriov_totalvfs", "64"},
                {"sriov_numvfs", "2"},
                {"aer_dev_correctable", "RxErr 3\nBadTLP 4\nTOTAL_ERR_COR 7"},
                {"aer_dev_fatal", "Undefined 0\nTOTAL_ERR_FATAL 0"},
                {"resource",
                 "0x00000000fb000000 0x00000000fb3fffff 0x000000000014220c\n"
                 "0x0000000000000000 0x0000000000000000 0x0000000000000000\n"
                 "0x000000000000e020 0x000000000000e03f 0x0000000000040101\n"
                 "junk\n\n\n"
                 "0x00000000fb400000 0x00000000fb47ffff 0x0000000000046200\n"
                 "0x00000000f8000000 0x00000000f80fffff 0x000000000014220c"}});
    const std::string device = "/sys/devices/" + path;
    MakeLink("/sys/module/ixgbe", "/sys/bus/pci/drivers/ixgbe/module");
    MakeLink("/sys/bus/pci/drivers/ixgbe", device + "/driver");
    MakeLink("/sys/kernel/iommu_groups/17", device + "/iommu_group");
    MakeLink(device, "/sys/devices/" + std::string(kRoot) + "/0000:03:10.0/physfn");
    Make(std::string(kRoot) + "/0000:03:10.0", {{"class", "0x020000"},
                                                {"vendor", "0xffff"},
                                                {"device", "0x1565"},
                                                {"subsystem_vendor", "0x1028"},
                                                {"subsystem_device", "0x0000"}});
    WriteFile("/sys/bus/pci/slots/4-1/address", "0000:03:00\n");

    EXPECT_EQ(Scan("pci:0000:03:00.0"),
              "parent=pci:0000:00:1c.0\naddress=0000:03:00.0\nclass=Ethernet\nclass_id=0200\n"
              "vendor=Intel\nvendor_id=8086\ndevice=X550\ndevice_id=1563\n"
              "subsystem_vendor_id=1028\nsubsystem=Quad port\nsubsystem_id=1fa8\nrevision=01\n"
              "programming_interface=00\nprogramming_interface_name=Plain\nlabel=NIC 1\n"
              "physical_slot=4-1\ndriver=ixgbe\nmodule=ixgbe\nirq=35\niommu_group=17\nenabled=1\n"
              "power_state=D0\nbar=0: memory 64-bit prefetchable 0xfb000000 size 4194304\n"
              "bar=2: io 0xe020 size 32\nrom=memory 0xfb400000 size 524288\n"
              "virtual_function_bar=0: memory 64-bit prefetchable 0xf8000000 size 1048576\n"
              "virtual_functions=2\nvirtual_functions_max=64\ncorrectable_errors=7\n"
              "fatal_errors=0\n");
    EXPECT_EQ(FieldsOf(m_inventory, "pci:0000:03:10.0"),
              "parent=pci:0000:00:1c.0\naddress=0000:03:10.0\nclass=Ethernet\nclass_id=0200\n"
              "vendor_id=ffff\ndevice_id=1565\nsubsystem_vendor_id=1028\nsubsystem_id=0000\n"
              "programming_interface=00\nprogramming_interface_name=Plain\n"
              "physical_function=pci:0000:03:00.0\n");
    EXPECT_EQ(m_inventory.notes.size(), 0U) << testing::PrintToString(m_inventory.notes);
}

TEST_F(PciTest, LinksAreHeldAgainstThePortAbove) {
    constexpr const char* kBridge = "60400";
    const std::string port = std::string("pci0000:00/0000:00:01.0");
    const std::string up = port + "/0000:01:00.0";
    const std::string down = up + "/0000:02:08.0";
    MakeLinked(port, kBridge, "8.0 of 16.0", "4 of 8");
    MakeLinked(up, kBridge, "8.0 of 8", "4 of 16");
    // The port of a switch inside: its link is the one below it.
    MakeLinked(down, kBridge, "2.5 of 8.0", "1 of 4");
    MakeLinked(down + "/0000:03:00.0", "30000", "2.5 of 16.0", "4 of 4");
    MakeLinked(down + "/0000:03:00.1", "40300", "2.5 of 16.0", "4 of 4");
    MakeLinked("pci0001:00/0001:00:00.0", "10802", "Unknown of 16.0", "0 of 4");
    // A card without its port, in a virtual machine.
    MakeLinked("pci0001:00/0001:00:01.0", "10802", "8.0 of 16.0", "4 of 8");
    Make("pci0000:00/0000:00:0e.0/pci10000:e0/10000:e0:06.0",
         {{"uevent", "PCI_CLASS=60400\nPCI_ID=8086:1"}});

    EXPECT_EQ(LinkOf("0000:00:01.0"),
              "link_speed=8000|link_speed_max=16000|link_width=4|link_width_max=8|");
    EXPECT_EQ(LinkOf("0000:01:00.0"),
              "parent=pci:0000:00:01.0|link_speed=8000|link_speed_max=8000|link_width=4|"
              "link_width_max=16|port_speed_max=16000|port_width_max=8|link_limited=width|"
              "link_degraded=width|");
    EXPECT_EQ(LinkOf("0000:02:08.0"),
              "parent=pci:0000:01:00.0|link_speed=2500|link_speed_max=8000|link_width=1|"
              "link_width_max=4|");
    EXPECT_EQ(LinkOf("0000:03:00.0"),
              "parent=pci:0000:02:08.0|link_speed=2500|link_speed_max=16000|link_width=4|"
              "link_width_max=4|port_speed_max=8000|port_width_max=4|link_limited=speed|"
              "link_degraded=speed|");
    EXPECT_FALSE(Contains(LinkOf("0000:03:00.1"), "link_degraded"));
    EXPECT_EQ(LinkOf("0001:00:00.0"), "link_speed_max=16000|link_width_max=4|");
    EXPECT_EQ(LinkOf("0001:00:01.0"),
              "link_speed=8000|link_speed_max=16000|link_width=4|link_width_max=8|"
              "link_degraded=width|");
    EXPECT_EQ(LinkOf("10000:e0:06.0"), "parent=pci:0000:00:0e.0|");
}

TEST_F(PciTest, WhatVanishesOrLacksAttributesDoesNotStopTheScan) {
    for (unsigned i = 0; i < 300; ++i) {
        const PciAddress address{0, static_cast<uint8_t>(i / 32), static_cast<uint8_t>(i % 32), 0};
        Make("pci0000:00/" + address.Text(), {{"uevent", "PCI_CLASS=FF0000\nPCI_ID=10DE:1"}});
    }
    std::filesystem::remove_all("/sys/devices/pci0000:00/0000:00:05.0");
    std::filesystem::remove("/sys/devices/pci0000:00/0000:00:06.0/uevent");
    Make("pci0000:00/not-an-address", {{"uevent", "PCI_CLASS=1\nPCI_ID=1:1"}});
    EXPECT_EQ(Scan("pci:0000:00:07.0"),
              "address=0000:00:07.0\nclass=Unassigned class\nclass_id=ff00\nvendor_id=10de\n"
              "device_id=0001\nprogramming_interface=00\n");
    EXPECT_EQ(m_inventory.items.size(), 298U);
    EXPECT_EQ(m_inventory.notes,
              std::vector<std::string>{std::string(kIds) +
                                       ": not installed, names of devices are missing"});
}

TEST_F(PciTest, WithoutSysfsProcHasConfigurationSpacesAndOneLineEach) {
    std::string bridge(256, '\0');
    const auto put = [](std::string& config, size_t at, const std::string& bytes) {
        config.replace(at, bytes.size(), bytes);
    };
    put(bridge, 0, std::string("\x86\x80\x00\x34\x00\x00\x10\x00\x02\x00\x04\x06", 12));
    put(bridge, 0x0E, "\x81");
    put(bridge, 0x19, "\x03");
    put(bridge, 0x34, "\x40");
    put(bridge, 0x40, std::string("\x0D\x50\x00\x00\x28\x10\x11\x22", 8));
    // PCI Express: x4 at 5 GT/s of x8 at 8 GT/s; the chain ends in a circle.
    put(bridge, 0x50, std::string("\x10\x40\x42\x01\0\0\0\0\0\0\0\0\x83\0\0\0\0\0\x42\0", 20));
    std::string card(64, '\0');
    put(card, 0, std::string("\xE4\x14\x57\x16\x00\x00\x00\x00\x01\x00\x00\x02", 12));
    put(card, 0x2C, std::string("\x28\x10\xF4\x02", 4));
    for (const char* const bus : {"00", "0001:00"}) {
        WriteFile(std::string("/proc/bus/pci/") + bus + "/1c.0", bridge);
    }
    WriteFile("/proc/bus/pci/03/00.0", card);
    WriteFile("/proc/bus/pci/03/00.1", "too short");
    const std::string zero = "\t               0";
    std::string bases;
    for (int i = 0; i < 5; ++i) bases += zero;
    WriteFile("/proc/bus/pci/devices",
              "00e0\t80863400\t1d" + zero + zero + bases + zero + zero + bases + "\tpcieport\n" +
                  "0300\t14e41657\t23\t        d000000c\t            e001" + bases +
                  "\t           10000\t             100" + bases + "\ttg3\nbroken line\n");
    EXPECT_EQ(Scan("pci:0000:03:00.0"),
              "parent=pci:0000:00:1c.0\naddress=0000:03:00.0\nclass=Ethernet controller\n"
              "class_id=0200\nvendor_id=14e4\ndevice_id=1657\nsubsystem_vendor_id=1028\n"
              "subsystem_id=02f4\nrevision=01\nprogramming_interface=00\ndriver=tg3\nirq=35\n"
              "bar=0: memory 64-bit prefetchable 0xd0000000 size 65536\n"
              "bar=1: io 0xe000 size 256\n");
    EXPECT_EQ(FieldsOf(m_inventory, "pci:0000:00:1c.0"),
              "address=0000:00:1c.0\nclass=PCI bridge\nclass_id=0604\nvendor_id=8086\n"
              "device_id=3400\nsubsystem_vendor_id=1028\nsubsystem_id=2211\nrevision=02\n"
              "programming_interface=00\ndriver=pcieport\nirq=29\nlink_speed=5000\n"
              "link_speed_max=8000\nlink_width=4\nlink_width_max=8\n");
    EXPECT_EQ(m_inventory.items.size(), 3U);
}

TEST_F(PciTest, WhatIsBelowTheBridgeOfASlotIsInTheSlot) {
    const Attributes card = {{"uevent", "PCI_CLASS=20000\nPCI_ID=1:1"}};
    const Attributes bridge = {{"uevent", "PCI_CLASS=60400\nPCI_ID=1:1"}};
    Make("pci0000:00/0000:00:03.0", bridge);
    Make("pci0000:00/0000:00:03.0/0000:05:00.0", bridge);
    Make("pci0000:00/0000:00:03.0/0000:05:00.0/0000:06:1f.3", card);
    Make("pci0000:00/0000:00:08.0", card);
    Make("pci0001:00/0001:00:03.0", card);
    WriteFile("/sys/bus/pci/slots/7/address", "0000:06\n");
    EXPECT_TRUE(Contains(Scan("pci:0000:06:1f.3"), "slot=2\nphysical_slot=7\n"));
    for (const char* const id : {"pci:0000:00:08.0", "pci:0001:00:03.0"}) {
        EXPECT_FALSE(Contains(FieldsOf(m_inventory, id), "slot=")) << id;
    }
}

TEST_F(PciTest, ADeviceOnBoardIsInNoSlot) {
    // A parallel slot, one with a bus of its own, and devices on board, by both sources.
    const CPciSlotMap::Slots smbios = {{0, 5, 1, 6}, {3, 0, 4, 0xA5}, {0, 6, 7, 0}, {3, 1, 2, 0}};
    const CPciSlotMap::Slots routing = {{0, 5, 1, 0}, {0, 6, 0, 0}};
    const struct {
        const CPciSlotMap::Slots& slots;
        PciSlotSource source;
        PciAddress address;
        bool isBelowBridge;
        unsigned expected;
    } cases[] = {
        {smbios, PciSlotSource::kSmbios, {0, 0, 5, 1}, false, 1},
        {smbios, PciSlotSource::kSmbios, {0, 0, 6, 0}, false, 0},
        {smbios, PciSlotSource::kSmbios, {0, 3, 1, 0}, true, 4},
        {smbios, PciSlotSource::kSmbios, {0, 3, 1, 0}, false, 0},
        {smbios, PciSlotSource::kSmbios, {1, 0, 5, 0}, false, 0},
        {routing, PciSlotSource::kIrqRoutingTable, {0, 0, 5, 0}, false, 1},
        {routing, PciSlotSource::kIrqRoutingTable, {0, 0, 6, 0}, false, 0},
    };
    for (const auto& [slots, source, address, isBelowBridge, expected] : cases) {
        EXPECT_EQ(PciSlotNumber(slots, source, address, isBelowBridge), expected) << address.Text();
    }
    (void)Scan("");
    EXPECT_EQ(m_inventory.notes,
              std::vector<std::string>{
                  "/sys/bus/pci: not there, nor is /proc/bus/pci: no PCI functions"});
}
