// PCI functions beside lspci and lshw, and every name of pci.ids and usb.ids.
#include <fstream>
#include <map>
#include <regex>
#include <vector>

#include "inventory/host_inventory.h"
#include "inventory/id_names.h"
#include "inventory/sources.h"
#include "tests/inventory/peers.h"
#include "tests/world.h"

namespace {

// What lspci -vmm prints of one function; several values of a key with ", " between.
using Record = std::map<std::string, std::string>;

std::vector<Record> Records(const std::string& command) {
    std::istringstream lines(PeerText(command));
    std::vector<Record> records(1);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) records.emplace_back();
        const size_t tab = line.find(":\t");
        if (tab == line.npos) continue;
        std::string& value = records.back()[line.substr(0, tab)];
        value += (value.empty() ? "" : ", ") + line.substr(tab + 2);
    }
    std::erase_if(records, [](const Record& record) { return record.empty(); });
    return records;
}

std::string All(const KemdInventoryItem& item, InventoryField field) {
    std::string all;
    for (const auto& value : item.values) {
        if (value.field == field) all += (all.empty() ? "" : ", ") + value.text;
    }
    return all;
}

// As lspci -nn has it: at most 127 bytes of a name, and words for one that it does not know.
std::string Named(const KemdInventoryItem& item, InventoryField name, InventoryField id,
                  const char* unknown) {
    if (item.Text(id).empty()) return {};
    const std::string& text = item.Text(name);
    return (text.empty() ? unknown : text) + " [" + item.Text(id) + "]";
}

Record RecordOf(const KemdInventoryItem& item) {
    Record record = {
        {"Slot", item.Text("address")},
        {"Class", Named(item, "class", "class_id", "Class")},
        {"Vendor", Named(item, "vendor", "vendor_id", "Vendor")},
        {"Device", Named(item, "device", "device_id", "Device")},
        {"SVendor", Named(item, "subsystem_vendor", "subsystem_vendor_id", "Unknown vendor")},
        {"SDevice", Named(item, "subsystem", "subsystem_id", "Device")},
        {"PhySlot", item.Text("physical_slot")},
        {"Rev", item.Text("revision") == "00" ? "" : item.Text("revision")},
        {"ProgIf", item.Text("programming_interface")},
        {"Driver", item.Text("driver")},
        {"NUMANode", item.Text("numa_node")},
        {"IOMMUGroup", item.Text("iommu_group")},
        {"DeviceName", item.Text("label")},
    };
    std::erase_if(record, [](const auto& entry) { return entry.second.empty(); });
    return record;
}

uint64_t Bytes(const std::string& size) {
    uint64_t bytes = std::stoull(size);
    for (const char unit : {'K', 'M', 'G', 'T'}) {
        if (size.find(unit) != size.npos) return bytes << 10;
        bytes <<= 10;
    }
    return std::stoull(size);
}

// A line of lspci -vv as our values have it: "bar 0: memory 64-bit 0x4000000000 size 524288".
std::string Detail(const std::string& line) {
    std::smatch match;
    static const std::regex kMemory(
        R"(\s+(?:Region (\d)|Expansion ROM).*? at 0*([0-9a-f]+) (?:\((32|64)-bit, (non-)?prefetchable\) )?.*\[size=(\w+)\])");
    static const std::regex kPorts(R"(\s+Region (\d): I/O ports at 0*([0-9a-f]+).*\[size=(\w+)\])");
    static const std::regex kIrq(R"(\s+Interrupt: .*routed to IRQ ([1-9]\d*))");
    static const std::regex kLink(R"(\s+Lnk(Cap|Sta):.*Speed ([0-9.]+)GT/s.*, Width x(\d+).*)");
    if (std::regex_match(line, match, kPorts)) {
        return "bar " + match[1].str() + ": io 0x" + match[2].str() + " size " +
               std::to_string(Bytes(match[3]));
    }
    if (std::regex_match(line, match, kMemory)) {
        const std::string start = match[1].matched ? "bar " + match[1].str() + ": " : "rom ";
        return start + "memory" + (match[3] == "64" ? " 64-bit" : "") +
               (match[3].matched && !match[4].matched ? " prefetchable" : "") + " 0x" +
               match[2].str() + " size " + std::to_string(Bytes(match[5]));
    }
    if (std::regex_match(line, match, kIrq)) return "irq " + match[1].str();
    if (!std::regex_match(line, match, kLink)) return {};
    const std::string most = match[1] == "Cap" ? "_max " : " ";
    const auto speed = static_cast<int>(std::stod(match[2]) * 1000);
    return "link_speed" + most + std::to_string(speed) + " link_width" + most + match[3].str();
}

