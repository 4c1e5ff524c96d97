// Drives beside lsblk, nvme, smartctl and lshw.
#include <algorithm>
#include <vector>

#include "base/text.h"
#include "inventory/host_inventory.h"
#include "inventory/sources.h"
#include "tests/inventory/peers.h"
#include "tests/world.h"

namespace {

struct Pair {
    const char* theirs;
    InventoryField ours;
};

class DrivesPeers : public testing::Test {
  protected:
    void TearDown() override {
        std::printf("%zu values of %zu drives compared\n", m_compared, Drives());
    }

    void Scan(bool withHealth) { ScanDrives(m_inventory, withHealth); }
    size_t Drives() {
        return static_cast<size_t>(
            std::count_if(m_inventory.items.begin(), m_inventory.items.end(),
                          [](const auto& item) { return item.kind == ItemKind::kDrive; }));
    }
    // Adapters too: "/dev/nvme0".
    const KemdInventoryItem* ByDevice(const std::string& device) {
        for (const KemdInventoryItem& item : m_inventory.items) {
            if (item.Text("device") == device || "/dev/" + item.name == device) return &item;
        }
        return nullptr;
    }
    // What only one of both knows is not compared. udev writes "_" for a blank; of an ATA drive
    // SCSI's inquiry has 16 characters of the model and 4 of the firmware.
    void Equal(const KemdInventoryItem& item, InventoryField field, std::string theirs) {
        std::string ours = item.Text(field);
        if (ours.empty() || theirs.empty()) return;
        ++m_compared;
        std::replace(ours.begin(), ours.end(), '_', ' ');
        std::replace(theirs.begin(), theirs.end(), '_', ' ');
        const bool isAta = item.Text("interface") == "sata" || item.Text("interface") == "ide";
        if (isAta && theirs.size() == 16 && field == "model") ours = ours.substr(0, 16);
        if (isAta && theirs.size() == 4 && field == "firmware" && ours.ends_with(theirs)) return;
        EXPECT_EQ(ours, theirs) << item.name << ": " << field.Info().name;
    }
    void Equal(const KemdInventoryItem& item, const JsonValue& peer,
               const std::vector<Pair>& fields) {
        for (const auto& [theirs, ours] : fields) Equal(item, ours, Value(peer, theirs));
    }
    // As our fields have it.
    static std::string Value(const JsonValue& object, const char* name) {
        const JsonValue* const value = object.Find(name);
        if (value == nullptr) return {};
        if (value->kind == JsonValue::kFlag) return value->flag ? "1" : "0";
        return std::string(Trim(value->text));
    }

