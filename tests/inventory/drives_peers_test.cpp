// Drives beside lsblk, nvme, smartctl and lshw.
#include <algorithm>
#include <cmath>
#include <map>
#include <vector>

#include "inventory/host_inventory.h"
#include "inventory/sources.h"
#include "tests/inventory/peers.h"
#include "tests/world.h"

namespace {

// A peer's value as our fields have it.
std::string TextOf(const JsonValue& value) {
    if (value.kind == JsonValue::kFlag) return value.flag ? "1" : "0";
    if (value.kind != JsonValue::kText && value.kind != JsonValue::kNumber) return {};
    std::string text = value.text;
    text.erase(text.find_last_not_of(' ') + 1);
    return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}

// udev writes "_" for a blank.
std::string Blanks(std::string text) {
    std::replace(text.begin(), text.end(), '_', ' ');
    return text;
}

const KemdInventoryItem* ByDevice(const KemdInventory& inventory, const std::string& device) {
    for (const KemdInventoryItem& item : inventory.items) {
        if (item.kind == ItemKind::kDrive && item.Text("device") == device) return &item;
    }
    return nullptr;
}

struct Pair {
    const char* theirs;
    InventoryField ours;
};

// The number of values that both have; each that differs is a failure.
class Comparison {
  public:
    void Equal(const KemdInventoryItem& item, InventoryField field, const std::string& theirs) {
        const std::string ours = item.Text(field);
        if (ours.empty() || theirs.empty()) return;
        ++m_compared;
        EXPECT_EQ(Blanks(ours), Blanks(theirs)) << item.name << ": " << field.Info().name;
    }
    void Print(const char* peer) const {
        std::printf("%s: %zu values compared\n", peer, m_compared);
    }
    [[nodiscard]] size_t Count() const { return m_compared; }

