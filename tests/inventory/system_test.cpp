// The system's items: lies of the firmware, and trees of machines that are not this one.
#include <sys/mount.h>
#include <sys/stat.h>

#include <set>

#include "inventory/bios_tables.h"
#include "inventory/host_inventory.h"
#include "inventory/smbios_items.h"
#include "inventory/sources.h"
#include "inventory/system_items.h"
#include "tests/inventory/memory_world.h"
#include "tests/inventory/smbios_builder.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kCpus = "/sys/devices/system/cpu/";

// All values of a field, with ", " between them.
std::string All(const KemdInventoryItem* item, InventoryField field) {
    std::string all;
    if (item == nullptr) return "no item";
    for (const auto& value : item->values) {
        if (value.field == field) all += (all.empty() ? "" : ", ") + value.text;
    }
    return all;
}

// "NAME=value ..." of the fields that are asked for.
std::string Fields(const KemdInventory& inventory, std::string_view id,
                   std::initializer_list<InventoryField> fields) {
    std::string text;
    for (const InventoryField field : fields) {
        text += (text.empty() ? "" : " ") + std::string(field.Info().name) + "=" +
                All(inventory.Find(id), field);
    }
    return text;
}

struct Items {
    explicit Items(SmbiosData data) {
        (void)smbios.Connect(std::move(data));
        SmbiosItems items(inventory, smbios);
        items.AddSystem();
        items.AddMemory();
        items.AddSlots();
    }
    explicit Items(const SmbiosBuilder& builder) : Items(builder.Data({3, 5})) {}
    CSMBios smbios;
    KemdInventory inventory;
};

// Ids are unique, parents are there and of another kind.
void ExpectSound(const KemdInventory& inventory) {
    std::set<std::string> ids;
    for (const KemdInventoryItem& item : inventory.items) {
        EXPECT_TRUE(ids.insert(item.id).second) << item.id;
        EXPECT_FALSE(item.name.empty()) << item.id;
        if (item.parent.empty()) continue;
        const KemdInventoryItem* const parent = inventory.Find(item.parent);
        EXPECT_TRUE(parent != nullptr && parent->kind != item.kind) << item.id;
    }
}

std::vector<uint8_t> Formatted(size_t length,
                               const std::vector<std::pair<size_t, uint8_t>>& bytes) {
    std::vector<uint8_t> formatted(length - 4);
    for (const auto& [offset, byte] : bytes) formatted.at(offset - 4) = byte;
    return formatted;
}

TEST(SmbiosItems, StructuresAreLinkedByHandlesOfTheRightKind) {
    SmbiosBuilder tables;
    const uint16_t cache = tables.Add(7, Formatted(0x13, {{4, 1}, {5, 0x80}, {9, 32}}), {"L1"});
    const auto low = static_cast<uint8_t>(cache);
    // A cache of its own, one that another processor has too, none, and a processor in its place.
    tables.Add(
        4,
        Formatted(0x30, {{4, 1}, {0x18, 0x41}, {0x1A, low}, {0x1C, 2}, {0x1E, 0xFF}, {0x1F, 0xFF}}),
        {"CPU"});
    tables.Add(4, Formatted(0x30, {{4, 1}, {0x18, 0}, {0x1A, 0x77}, {0x1C, 0xFF}, {0x1E, 3}}),
               {"CPU"});
    // An array that claims to be in itself, and a module of it, of nothing, and of a processor.
    const uint16_t array = tables.Add(16, Formatted(0x17, {{4, 3}, {5, 3}, {0x0D, 3}}));
    for (const uint16_t handle : {array, uint16_t{0x4242}, uint16_t{2}}) {
        tables.Add(17,
                   Formatted(0x28, {{4, uint8_t(handle)},
                                    {5, uint8_t(handle >> 8)},
                                    {0x0D, 0x40},
                                    {0x10, 1},
                                    {0x11, 2}}),
                   {"DIMM 0", "P0 CHANNEL " + std::string(1, char('A' + handle % 4))});
    }
    const Items items(tables);
    ExpectSound(items.inventory);
    EXPECT_EQ(All(items.inventory.Find("processor:CPU"), "caches"), "cache:L1");
    EXPECT_EQ(items.inventory.Find("cache:L1")->parent, "processor:CPU");
    EXPECT_EQ(Fields(items.inventory, "processor:CPU#2", {"caches", "populated", "status"}),
              "caches= populated=0 status=");
    EXPECT_EQ(items.inventory.Find("memory_module:P0 CHANNEL A/DIMM 0")->parent, "memory_array:1");
    EXPECT_EQ(items.inventory.Find("memory_module:P0 CHANNEL C/DIMM 0")->parent, "");
    EXPECT_EQ(All(items.inventory.Find("memory_module:P0 CHANNEL C/DIMM 0"), "channel"), "2");
}

