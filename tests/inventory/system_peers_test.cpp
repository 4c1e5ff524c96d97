// SMBIOS beside dmidecode, processors beside lscpu, the system beside lshw and systemd-detect-virt.
#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <regex>
#include <set>

#include "base/text.h"
#include "inventory/bios_tables.h"
#include "inventory/host_inventory.h"
#include "inventory/smbios_items.h"
#include "inventory/sources.h"
#include "tests/inventory/memory_world.h"
#include "tests/inventory/peers.h"
#include "tests/inventory/smbios_builder.h"

namespace {

// What dmidecode prints of one structure; values of a list with "|" between them.
struct DmiRecord {
    int type = 0;
    std::map<std::string, std::string> values;
};

std::vector<DmiRecord> DmiRecords(const std::string& arguments) {
    std::istringstream lines(PeerText("dmidecode " + arguments));
    std::vector<DmiRecord> records;
    std::string key;
    for (std::string line; std::getline(lines, line);) {
        const size_t type = line.find("DMI type ");
        if (line.starts_with("Handle ") && type != line.npos) {
            records.push_back({std::stoi(line.substr(type + 9)), {}});
        } else if (line.starts_with("\t\t") && !records.empty()) {
            std::string& value = records.back().values[key];
            value += (value.empty() ? "" : "|") + std::string(Trim(line));
        } else if (line.starts_with('\t') && !records.empty()) {
            const size_t colon = line.find(':');
            key = line.substr(1, colon - 1);
            if (colon != line.npos) {
                records.back().values[key] = Trim(std::string_view(line).substr(colon + 1));
            }
        }
    }
    return records;
}

// Fields by dmidecode's names and ours.
struct Table {
    int type;
    ItemKind kind;
    const char* fields;
};
constexpr Table kTables[] = {
    {0, ItemKind::kFirmware,
     "Vendor=vendor|Version=version|Release Date=date|ROM Size=rom_size|BIOS Revision=release|"
     "Firmware Revision=controller_release|Characteristics=characteristics"},
    {1, ItemKind::kSystem,
     "Manufacturer=vendor|Product Name=model|Version=version|Serial Number=serial|UUID=uuid|"
     "Wake-up Type=wake_up|SKU Number=sku|Family=family"},
    {2, ItemKind::kBoard,
     "Manufacturer=vendor|Product Name=model|Version=version|Serial Number=serial|"
     "Asset Tag=asset_tag|Features=characteristics|Location In Chassis=location|Type=type"},
    {3, ItemKind::kChassis,
     "Manufacturer=vendor|Type=type|Lock=locked|Version=version|Serial Number=serial|"
     "Asset Tag=asset_tag|Boot-up State=boot_up_state|Power Supply State=power_supply_state|"
     "Thermal State=thermal_state|Security Status=security|Height=height|"
     "Number Of Power Cords=power_cords|SKU Number=sku"},
    {4, ItemKind::kProcessor,
     "Type=type|Manufacturer=vendor|Version=model|Voltage=voltage|External Clock=bus_clock|"
     "Max Speed=max_speed|Current Speed=current_speed|Status=status|Upgrade=socket_type|"
     "Serial Number=serial|Asset Tag=asset_tag|Part Number=part_number|Core Count=cores|"
     "Core Enabled=cores_enabled|Thread Count=threads|Characteristics=characteristics"},
    {7, ItemKind::kCache,
     "Location=location|Operational Mode=mode|Installed Size=size|Maximum Size=size_max|"
     "Error Correction Type=error_correction|System Type=type|Associativity=associativity"},
    {8, ItemKind::kConnector,
     "Internal Reference Designator=internal_name|Internal Connector Type=internal_connector|"
     "External Reference Designator=external_name|External Connector Type=external_connector|"
     "Port Type=type"},
    {9, ItemKind::kSlot,
     "Type=type|Current Usage=usage|Length=length|ID=number|Bus Address=bus_address|"
     "Characteristics=characteristics"},
    {16, ItemKind::kMemoryArray,
     "Location=location|Use=use|Error Correction Type=error_correction|"
     "Maximum Capacity=size_max|Number Of Devices=devices"},
    {17, ItemKind::kMemoryModule,
     "Total Width=total_width|Data Width=data_width|Size=size|Form Factor=form_factor|"
     "Locator=location|Bank Locator=bank|Type=type|Type Detail=type_detail|Speed=rated_speed|"
     "Manufacturer=vendor|Serial Number=serial|Asset Tag=asset_tag|Part Number=part_number|"
     "Rank=rank|Configured Memory Speed=configured_speed|Minimum Voltage=voltage_min|"
     "Maximum Voltage=voltage_max|Configured Voltage=voltage|Memory Technology=technology|"
     "Firmware Version=firmware|Non-Volatile Size=nonvolatile_size|Volatile Size=volatile_size"},
    {19, ItemKind::kMemoryRange, "Starting Address=start_address|Ending Address=end_address"},
    {22, ItemKind::kBattery,
     "Location=location|Manufacturer=vendor|Manufacture Date=date|SBDS Manufacture Date=date|"
     "Serial Number=serial|SBDS Serial Number=serial|Name=model|Chemistry=chemistry|"
     "SBDS Chemistry=chemistry|Design Capacity=capacity|Design Voltage=voltage|"
     "SBDS Version=version"},
    {38, ItemKind::kManagementController,
     "Interface Type=interface_type|* Version=version|Base Address=base_address|"
     "Interrupt Number=irq"},
    {39, ItemKind::kPowerSupply,
     "Location=location|Name=model|Manufacturer=vendor|Serial Number=serial|"
     "Asset Tag=asset_tag|Model Part Number=part_number|Revision=version|"
     "Max Power Capacity=power_max|Type=type|Input Voltage Range Switching=input_range|"
     "Plugged=plugged|Hot Replaceable=hot_replaceable"},
    {41, ItemKind::kOnboardDevice,
     "Type=type|Status=enabled|Type Instance=number|Bus Address=bus_address"},
    {43, ItemKind::kTpm,
     "Vendor ID=vendor|* Version=version|Firmware Revision=firmware|"
     "Description=model"},
};

struct Row {
    int type;
    ItemKind kind;
    std::string key;
    InventoryField field;
};
std::vector<Row> Rows() {
    std::vector<Row> rows;
    for (const Table& table : kTables) {
        std::istringstream fields(table.fields);
        for (std::string field; std::getline(fields, field, '|');) {
            const size_t equals = field.find('=');
            rows.push_back({table.type, table.kind, field.substr(0, equals),
                            InventoryField::Find(field.substr(equals + 1)).value()});
        }
    }
    return rows;
}

// What dmidecode prints in place of a value.
bool IsNothing(const std::string& text) {
    static constexpr std::string_view kNothing =
        "||Unknown|Not Specified|<BAD INDEX>|None|Not Present|Not Settable|Not Provided|"
        "No Module Installed|Unspecified|0|1980-00-00|";
    return kNothing.find("|" + text + "|") != kNothing.npos;
}

// "16 GB", "1.5 V", "0x10000000" as a number of our units.
std::string AsNumber(const std::string& text) {
    static const std::map<std::string, int> kShifts = {{"kB", 10}, {"MB", 20}, {"GB", 30},
                                                       {"TB", 40}, {"PB", 50}, {"EB", 60}};
    if (text.starts_with("0x")) return std::to_string(std::stoull(text, nullptr, 16));
    std::istringstream words(text);
    double number = 0;
    std::string unit;
    words >> number >> unit;
    if (unit == "V") number *= 1000;
    const auto shift = kShifts.find(unit);
    if (shift != kShifts.end()) number = std::ldexp(number, shift->second);
    return std::to_string(static_cast<uint64_t>(number + 0.5));
}

// "x8 PCI Express 3 x16": width and type.
std::string SlotType(const KemdInventoryItem& item) {
    const std::string& width = item.Text("width");
    const bool isKnown = !IsNothing(width) && width != "Other" && !width.starts_with("unknown");
    return (isKnown ? width + " " : "") + item.Text("type");
}

// Both sides as one text: lists with "|" between.
std::string Ours(const KemdInventoryItem& item, InventoryField field) {
    if (item.kind == ItemKind::kSlot && field == InventoryField("type")) return SlotType(item);
    std::string text;
    const char* const between = field == InventoryField("type_detail") ? " " : "|";
    for (const auto& value : item.values) {
        if (value.field != field || value.text.ends_with("CXL 3.0 capable")) continue;  // too new
        text += (text.empty() ? "" : between) + value.text;
    }
    return text;
}

// A key that begins with "*" stands for any that ends like it.
auto FindKey(const DmiRecord& record, std::string_view key) {
    if (!key.starts_with('*')) return record.values.find(std::string(key));
    return std::find_if(record.values.begin(), record.values.end(),
                        [&](const auto& value) { return value.first.ends_with(key.substr(1)); });
}

std::string Theirs(std::string text, InventoryField field) {
    text = std::regex_replace(text, std::regex("BIOS boot [a-z]+"), "BIOS boot standard");
    if (field == InventoryField("status")) {  // "Populated, Enabled"
        const size_t comma = text.find(", ");
        return comma == text.npos ? "" : text.substr(comma + 2);
    }
    for (const std::string suffix : {" is supported", " are supported", " is provided"}) {
        for (size_t at = text.find(suffix); at != text.npos; at = text.find(suffix)) {
            text.erase(at, suffix.size());
        }
    }
    if (field.Info().kind == KEMD_INVENTORY_YES)
        return text == "Yes" || text == "Present" || text == "Enabled" ? "1" : "0";
    if (field.Info().kind == KEMD_INVENTORY_TEXT || IsNothing(text)) return text;
    if (field == InventoryField("voltage") && text.find("V ") != text.npos) {
        std::istringstream words(text);
        std::string all;
        for (std::string number, unit; words >> number >> unit;)
            all += (all.empty() ? "" : "|") + AsNumber(number + " V");
        return all;
    }
    return AsNumber(text);
}

// Codes that are newer than it is, and where its words are not those of the standard.
bool IsOther(const Row& row, const std::string& text) {
    static constexpr const char* kOthers[] = {"<OUT OF SPEC>", "CXL Flexbus 1.0", "Socket BGA1155",
                                              "Adapter "};
    static constexpr const char* kSlots[] = {"SFF-8639", "keep-outs", "PCI-66", "VLB", "(PCMCIA)"};
    const auto isIn = [&text](const char* other) { return text.find(other) != text.npos; };
    const bool isSlotType = row.kind == ItemKind::kSlot && row.field == InventoryField("type");
    return std::any_of(std::begin(kOthers), std::end(kOthers), isIn) ||
           (isSlotType && std::any_of(std::begin(kSlots), std::end(kSlots), isIn));
}

// Whether the two say the same, as far as dmidecode can say it.
bool AreEqual(const std::string& ours, const std::string& theirs, InventoryField field) {
    if (field == InventoryField("characteristics") && theirs == "None") return true;
    if (theirs == "4294967295") return true;  // the highest bit of speeds is reserved
    if (ours.empty() || ours == "Unknown" || ours == "....")
        return IsNothing(theirs) || theirs == ours;
    if (std::string_view(field.Info().unit) != "bytes" || theirs.empty()) {
        return strcasecmp(ours.c_str(), theirs.c_str()) == 0;
    }
    const double difference = std::stod(ours) - std::stod(theirs);  // it rounds to whole units
    return difference >= 0 && difference <= std::stod(ours) / 1000;
}

// Every field that both know, of all structures; how many were compared.
size_t CompareTables(const SmbiosData& data, const std::string& name) {
    CSMBios smbios;
    EXPECT_TRUE(smbios.Connect(data)) << name << smbios.Error();
    const SmbiosData dump = SmbiosBuilder(data.table).Data(smbios.Revision());
    std::string file(dump.entryPoint.begin(), dump.entryPoint.end());
    file.resize(32);
    file.append(data.table.begin(), data.table.end());
    WriteFile("/tmp/dump", file);
    KemdInventory inventory;
    SmbiosItems items(inventory, smbios);
    items.AddSystem();
    items.AddMemory();
    items.AddSlots();
    std::map<ItemKind, std::vector<const KemdInventoryItem*>> byKind;
    for (const KemdInventoryItem& item : inventory.items) byKind[item.kind].push_back(&item);
    std::map<int, size_t> positions;
    size_t compared = 0;
    static const std::vector<Row> rows = Rows();
    for (const DmiRecord& record : DmiRecords("--from-dump /tmp/dump")) {
        const size_t position = positions[record.type]++;
        for (const Row& row : rows) {
            const auto value = FindKey(record, row.key);
            if (row.type != record.type || value == record.values.end()) continue;
            if (IsOther(row, value->second)) continue;
            if (position >= byKind[row.kind].size()) continue;
            const std::string theirs = Theirs(value->second, row.field);
            const std::string ours = Ours(*byKind[row.kind][position], row.field);
            EXPECT_TRUE(AreEqual(ours, theirs, row.field))
                << ours << " and " << theirs << ": " << name << ": type " << row.type << " number "
                << position << ": " << row.key << ": " << value->second;
            ++compared;
        }
    }
    return compared;
}

TEST(SystemPeers, MadeTablesAreThoseOfDmidecode) {
    NEED_PEER("dmidecode");
    static constexpr std::pair<uint8_t, size_t> kLengths[] = {
        {0, 0x1A},  {1, 0x1B},  {2, 0x0F},  {3, 0x18},  {4, 0x30},  {7, 0x1B},
        {8, 0x09},  {9, 0x18},  {16, 0x17}, {17, 0x5C}, {19, 0x1F}, {22, 0x1A},
        {38, 0x12}, {39, 0x16}, {41, 0x0B}, {43, 0x1F}};
    const std::vector<std::string> strings = {"first", " second ", "third, with (signs)"};
    std::mt19937 random(1);
    size_t compared = 0;
    for (const auto& [type, length] : kLengths) {
        SmbiosBuilder same;
        SmbiosBuilder mixed;
        for (unsigned code = 0; code < 256; ++code) {
            same.Add(type, std::vector<uint8_t>(length - 4, uint8_t(code)), strings);
            std::vector<uint8_t> bytes(length - 4);
            for (uint8_t& byte : bytes) byte = uint8_t(random() % 8 < 4 ? random() : random() % 5);
            mixed.Add(type, bytes, strings);
        }
        compared += CompareTables(same.Data({3, 5}), "equal bytes");
        compared += CompareTables(mixed.Data({3, 5}), "random bytes");
    }
    EXPECT_GT(compared, 10000U);
}

TEST(SystemPeers, KeptTablesAreThoseOfDmidecode) {
    NEED_PEER("dmidecode");
    const Bytes pc = FirmwareImage("pc");
    const Bytes q35 = FirmwareImage("q35");
    const auto tables = [](const Bytes& memory, size_t entry, size_t entrySize, size_t table,
                           size_t size) {
        SmbiosData data;
        data.source = SmbiosSource::kFile;
        const auto at = [&memory](size_t offset) {
            return memory.begin() + std::ptrdiff_t(offset);
        };
        data.entryPoint.assign(at(entry), at(entry + entrySize));
        data.table.assign(at(table), at(table + size));
        return data;
    };
    EXPECT_GT(CompareTables(tables(pc, 0xF59B0, 31, 0xF59D0, 0x1B6), "pc"), 50U);
    EXPECT_GT(CompareTables(tables(q35, 0xF59C0, 24, 0xF59E0, 432), "q35"), 50U);
}

TEST(SystemPeers, OwnTablesAreThoseOfDmidecode) {
    NEED_PEER("dmidecode");
    const auto own = CBiosTables::GetSmbiosData();
    if (!own) GTEST_SKIP() << "not compared: this machine has no tables";
    EXPECT_GT(CompareTables(*own, "this machine"), 20U);
}

// The sum of a field over all models of processors.
uint64_t Sum(const KemdInventory& inventory, InventoryField field) {
    uint64_t sum = 0;
    for (const KemdInventoryItem& item : inventory.items) {
        if (item.kind == ItemKind::kCpu) sum += item.Number(field);
    }
    return sum;
}

const KemdInventoryItem& First(const KemdInventory& inventory, ItemKind kind) {
    static const KemdInventoryItem kNone{kind, {}, {}, {}, {}};
    for (const KemdInventoryItem& item : inventory.items) {
        if (item.kind == kind) return item;
    }
    return kNone;
}

// lscpu's fields, nested ones too.
void Flatten(const JsonValue& list, std::map<std::string, std::string>& fields) {
    for (const JsonValue& each : list.elements) {
        fields.emplace(each.TextOf("field"), each.TextOf("data"));
        const JsonValue* const children = each.Find("children");
        if (children != nullptr) Flatten(*children, fields);
    }
}

// lscpu writes "0,1" where the kernel has "0-1".
std::string ListText(const std::string& text) {
    return text == "0-1" ? "0,1" : text;
}

// In some virtual machines two processors share one cache with two ids, and lscpu counts ids.
bool AreCacheIdsWrong() {
    const auto text = [](const char* cpu, const char* file) {
        return ReadFile(std::string("/sys/devices/system/cpu/") + cpu + "/cache/index3/" + file);
    };
    return text("cpu0", "shared_cpu_list") == text("cpu1", "shared_cpu_list") &&
           text("cpu0", "id") != text("cpu1", "id");
}

TEST(SystemPeers, ProcessorsAreThoseOfLscpu) {
    NEED_PEER("lscpu");
    KemdInventory inventory;
    ScanSystem(inventory, KEMD_INVENTORY_SYSTEM);
    const KemdInventoryItem& cpu = First(inventory, ItemKind::kCpu);
    const KemdInventoryItem& kernel = First(inventory, ItemKind::kKernel);
    const KemdInventoryItem& node = First(inventory, ItemKind::kNumaNode);
    std::map<std::string, std::string> theirs;
    Flatten(*PeerJson("lscpu -J -B").Find("lscpu"), theirs);
    const auto number = [&theirs](const char* key) {
        return theirs[key].empty() ? 0 : std::stoull(theirs[key]);
    };
    std::map<std::string, std::string> ours = {
        {"Architecture:", kernel.Text("architecture")},
        {"CPU(s):", std::to_string(Sum(inventory, "threads"))},
        {"On-line CPU(s) list:", ListText(kernel.Text("cpus_online"))},
        {"Vendor ID:", cpu.Text("vendor")},
        {"Model name:", cpu.Text("model")},
        {"CPU family:", cpu.Text("cpu_family")},
        {"Model:", cpu.Text("cpu_model")},
        {"Stepping:", cpu.Text("stepping")},
        {"Socket(s):", cpu.Text("sockets")},
        {"Virtualization:", cpu.Text("virtualization")},
        {"Hypervisor vendor:", kernel.Text("hypervisor")},
        {"NUMA node0 CPU(s):", ListText(node.Text("cpus"))},
    };
    for (const auto& [key, value] : ours) {
        if (value.empty() || theirs[key].empty()) continue;
        EXPECT_EQ(value, theirs[key]) << key;
    }
    EXPECT_EQ(Sum(inventory, "cores"), number("Core(s) per socket:") * number("Socket(s):"));
    struct CacheRow {
        const char* key;
        InventoryField size;
        InventoryField instances;
    };
    static constexpr CacheRow kCaches[] = {{"L1d cache:", "l1d_cache", "l1d_instances"},
                                           {"L1i cache:", "l1i_cache", "l1i_instances"},
                                           {"L2 cache:", "l2_cache", "l2_instances"},
                                           {"L3 cache:", "l3_cache", "l3_instances"}};
    for (const CacheRow& row : kCaches) {
        if (row.key[1] == '3' && AreCacheIdsWrong()) continue;
        EXPECT_EQ(Sum(inventory, row.size), number(row.key)) << row.key;
        const std::string& text = theirs[row.key];  // "65536 (2 instances)"
        const size_t bracket = text.find('(');
        if (bracket == text.npos) continue;
        EXPECT_EQ(Sum(inventory, row.instances), std::stoull(text.substr(bracket + 1))) << row.key;
    }
    EXPECT_EQ(cpu.Number("max_speed"), number("CPU max MHz:"));
    EXPECT_EQ(cpu.Number("min_speed"), number("CPU min MHz:"));
}

TEST(SystemPeers, VulnerabilitiesAreThoseOfLscpu) {
    NEED_PEER("lscpu");
    KemdInventory inventory;
    ScanSystem(inventory, KEMD_INVENTORY_SYSTEM);
    std::map<std::string, std::string> theirs;
    Flatten(*PeerJson("lscpu -J").Find("lscpu"), theirs);
    const auto normal = [](std::string text) {  // it writes ";" for ":" and "Itlb multihit"
        std::erase_if(text, [](char c) { return c == ';' || c == ':' || c == '_' || c == ' '; });
        std::transform(text.begin(), text.end(), text.begin(), [](char c) {
            return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        });
        return text;
    };
    std::set<std::string> states;
    for (const auto& value : First(inventory, ItemKind::kKernel).values) {
        if (value.field == InventoryField("vulnerabilities")) states.insert(normal(value.text));
    }
    size_t count = 0;
    for (const auto& [key, value] : theirs) {
        constexpr std::string_view kVulnerability = "Vulnerability ";
        if (!key.starts_with(kVulnerability)) continue;
        EXPECT_EQ(states.count(normal(key.substr(kVulnerability.size()) + value)), 1U)
            << key << value;
        ++count;
    }
    EXPECT_EQ(count, states.size());
}

TEST(SystemPeers, VirtualisationIsThatOfSystemd) {
    NEED_PEER("systemd-detect-virt");
    KemdInventory inventory;
    ScanSystem(inventory, KEMD_INVENTORY_SYSTEM);
    const KemdInventoryItem& kernel = First(inventory, ItemKind::kKernel);
    EXPECT_EQ(kernel.Text("virtualization") + "\n", PeerText("systemd-detect-virt -v"));
    const std::string container = kernel.Text("container");
    EXPECT_EQ((container.empty() ? "none" : container) + "\n", PeerText("systemd-detect-virt -c"));
}

// All nodes of lshw's tree.
void Nodes(const JsonValue& node, std::vector<const JsonValue*>& nodes) {
    nodes.push_back(&node);
    const JsonValue* const children = node.Find("children");
    if (children == nullptr) return;
    for (const JsonValue& child : children->elements) Nodes(child, nodes);
}

TEST(SystemPeers, TheSystemIsThatOfLshw) {
    NEED_PEER("lshw");
    KemdInventory inventory;
    ScanSystem(inventory, KEMD_INVENTORY_SYSTEM | KEMD_INVENTORY_MEMORY);
    struct LshwRow {
        const char* id;  // of lshw's node
        const char* key;
        ItemKind kind;
        InventoryField field;
    };
    static constexpr LshwRow kLshw[] = {
        {"core", "vendor", ItemKind::kBoard, "vendor"},
        {"core", "product", ItemKind::kBoard, "model"},
        {"core", "version", ItemKind::kBoard, "version"},
        {"core", "serial", ItemKind::kBoard, "serial"},
        {"firmware", "vendor", ItemKind::kFirmware, "vendor"},
        {"firmware", "version", ItemKind::kFirmware, "version"},
        {"firmware", "date", ItemKind::kFirmware, "date"},
        {"bank", "vendor", ItemKind::kMemoryModule, "vendor"},
        {"bank", "slot", ItemKind::kMemoryModule, "location"},
        {"bank", "serial", ItemKind::kMemoryModule, "serial"},
        {"bank", "product", ItemKind::kMemoryModule, "part_number"},
    };
    const JsonValue tree = PeerJson("lshw -json -class system -class bus -class memory");
    std::vector<const JsonValue*> nodes;
    for (const JsonValue& root : tree.elements) Nodes(root, nodes);
    if (tree.kind == JsonValue::kObject) Nodes(tree, nodes);
    size_t compared = 0;
    for (const LshwRow& row : kLshw) {
        const auto node = std::find_if(nodes.begin(), nodes.end(), [&row](const JsonValue* each) {
            return std::string(each->TextOf("id")).substr(0, each->TextOf("id").find(':')) ==
                   row.id;
        });
        if (node == nodes.end() || (*node)->TextOf(row.key).empty()) continue;
        const std::string& ours = First(inventory, row.kind).Text(row.field);
        if (ours.empty()) continue;
        EXPECT_EQ(ours, (*node)->TextOf(row.key)) << row.id << ": " << row.key;
        ++compared;
    }
    if (compared == 0) GTEST_SKIP() << "not compared: lshw knows nothing of this machine";
}

}  // namespace