  private:
    size_t m_compared = 0;
};

// lsblk's words.
std::string Interface(const std::string& transport) {
    return transport == "ata" ? "ide" : transport == "spi" ? "scsi" : transport;
}

// udev, which lsblk asks, and we for want of better have the serial number of the USB bridge. A
// drive's own is better.
bool IsOfBridge(const KemdInventoryItem& item, const std::string& serial) {
    const std::string usb = item.parent.substr(item.parent.find(':') + 1);
    const std::string own = ReadFile("/sys/bus/usb/devices/" + usb + "/serial");
    return item.Text("interface") == "usb" && own == serial + "\n";
}

TEST(DrivesPeers, LsblkShowsTheSameDrives) {
    NEED_PEER("lsblk");
    KemdInventory inventory;
    ScanDrives(inventory, false);
    const JsonValue all = PeerJson("lsblk -a -d -J -O -b");
    const JsonValue* const devices = all.Find("blockdevices");
    ASSERT_NE(devices, nullptr);
    const std::vector<Pair> fields = {
        {"maj:min", "device_number"},
        {"size", "size"},
        {"model", "model"},
        {"wwn", "wwn"},
        {"type", "type"},
        {"rota", "rotational"},
        {"rm", "removable"},
        {"ro", "read_only"},
        {"log-sec", "logical_sector_size"},
        {"phy-sec", "physical_sector_size"},
        {"min-io", "minimum_io_size"},
        {"opt-io", "optimal_io_size"},
        {"disc-gran", "discard_granularity"},
        {"disc-max", "discard_max"},
        {"sched", "scheduler"},
        {"rq-size", "queue_requests"},
        {"zoned", "zoned"},
        {"state", "state"},
        {"hctl", "hctl"},
    };
    Comparison comparison;
    size_t drives = 0;
    for (const JsonValue& device : devices->elements) {
        const std::string type(device.TextOf("type"));
        const std::string name(device.TextOf("name"));
        const bool isDrive = (type == "disk" || type == "rom") && !name.starts_with("zram") &&
                             !name.starts_with("ram") && !name.starts_with("nbd");
        if (!isDrive) continue;
        ++drives;
        const KemdInventoryItem* const item = ByDevice(inventory, TextOf(*device.Find("path")));
        ASSERT_NE(item, nullptr) << name;
        for (const auto& [theirs, ours] : fields) {
            comparison.Equal(*item, ours, TextOf(*device.Find(theirs)));
        }
        const std::string serial = TextOf(*device.Find("serial"));
        if (!IsOfBridge(*item, serial)) comparison.Equal(*item, "serial", serial);
        // lsblk shows numbers of virtio and mmc, and SCSI's word for all ATA drives.
        const std::string vendor = TextOf(*device.Find("vendor"));
        if (vendor != "ATA" && !vendor.starts_with("0x")) comparison.Equal(*item, "vendor", vendor);
        comparison.Equal(*item, "interface", Interface(TextOf(*device.Find("tran"))));
        // Four characters of it.
        EXPECT_NE(item->Text("firmware").find(TextOf(*device.Find("rev"))), std::string::npos);
    }
    EXPECT_EQ(drives, std::count_if(inventory.items.begin(), inventory.items.end(),
                                    [](const auto& i) { return i.kind == ItemKind::kDrive; }));
    comparison.Print("lsblk");
}

TEST(DrivesPeers, NvmeShowsTheSameNamespacesAndHealth) {
    NEED_PEER("nvme");
    KemdInventory inventory;
    ScanDrives(inventory, true);
    const bool hasNvme =
        std::any_of(inventory.items.begin(), inventory.items.end(), [](const auto& item) {
            return item.kind == ItemKind::kDrive && item.Text("interface") == "nvme";
        });
    if (!hasNvme) GTEST_SKIP() << "not compared: there is no NVMe drive";
    Comparison comparison;
    const JsonValue all = PeerJson("nvme list -o json");
    ASSERT_NE(all.Find("Devices"), nullptr);
    for (const JsonValue& device : all.Find("Devices")->elements) {
        const std::string path(device.TextOf("DevicePath"));
        const KemdInventoryItem* const item = ByDevice(inventory, path);
        ASSERT_NE(item, nullptr) << path;
        comparison.Equal(*item, "namespace", TextOf(*device.Find("NameSpace")));
        comparison.Equal(*item, "firmware", TextOf(*device.Find("Firmware")));
        comparison.Equal(*item, "model", TextOf(*device.Find("ModelNumber")));
        comparison.Equal(*item, "serial", TextOf(*device.Find("SerialNumber")));
        comparison.Equal(*item, "size", TextOf(*device.Find("PhysicalSize")));
        comparison.Equal(*item, "logical_sector_size", TextOf(*device.Find("SectorSize")));
        const JsonValue log = PeerJson("nvme smart-log -o json " + path);
        comparison.Equal(*item, "temperature",
                         std::to_string(log.NumberOf("temperature").value_or(0) - 273));
        EXPECT_EQ(item->Text("health"),
                  (log.NumberOf("critical_warning").value_or(0) & ~2) == 0 ? "ok" : "failing");
        const std::vector<Pair> counters = {{"avail_spare", "spare"},
                                            {"spare_thresh", "spare_threshold"},
                                            {"percent_used", "percentage_used"},
                                            {"power_cycles", "power_cycles"},
                                            {"power_on_hours", "power_on_hours"},
                                            {"unsafe_shutdowns", "unsafe_shutdowns"},
                                            {"media_errors", "media_errors"}};
        for (const auto& [theirs, ours] : counters) {
            comparison.Equal(*item, ours, TextOf(*log.Find(theirs)));
        }
    }
    EXPECT_GT(comparison.Count(), 0U);
    comparison.Print("nvme");
}

TEST(DrivesPeers, SmartctlShowsTheSameHealth) {
    NEED_PEER("smartctl");
    KemdInventory inventory;
    ScanDrives(inventory, true);
    Comparison comparison;
    for (const KemdInventoryItem& item : inventory.items) {
        const std::string health = item.Text("health");
        if (item.kind != ItemKind::kDrive || health.empty()) continue;
        const JsonValue all = PeerJson("smartctl -j -i -H -A " + item.Text("device"));
        const JsonValue* const status = all.Find("smart_status");
        const JsonValue* const temperature = all.Find("temperature");
        if (status != nullptr && status->Find("passed") != nullptr && health != "unknown") {
            const bool hasPassed = status->Find("passed")->flag;
            comparison.Equal(item, "health", hasPassed ? "ok" : "failing");
        }
        if (temperature != nullptr && temperature->Find("current") != nullptr) {
            comparison.Equal(item, "temperature", TextOf(*temperature->Find("current")));
        }
        comparison.Equal(item, "model", std::string(all.TextOf("model_name")));
        comparison.Equal(item, "serial", std::string(all.TextOf("serial_number")));
        comparison.Equal(item, "firmware", std::string(all.TextOf("firmware_version")));
    }
    comparison.Print("smartctl");
}

std::string Hexadecimal(const std::string& decimal) {
    std::ostringstream text;
    text << "0x" << std::hex << std::strtoull(decimal.c_str(), nullptr, 10);
    return text.str();
}

void CompareLshw(const KemdInventory& inventory, const JsonValue& node, Comparison& comparison) {
    const JsonValue* const names = node.Find("logicalname");
    std::vector<std::string> paths;
    if (names != nullptr && names->kind == JsonValue::kText) paths.push_back(names->text);
    for (size_t i = 0; names != nullptr && i < names->elements.size(); ++i) {
        paths.push_back(names->elements[i].text);
    }
    const std::string nodeClass(node.TextOf("class"));
    const KemdInventoryItem* const item =
        paths.empty() || nodeClass != "disk" ? nullptr : ByDevice(inventory, paths.front());
    if (item == nullptr) return;
    const std::vector<Pair> fields = {
        {"serial", "serial"}, {"product", "model"}, {"version", "firmware"}, {"size", "size"}};
    for (const auto& [theirs, ours] : fields) {
        if (node.Find(theirs) == nullptr) continue;
        // Of an ATA drive lshw sees what fits SCSI's inquiry: 16 characters of the model, 4 of the
        // firmware; and it writes the hexadecimal serial number of a card in decimal.
        const std::string full = item->Text(ours);
        std::string text = TextOf(*node.Find(theirs));
        const bool isPart = (text.size() == 16 && full.starts_with(text)) ||
                            (text.size() == 4 && full.ends_with(text));
        if (full.starts_with("0x") && full == Hexadecimal(text)) text = full;
        comparison.Equal(*item, ours, isPart ? full : text);
    }
    const JsonValue* const settings = node.Find("configuration");
    if (settings == nullptr) return;
    comparison.Equal(*item, "logical_sector_size",
                     std::string(settings->TextOf("logicalsectorsize")));
    comparison.Equal(*item, "physical_sector_size", std::string(settings->TextOf("sectorsize")));
}

TEST(DrivesPeers, LshwShowsTheSameDrives) {
    NEED_PEER("lshw");
    KemdInventory inventory;
    ScanDrives(inventory, false);
    Comparison comparison;
    const JsonValue all = PeerJson("lshw -json -quiet -disable dmi -class disk -class storage");
    for (const JsonValue& node : all.elements) CompareLshw(inventory, node, comparison);
    comparison.Print("lshw");
}

// For a look at it: run with --gtest_also_run_disabled_tests.
TEST(DrivesPeers, DISABLED_Print) {
    KemdInventory inventory;
    ScanPci(inventory);
    ScanDrives(inventory, true);
    for (const KemdInventoryItem& item : inventory.items) {
        if (KindSection(item.kind) != KEMD_INVENTORY_DRIVES) continue;
        std::printf("%s \"%s\" parent %s\n", item.id.c_str(), item.name.c_str(),
                    item.parent.c_str());
        for (const auto& value : item.values) {
            std::printf("    %s = %s\n", value.field.Info().name, value.text.c_str());
        }
    }
    for (const std::string& note : inventory.notes) std::printf("note: %s\n", note.c_str());
}

}  // namespace