std::vector<std::string> DetailsOf(const KemdInventoryItem& item) {
    std::vector<std::string> details;
    const auto add = [&](InventoryField field) {
        for (const auto& value : item.values) {
            if (value.field == field) details.push_back(field.Info().name + (" " + value.text));
        }
    };
    add("bar");
    add("rom");
    add("irq");
    for (const std::string most : {"", "_max"}) {
        const auto speed = *InventoryField::Find("link_speed" + most);
        const auto width = *InventoryField::Find("link_width" + most);
        if (item.Find(speed) == nullptr || item.Find(width) == nullptr) continue;
        std::string& text = details.emplace_back("link_speed");
        text.append(most).append(" ").append(item.Text(speed));
        text.append(" link_width").append(most).append(" ").append(item.Text(width));
    }
    return details;
}

class PciPeersTest : public testing::Test {
  protected:
    PciPeersTest() { ScanPci(m_inventory); }
    KemdInventory m_inventory;
};

}  // namespace

TEST_F(PciPeersTest, LspciKnowsTheSameOfEachFunction) {
    NEED_PEER("lspci");
    const auto records = Records("lspci -O hwdb.disable=1 -D -vmmk -nn");
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(m_inventory.items.size(), records.size());
    for (Record expected : records) {
        const KemdInventoryItem* const item = m_inventory.Find("pci:" + expected["Slot"]);
        ASSERT_NE(item, nullptr) << expected["Slot"];
        // The module of the driver that is in use belongs to ours in any case.
        std::istringstream modules(expected["Module"]);
        for (std::string module; std::getline(modules >> std::ws, module, ',');) {
            EXPECT_TRUE(Contains(", " + All(*item, "module") + ",", ", " + module + ","))
                << item->id << ": " << module;
        }
        expected.erase("Module");
        expected.erase("DTNode");
        EXPECT_EQ(RecordOf(*item), expected) << item->id;
    }
}

TEST_F(PciPeersTest, LspciSeesTheSameRegionsInterruptsAndLinks) {
    NEED_PEER("lspci");
    std::istringstream lines(PeerText("lspci -D -vv"));
    std::vector<std::string> details;
    const KemdInventoryItem* item = nullptr;
    for (std::string line; std::getline(lines, line);) {
        const bool isFirst = !line.empty() && line[0] != '\t';
        if (isFirst) {
            item = m_inventory.Find("pci:" + line.substr(0, line.find(' ')));
            ASSERT_NE(item, nullptr) << line;
            details = DetailsOf(*item);
        }
        const std::string detail = Detail(line);
        if (detail.empty()) continue;
        EXPECT_NE(std::find(details.begin(), details.end(), detail), details.end())
            << item->id << ": " << line << " is not in " << testing::PrintToString(details);
    }
    ASSERT_NE(item, nullptr);
}

namespace {

void CompareWithLshw(const JsonValue& node, const KemdInventory& inventory, int& compared) {
    const std::string bus(node.TextOf("businfo"));
    if (bus.starts_with("pci@")) {
        const KemdInventoryItem* const item = inventory.Find("pci:" + bus.substr(4));
        ASSERT_NE(item, nullptr) << bus;
        EXPECT_EQ(item->Text("vendor"), node.TextOf("vendor")) << bus;
        // Of NVMe it has version and name of the drive. For a device that it has no name for it
        // repeats the vendor's.
        const bool isDrive = item->Text("class_id") == "0108";
        EXPECT_EQ(isDrive ? node.TextOf("version") : item->Text("revision"), node.TextOf("version"))
            << bus;
        if (item->Find("device") != nullptr && !isDrive) {
            EXPECT_EQ(item->Text("device"), node.TextOf("product")) << bus;
        }
        const JsonValue* const configuration = node.Find("configuration");
        if (configuration != nullptr) {
            EXPECT_EQ(item->Text("driver"), configuration->TextOf("driver")) << bus;
        }
        ++compared;
    }
    const JsonValue* const children = node.Find("children");
    if (children == nullptr) return;
    for (const JsonValue& child : children->elements) CompareWithLshw(child, inventory, compared);
}

}  // namespace

TEST_F(PciPeersTest, LshwKnowsTheSameNamesAndDrivers) {
    NEED_PEER("lshw");
    // Without the flags of processors: they are more members than an object may have here.
    const JsonValue document = PeerJson("lshw -json -quiet -disable cpuinfo");
    int compared = 0;
    CompareWithLshw(document.kind == JsonValue::kArray && !document.elements.empty()
                        ? document.elements[0]
                        : document,
                    m_inventory, compared);
    EXPECT_GT(compared, 0);
}