TEST(SmbiosItems, SizesAndSpeedsBeyondTheirFieldsAreRead) {
    struct Case {
        std::vector<std::pair<size_t, uint8_t>> bytes;
        const char* expected;
    };
    const Case cases[] = {
        {{{0x0C, 0}}, "populated=0 size= rated_speed="},
        {{{0x0C, 0xFF}, {0x0D, 0xFF}}, "populated=1 size= rated_speed="},
        {{{0x0D, 0x80}, {0x0C, 0x40}, {0x15, 0x64}}, "populated=1 size=65536 rated_speed=100"},
        {{{0x0C, 0xFF}, {0x0D, 0x7F}, {0x1E, 0x02}}, "populated=1 size=137438953472 rated_speed="},
        {{{0x0D, 0x40}, {0x15, 0xFF}, {0x16, 0xFF}, {0x56, 0x01}},
         "populated=1 size=17179869184 rated_speed=65536"},
    };
    for (const Case& each : cases) {
        SmbiosBuilder tables;
        tables.Add(17, Formatted(0x5C, each.bytes));
        EXPECT_EQ(Fields(Items(tables).inventory, "memory_module:1",
                         {"populated", "size", "rated_speed"}),
                  each.expected);
    }
}

TEST(SmbiosItems, UuidsAndSecretsAreTreatedWithCare) {
    const std::vector<uint8_t> uuid = Formatted(
        0x19,
        {{4, 1}, {8, 1}, {9, 2}, {10, 3}, {11, 4}, {12, 5}, {13, 6}, {14, 7}, {15, 8}, {23, 16}});
    for (const auto& [revision, expected] :
         {std::pair{SmbiosRevision{2, 5}, "01020304-0506-0708-0000-000000000010"},
          {SmbiosRevision{2, 6}, "04030201-0605-0807-0000-000000000010"}}) {
        SmbiosBuilder tables;
        tables.Add(1, uuid, {"maker"});
        tables.Add(11, {3}, {"plain", "io.systemd.credential:door=1234", "last"});
        const Items items(tables.Data(revision));
        EXPECT_EQ(Fields(items.inventory, "system:host", {"uuid", "oem_strings"}),
                  std::string("uuid=") + expected +
                      " oem_strings=plain, io.systemd.credential:door, last");
    }
    SmbiosBuilder tables;
    tables.Add(1, std::vector<uint8_t>(0x15, 0xFF));
    EXPECT_EQ(All(Items(tables).inventory.Find("system:host"), "uuid"), "");
}

TEST(SmbiosItems, AbsurdlyManyStructuresAreCut) {
    SmbiosBuilder tables;
    for (unsigned i = 0; i < 3000; ++i) tables.Add(8, {1, 0, 0, 0, 0}, {"J"});
    const Items items(tables);
    ExpectSound(items.inventory);
    EXPECT_EQ(items.inventory.items.size(), 1024U);
    EXPECT_EQ(items.inventory.items.back().id, "connector:J#1024");
    EXPECT_EQ(items.inventory.notes,
              std::vector<std::string>{
                  "SMBIOS tables: 3000 structures of type 8: the first 1024 are used"});
}

// Every type at every length, and a real table cut at each byte.
TEST(SmbiosItems, CutStructuresGiveWhatTheyHave) {
    for (size_t length = 4; length < 0x60; ++length) {
        SmbiosBuilder tables;
        for (unsigned type = 0; type < 48; ++type) {
            tables.Add(uint8_t(type), std::vector<uint8_t>(length - 4, uint8_t(length * 7)),
                       {"a", "b"});
        }
        ExpectSound(Items(tables).inventory);
    }
    const Bytes memory = FirmwareImage("pc");
    for (size_t size = 0; size < 0x1B6; ++size) {
        SmbiosBuilder tables(
            Bytes(memory.begin() + 0xF59D0, memory.begin() + std::ptrdiff_t(0xF59D0 + size)));
        ExpectSound(Items(tables).inventory);
    }
}