    KemdInventory m_inventory;
    size_t m_compared = 0;
};

TEST_F(DrivesPeers, LsblkShowsTheSameDrives) {
    NEED_PEER("lsblk");
    Scan(false);
    const JsonValue all = PeerJson("lsblk -a -d -J -O -b");
    ASSERT_NE(all.Find("blockdevices"), nullptr);
    size_t drives = 0;
    for (const JsonValue& device : all.Find("blockdevices")->elements) {
        const std::string type = Value(device, "type");
        const std::string name = Value(device, "name");
        const bool isMemory = name.starts_with("zram") || name.starts_with("ram");
        if ((type != "disk" && type != "rom") || isMemory || name.starts_with("nbd")) continue;
        ++drives;
        const KemdInventoryItem* const item = ByDevice(Value(device, "path"));
        ASSERT_NE(item, nullptr) << name;
        Equal(*item, device,
              {{"maj:min", "device_number"},
               {"size", "size"},
               {"model", "model"},
               {"rev", "firmware"},
               {"wwn", "wwn"},
               {"type", "type"},
               {"rota", "rotational"},
               {"rm", "removable"},
               {"ro", "read_only"},
               {"log-sec", "logical_sector_size"},
               {"hctl", "hctl"},
               {"phy-sec", "physical_sector_size"},
               {"min-io", "minimum_io_size"},
               {"opt-io", "optimal_io_size"},
               {"disc-max", "discard_max"},
               {"disc-gran", "discard_granularity"},
               {"sched", "scheduler"},
               {"zoned", "zoned"},
               {"rq-size", "queue_requests"},
               {"state", "state"}});
        // A number for virtio and mmc, SCSI's word for all ATA drives.
        const std::string vendor = Value(device, "vendor");
        if (vendor != "ATA" && !vendor.starts_with("0x")) Equal(*item, "vendor", vendor);
        const std::string transport = Value(device, "tran");
        Equal(*item, "interface",
              transport == "ata"   ? "ide"
              : transport == "spi" ? "scsi"
                                   : transport);
        // udev has the serial number of the USB bridge also where the drive has its own.
        const std::string usb = item->parent.substr(item->parent.find(':') + 1);
        const std::string bridge = ReadFile("/sys/bus/usb/devices/" + usb + "/serial");
        const std::string serial = Value(device, "serial");
        if (bridge != serial + "\n") Equal(*item, "serial", serial);
    }
    EXPECT_EQ(drives, Drives());
}

TEST_F(DrivesPeers, NvmeShowsTheSameNamespacesAndHealth) {
    NEED_PEER("nvme");
    if (access("/sys/class/nvme/nvme0", F_OK) != 0) GTEST_SKIP() << "not compared: no NVMe drive";
    Scan(true);
    const JsonValue all = PeerJson("nvme list -o json");
    ASSERT_NE(all.Find("Devices"), nullptr);
    for (const JsonValue& device : all.Find("Devices")->elements) {
        const std::string path = Value(device, "DevicePath");
        const KemdInventoryItem* const item = ByDevice(path);
        ASSERT_NE(item, nullptr) << path;
        Equal(*item, device,
              {{"NameSpace", "namespace"},
               {"Firmware", "firmware"},
               {"ModelNumber", "model"},
               {"SerialNumber", "serial"},
               {"PhysicalSize", "size"},
               {"SectorSize", "logical_sector_size"}});
        const JsonValue log = PeerJson("nvme smart-log -o json " + path);
        Equal(*item, log,
              {{"avail_spare", "spare"},
               {"spare_thresh", "spare_threshold"},
               {"percent_used", "percentage_used"},
               {"power_cycles", "power_cycles"},
               {"power_on_hours", "power_on_hours"},
               {"unsafe_shutdowns", "unsafe_shutdowns"},
               {"media_errors", "media_errors"}});
        const int64_t kelvin = log.NumberOf("temperature").value_or(0);
        Equal(*item, "temperature", std::to_string(kelvin - 273));
        const bool isGood = (log.NumberOf("critical_warning").value_or(0) & ~2) == 0;
        Equal(*item, "health", isGood ? "ok" : "failing");
    }
    EXPECT_GT(m_compared, 0U);
}

TEST_F(DrivesPeers, SmartctlShowsTheSameHealth) {
    NEED_PEER("smartctl");
    Scan(true);
    for (const KemdInventoryItem& item : m_inventory.items) {
        const std::string health = item.Text("health");
        if (item.kind != ItemKind::kDrive || health.empty()) continue;
        const JsonValue all = PeerJson("smartctl -j -i -H -A " + item.Text("device"));
        const JsonValue* const status = all.Find("smart_status");
        const JsonValue* const temperature = all.Find("temperature");
        const std::string verdict = status == nullptr ? "" : Value(*status, "passed");
        if (!verdict.empty() && health != "unknown") {
            Equal(item, "health", verdict == "1" ? "ok" : "failing");
        }
        if (temperature != nullptr) Equal(item, "temperature", Value(*temperature, "current"));
        Equal(item, all,
              {{"model_name", "model"},
               {"serial_number", "serial"},
               {"firmware_version", "firmware"}});
    }
    if (m_compared == 0) GTEST_SKIP() << "not compared: smartctl knows nothing of these drives";
}

TEST_F(DrivesPeers, LshwShowsTheSameDrives) {
    NEED_PEER("lshw");
    Scan(false);
    const JsonValue all = PeerJson("lshw -json -quiet -disable dmi -class disk -class storage");
    for (const JsonValue& node : all.elements) {
        const JsonValue* const names = node.Find("logicalname");
        if (names == nullptr) continue;
        const bool isList = names->kind == JsonValue::kArray && !names->elements.empty();
        const KemdInventoryItem* const item =
            ByDevice(isList ? names->elements[0].text : names->text);
        if (item == nullptr) continue;
        Equal(*item, node,
              {{"vendor", "vendor"},
               {"product", "model"},
               {"version", "firmware"},
               {"size", "size"}});
        // In decimal where ours, a card's, is hexadecimal.
        const std::string ours = item->Text("serial");
        const bool isHex = ours.starts_with("0x");
        const std::string number = std::to_string(std::strtoull(ours.c_str(), nullptr, 16));
        Equal(*item, "serial",
              isHex && Value(node, "serial") == number ? ours : Value(node, "serial"));
        const JsonValue* const settings = node.Find("configuration");
        if (settings == nullptr) continue;
        Equal(
            *item, *settings,
            {{"logicalsectorsize", "logical_sector_size"}, {"sectorsize", "physical_sector_size"}});
    }
}

}  // namespace