namespace {

struct Ids {
    uint16_t vendor, device, subVendor, subDevice;
    uint32_t classCode;
};

// Each line of pci.ids as a device: with a number that has no name below it, too.
std::vector<Ids> AllIds() {
    std::ifstream file("/usr/share/misc/pci.ids");
    std::vector<Ids> all;
    Ids now{};
    bool isClass = false;
    for (std::string line; std::getline(file, line);) {
        unsigned first = 0;
        unsigned second = 0;
        if (line.empty() || line[0] == '#') continue;
        if (sscanf(line.c_str(), "C %2x", &first) == 1) {
            isClass = true;
            now.classCode = first << 16 | 0xFEFE;
        } else if (sscanf(line.c_str(), "\t\t%x %x", &first, &second) == 2 && !isClass) {
            now.subVendor = static_cast<uint16_t>(first);
            now.subDevice = static_cast<uint16_t>(second);
        } else if (line[0] == '\t' && line[1] != '\t' && sscanf(line.c_str(), "%x", &first) == 1) {
            now = {now.vendor, static_cast<uint16_t>(first), 0xABCD, 0xFEFE, now.classCode};
            if (isClass) now.classCode = (now.classCode & 0xFF0000) | first << 8 | 0xFE;
        } else if (line[0] != '\t' && sscanf(line.c_str(), "%4x", &first) == 1) {
            now = {static_cast<uint16_t>(first), 0xFEFE, 0xABCD, 0xFEFE, 0};
        }
        all.push_back(now);
    }
    return all;
}

void WriteDump(const std::vector<Ids>& all, const char* path) {
    std::ofstream dump(path);
    std::array<char, 400> text{};
    for (size_t i = 0; i < all.size(); ++i) {
        const Ids& ids = all[i];
        const auto low = [](unsigned number) { return number & 0xFF; };
        snprintf(text.data(), text.size(),
                 "%04zx:%02zx:%02zx.%zx x\n"
                 "00: %02x %02x %02x %02x 00 00 00 00 00 %02x %02x %02x 00 00 00 00\n"
                 "20: 00 00 00 00 00 00 00 00 00 00 00 00 %02x %02x %02x %02x\n"
                 "30: 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00\n\n",
                 i >> 16, i >> 8 & 0xFF, i >> 3 & 31, i & 7, low(ids.vendor), ids.vendor >> 8U,
                 low(ids.device), ids.device >> 8U, low(ids.classCode), low(ids.classCode >> 8),
                 ids.classCode >> 16, low(ids.subVendor), ids.subVendor >> 8U, low(ids.subDevice),
                 ids.subDevice >> 8U);
        dump << text.data();
    }
}

std::string Cut(std::string_view name, const char* unknown, unsigned id) {
    constexpr size_t kLongest = 127;
    std::array<char, 8> number{};
    snprintf(number.data(), number.size(), "%04x", id);
    std::string text(name.empty() ? std::string_view(unknown) : name);
    text.append(" [").append(number.data()).append("]");
    return text.size() <= kLongest ? text : text.substr(0, kLongest - 3) + "...";
}

}  // namespace

TEST(PciNamesTest, EachNameOfPciIdsIsThatOfLspci) {
    NEED_PEER("lspci");
    const auto all = AllIds();
    ASSERT_GT(all.size(), 30000U);
    WriteDump(all, "/tmp/dump");
    IdNames names;
    for (const Ids& ids : all) {
        names.WantDevice(ids.vendor, ids.device);
        names.WantSubsystem(ids.vendor, ids.device, ids.subVendor, ids.subDevice);
        names.WantClass(ids.classCode);
    }
    KemdInventory inventory;
    names.ReadPci(inventory);
    EXPECT_TRUE(inventory.notes.empty());
    const auto records = Records("lspci -F /tmp/dump -O hwdb.disable=1 -vmm -nn -D");
    ASSERT_EQ(records.size(), all.size());
    for (size_t i = 0; i < all.size() && !HasFailure(); ++i) {
        const Ids& ids = all[i];
        Record record = records[i];
        const auto className = names.Subclass(ids.classCode).empty()
                                   ? names.BaseClass(ids.classCode)
                                   : names.Subclass(ids.classCode);
        EXPECT_EQ(Cut(className, "Class", ids.classCode >> 8), record["Class"]);
        EXPECT_EQ(Cut(names.Vendor(ids.vendor), "Vendor", ids.vendor), record["Vendor"]);
        EXPECT_EQ(Cut(names.Device(ids.vendor, ids.device), "Device", ids.device),
                  record["Device"]);
        if (ids.subVendor == 0 || ids.subVendor == 0xFFFF) continue;
        EXPECT_EQ(Cut(names.Vendor(ids.subVendor), "Unknown vendor", ids.subVendor),
                  record["SVendor"]);
        // It does not look for subsystems of a device 0000, which pci.ids has once.
        if (ids.device == 0) continue;
        EXPECT_EQ(Cut(names.Subsystem(ids.vendor, ids.device, ids.subVendor, ids.subDevice),
                      "Device", ids.subDevice),
                  record["SDevice"]);
    }
}