TEST(SmbiosItems, SlotsGetAddressesOfTheRoutingTable) {
    SmbiosBuilder tables;
    tables.Add(9, Formatted(0x11, {{4, 1}, {5, 6}, {7, 4}, {9, 1}, {0x0F, 0xFF}, {0x10, 0xFF}}),
               {"PCI1"});
    tables.Add(9, Formatted(0x11, {{4, 1}, {5, 6}, {9, 9}, {0x0F, 2}, {0x10, 0x1A}}), {"PCI2"});
    Items items(tables);
    JoinSlotMap(items.inventory, {{0, 1, 0, 0}, {0, 5, 1, 0}, {2, 3, 2, 0}, {0, 7, 4, 6}},
                PciSlotSource::kIrqRoutingTable);
    ExpectSound(items.inventory);
    EXPECT_EQ(items.inventory.items.size(), 3U);
    EXPECT_EQ(Fields(items.inventory, "slot:PCI1", {"bus_address", "number", "usage", "type"}),
              "bus_address=0000:00:05.0 number=1 usage=In Use type=PCI");
    EXPECT_EQ(Fields(items.inventory, "slot:PCI2", {"bus_address", "number"}),
              "bus_address=0000:02:03.2 number=9");
    EXPECT_EQ(Fields(items.inventory, "slot:4", {"bus_address", "number", "type"}),
              "bus_address=0000:00:07.0 number=4 type=PCI");
}

class SystemTree : public testing::Test {
  protected:
    void SetUp() override {
        for (const char* path : {"/sys/devices", "/sys/class", "/sys/firmware", "/sys/hypervisor",
                                 "/run/systemd", "/run/udev"}) {
            fs::remove_all(path);
        }
    }
    void TearDown() override { (void)umount("/proc/cpuinfo"); }

    struct Cpu {
        unsigned package;
        unsigned core;
        unsigned cores;
    };
    // More than a line reader's line, with the flag that matters at its end.
    static void WriteCpuInfo(const std::vector<Cpu>& cpus) {
        std::string flags = "fpu cx16 lahf_lm popcnt pni sse4_1 sse4_2 ssse3";
        for (unsigned i = 0; i < 300; ++i) flags += " flag" + std::to_string(i);
        std::string text;
        for (size_t i = 0; i < cpus.size(); ++i) {
            text +=
                "processor\t: " + std::to_string(i) +
                "\nvendor_id\t: GenuineIntel\ncpu family\t: 6\nmodel\t\t: 143\nmodel name\t: Big CPU\nstepping\t: 8\nmicrocode\t: 0x" +
                (i == 5 ? "2b" : "2a") + "\nphysical id\t: " + std::to_string(cpus[i].package) +
                "\ncore id\t\t: " + std::to_string(cpus[i].core) +
                "\ncpu cores\t: " + std::to_string(cpus[i].cores) + "\nflags\t\t: " + flags +
                " vmx\npower management:\n\n";
        }
        Bind(text);
    }
    static void Bind(const std::string& cpuInfo) {
        WriteFile("/tmp/cpuinfo", cpuInfo);
        ASSERT_EQ(mount("/tmp/cpuinfo", "/proc/cpuinfo", nullptr, MS_BIND, nullptr), 0) << errno;
    }
    static void WriteCache(unsigned cpu, const std::string& index, const std::string& level,
                           const std::string& type, const std::string& size,
                           const std::string& shared) {
        const std::string path = kCpus + ("cpu" + std::to_string(cpu)) + "/cache/" + index + "/";
        WriteFile(path + "level", level + "\n");
        WriteFile(path + "type", type + "\n");
        WriteFile(path + "size", size + "\n");
        WriteFile(path + "shared_cpu_list", shared + "\n");
    }
    static KemdInventory Scan(uint32_t sections = KEMD_INVENTORY_SYSTEM) {
        KemdInventory inventory;
        ScanSystem(inventory, sections);
        return inventory;
    }
    static constexpr std::initializer_list<InventoryField> kCpuFields = {
        "sockets",      "cores",    "threads",      "l1d_cache", "l1d_instances",
        "l2_instances", "l3_cache", "l3_instances", "max_speed", "core_type"};
};

// Only the first processor of each L3 cache is in the tree: nothing else may be asked.
TEST_F(SystemTree, TwoSocketsWith256Threads) {
    std::vector<Cpu> cpus;
    for (unsigned i = 0; i < 256; ++i) cpus.push_back({i / 64 % 2, i % 64, 64});
    WriteCpuInfo(cpus);
    for (unsigned cpu = 0; cpu < 128; cpu += 8) {
        const auto range = [](unsigned first, unsigned count) {
            return std::to_string(first) + "-" + std::to_string(first + count - 1);
        };
        if (cpu == 0) {
            WriteCache(cpu, "index0", "1", "Data", "48K", "0,128");
            WriteCache(cpu, "index2", "2", "Unified", "2048K", "0,128");
        }
        WriteCache(cpu, "index3", "3", "Unified", "32M", range(cpu, 8) + "," + range(cpu + 128, 8));
    }
    const KemdInventory inventory = Scan();
    EXPECT_EQ(
        Fields(inventory, "cpu:0", kCpuFields),
        "sockets=2 cores=128 threads=256 l1d_cache=6291456 l1d_instances=128 l2_instances=128 l3_cache=536870912 l3_instances=16 max_speed= core_type=");
    EXPECT_EQ(Fields(inventory, "cpu:0", {"model", "microcode", "virtualization", "feature_level"}),
              "model=Big CPU microcode=0x2a, 0x2b virtualization=VT-x feature_level=x86-64-v2");
    EXPECT_EQ(inventory.Find("cpu:1"), nullptr);
}

TEST_F(SystemTree, HybridProcessors) {
    std::vector<Cpu> cpus;
    for (unsigned i = 0; i < 8; ++i) cpus.push_back({0, i / 2 * 4, 12});
    for (unsigned i = 0; i < 8; ++i) cpus.push_back({0, 16 + i, 12});
    WriteCpuInfo(cpus);
    WriteFile("/sys/devices/cpu_core/cpus", "0-7\n");
    WriteFile("/sys/devices/cpu_atom/cpus", "8-15\n");
    WriteCache(0, "index0", "1", "Data", "48K", "0-1");
    WriteCache(0, "index2", "2", "Unified", "1280K", "0-1");
    WriteCache(0, "index3", "3", "Unified", "24576K", "0-15");
    for (const unsigned first : {8U, 12U}) {
        WriteCache(first, "index0", "1", "Data", "32K", std::to_string(first));
        WriteCache(first, "index2", "2", "Unified", "2M",
                   std::to_string(first) + "-" + std::to_string(first + 3));
        WriteCache(first, "index3", "3", "Unified", "24576K", "0-15");
    }
    for (const auto& [cpu, speed] : {std::pair{0, "4900000"}, {2, "5100000"}, {8, "3800000"}}) {
        WriteFile(kCpus + ("cpufreq/policy" + std::to_string(cpu)) + "/cpuinfo_max_freq", speed);
    }
    const KemdInventory inventory = Scan();
    EXPECT_EQ(
        Fields(inventory, "cpu:0", kCpuFields),
        "sockets=1 cores=4 threads=8 l1d_cache=196608 l1d_instances=4 l2_instances=4 l3_cache=25165824 l3_instances=1 max_speed=5100 core_type=performance");
    EXPECT_EQ(
        Fields(inventory, "cpu:1", kCpuFields),
        "sockets=1 cores=8 threads=8 l1d_cache=262144 l1d_instances=8 l2_instances=2 l3_cache=25165824 l3_instances=1 max_speed=3800 core_type=efficiency");
}

TEST_F(SystemTree, NodesListsAndStates) {
    Bind("processor\t: 0\nvendor_id\t: Old\nmodel name\t: Single");  // neither topology nor end
    const std::string nodes = "/sys/devices/system/node/";
    WriteFile(nodes + "node0/cpulist", "0-63\n");
    WriteFile(nodes + "node0/meminfo", "Node 0 MemTotal:       1024 kB\nNode 0 MemFree: 1 kB\n");
    WriteFile(nodes + "node0/distance", "10 21\n");
    WriteFile(nodes + "node1/cpulist", "\n");
    WriteFile(nodes + "node1/meminfo", "Node 1 MemTotal:          0 kB\n");
    WriteFile(nodes + "nodes/other", "");
    WriteFile(kCpus + std::string("online"), "0-62\n");
    WriteFile(kCpus + std::string("offline"), "63\n");
    WriteFile(kCpus + std::string("vulnerabilities/meltdown"), "Mitigation: PTI\n");
    WriteFile(kCpus + std::string("vulnerabilities/l1tf"), "Vulnerable\n");
    WriteFile("/sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c",
              std::string("\6\0\0\0\1", 5));
    WriteFile("/sys/class/tpm/tpm0/tpm_version_major", "2\n");
    const KemdInventory inventory = Scan();
    EXPECT_EQ(Fields(inventory, "numa_node:0", {"cpus", "memory", "distances"}),
              "cpus=0-63 memory=1048576 distances=10, 21");
    EXPECT_EQ(Fields(inventory, "numa_node:1", {"cpus", "memory"}), "cpus= memory=0");
    EXPECT_EQ(
        Fields(inventory, "kernel:running",
               {"cpus_online", "cpus_offline", "boot_mode", "secure_boot", "vulnerabilities"}),
        "cpus_online=0-62 cpus_offline=63 boot_mode=UEFI secure_boot=1 vulnerabilities=l1tf: Vulnerable, meltdown: Mitigation: PTI");
    EXPECT_EQ(Fields(inventory, "cpu:0", {"model", "sockets", "cores", "threads"}),
              "model=Single sockets=1 cores=1 threads=1");
    EXPECT_EQ(Fields(inventory, "tpm:tpm0", {"version", "device"}), "version=2.0 device=tpm0");
}

// What everybody may read has the fields of the tables; udev's database has the memory.
TEST_F(SystemTree, WithoutTheTables) {
    EXPECT_EQ(Scan().notes, std::vector<std::string>{"SMBIOS tables: the firmware has none"});
    const std::string id = "/sys/class/dmi/id/";
    for (const auto& [file, text] : {std::pair{"bios_vendor", "Maker"},
                                     {"sys_vendor", "Builder"},
                                     {"product_name", "Model 7"},
                                     {"product_serial", "S1"},
                                     {"chassis_type", "23"},
                                     {"board_name", "Board"}}) {
        WriteFile(id + file, text);
    }
    chmod((id + "product_serial").c_str(), 0);
    for (const char* path : {kSmbiosEntryFile, kSmbiosTableFile}) {
        WriteFile(path, "_SM3_");
        chmod(path, 0);
    }
    WriteFile(
        "/run/udev/data/+dmi:id",
        "E:MEMORY_ARRAY_NUM_DEVICES=2\nE:MEMORY_DEVICE_0_SIZE=17179869184\nE:MEMORY_DEVICE_0_LOCATOR=A1\nE:MEMORY_DEVICE_0_CONFIGURED_SPEED_MTS=3200\n"
        "E:MEMORY_DEVICE_1_PRESENT=0\nE:MEMORY_DEVICE_1_LOCATOR=A2\n");
    const KemdInventory inventory = Scan(KEMD_INVENTORY_SYSTEM | KEMD_INVENTORY_MEMORY);
    EXPECT_EQ(inventory.notes,
              std::vector<std::string>{
                  "SMBIOS tables: only root may read them; the rest needs a scan as root"});
    EXPECT_EQ(Fields(inventory, "system:host", {"vendor", "model", "serial"}),
              "vendor=Builder model=Model 7 serial=");
    EXPECT_EQ(All(inventory.Find("chassis:1"), "type"), "Rack Mount Chassis");
    EXPECT_EQ(inventory.Find("board:1")->name, "Board");
    EXPECT_EQ(Fields(inventory, "memory_module:A1", {"size", "configured_speed", "populated"}),
              "size=17179869184 configured_speed=3200 populated=1");
    EXPECT_EQ(Fields(inventory, "memory_module:A2", {"size", "populated"}), "size= populated=0");
}

TEST_F(SystemTree, MachinesAndContainersAreTold) {
    struct Case {
        const char* vendor;
        const char* model;
        const char* signature;
        const char* expected;
    };
    static constexpr Case kCases[] = {
        {"Maker", "Server", "", "none"},
        {"Maker", "Server", "KVMKVMKVM", "kvm"},
        {"QEMU", "Standard PC", "TCGTCGTCGTCG", "qemu"},
        {"QEMU", "Standard PC", "", "qemu"},
        {"innotek GmbH", "VirtualBox", "KVMKVMKVM", "oracle"},
        {"Amazon EC2", "m5.large", "KVMKVMKVM", "amazon"},
        {"Amazon EC2", "m5.metal", "", "none"},
        {"Maker", "Server", "SomethingNew", "vm-other"},
    };
    for (const Case& each : kCases) {
        KemdInventory inventory;
        KemdInventoryItem& item = inventory.Add(ItemKind::kSystem, "system:host", "x");
        item.Add("vendor", each.vendor);
        item.Add("model", each.model);
        EXPECT_EQ(DetectMachine(inventory, each.signature), each.expected)
            << each.vendor << each.signature;
    }
    EXPECT_EQ(DetectContainer(), "");
    WriteFile("/.dockerenv", "");
    EXPECT_EQ(DetectContainer(), "docker");
    for (const auto& [text, expected] : {std::pair{"systemd-nspawn\n", "systemd-nspawn"},
                                         {"oci", "docker"},
                                         {"mine", "container-other"}}) {
        WriteFile("/run/systemd/container", text);
        EXPECT_EQ(DetectContainer(), expected);
    }
    fs::remove("/.dockerenv");
}

}  // namespace
