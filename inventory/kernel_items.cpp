// The running kernel, the TPMs that it drives, and firmware texts that it shows to everybody.
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "base/file_io.h"
#include "base/text.h"
#include "inventory/smbios_words.h"
#include "inventory/sys_directory.h"
#include "inventory/system_items.h"
#include "inventory/udev_database.h"

namespace {

constexpr const char* kCpuDirectory = "/sys/devices/system/cpu";

// The value of a line "NAME=value" or "NAME: value".
std::string_view ValueOf(std::string_view text, std::string_view name) {
    while (!text.empty()) {
        const std::string_view line = TakeLine(text);
        if (line.starts_with(name)) return Trim(line.substr(name.size()), " \t\"'");
    }
    return {};
}

std::string OperatingSystem() {
    auto text = ReadTextFile("/etc/os-release");
    if (!text) text = ReadTextFile("/usr/lib/os-release");
    return std::string(ValueOf(text.value_or(""), "PRETTY_NAME="));
}

// A container may not see any of it, and then says nothing.
const char* BootMode() {
    if (access("/sys/firmware/efi", F_OK) == 0) return "UEFI";
    const bool isSeen =
        access("/sys/firmware/acpi", F_OK) == 0 || access("/sys/firmware/memmap", F_OK) == 0;
    return isSeen ? "BIOS" : "";
}

// A variable of the firmware: 4 bytes of attributes, then its value.
void AddSecureBoot(KemdInventory& inventory, KemdInventoryItem& item) {
    constexpr size_t kSize = 5;
    const SysDirectory variables(inventory, "/sys/firmware/efi/efivars");
    const std::string value =
        variables.Bytes("SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c", kSize);
    if (value.size() == kSize) item.AddNumber("secure_boot", value.back() == 1 ? 1 : 0);
}

void AddVulnerabilities(KemdInventory& inventory, KemdInventoryItem& item) {
    const SysDirectory directory(inventory, std::string(kCpuDirectory) + "/vulnerabilities");
    for (const std::string& name : directory.Names()) {
        const auto state = directory.Text(name.c_str());
        if (state) item.Add("vulnerabilities", name + ": " + *state);
    }
}

void AddCpuLists(KemdInventory& inventory, KemdInventoryItem& item) {
    const SysDirectory directory(inventory, kCpuDirectory);
    item.Add("cpus_online", directory.Text("online").value_or(""));
    item.Add("cpus_offline", directory.Text("offline").value_or(""));
}

struct DmiFile {
    ItemKind kind;
    const char* file;
    InventoryField field;
};
constexpr DmiFile kDmiFiles[] = {
    {ItemKind::kFirmware, "bios_vendor", "vendor"},
    {ItemKind::kFirmware, "bios_version", "version"},
    {ItemKind::kFirmware, "bios_date", "date"},
    {ItemKind::kFirmware, "bios_release", "release"},
    {ItemKind::kFirmware, "ec_firmware_release", "controller_release"},
    {ItemKind::kSystem, "sys_vendor", "vendor"},
    {ItemKind::kSystem, "product_name", "model"},
    {ItemKind::kSystem, "product_version", "version"},
    {ItemKind::kSystem, "product_serial", "serial"},
    {ItemKind::kSystem, "product_sku", "sku"},
    {ItemKind::kSystem, "product_family", "family"},
    {ItemKind::kSystem, "product_uuid", "uuid"},
    {ItemKind::kChassis, "chassis_vendor", "vendor"},
    {ItemKind::kChassis, "chassis_version", "version"},
    {ItemKind::kChassis, "chassis_serial", "serial"},
    {ItemKind::kChassis, "chassis_asset_tag", "asset_tag"},
    {ItemKind::kChassis, "chassis_type", "type"},
    {ItemKind::kBoard, "board_vendor", "vendor"},
    {ItemKind::kBoard, "board_name", "model"},
    {ItemKind::kBoard, "board_version", "version"},
    {ItemKind::kBoard, "board_serial", "serial"},
    {ItemKind::kBoard, "board_asset_tag", "asset_tag"},
};

// As the items of the tables are called.
const char* DmiName(ItemKind kind) {
    if (kind == ItemKind::kFirmware) return "BIOS";
    return kind == ItemKind::kSystem ? "host" : "1";
}

}  // namespace

void AddDmiItems(KemdInventory& inventory) {
    const std::string path = "/sys/class/dmi/id";
    const SysDirectory directory(inventory, path);
    KemdInventoryItem* item = nullptr;
    for (const DmiFile& each : kDmiFiles) {
        // Serial numbers are for root alone; one note says so for all.
        if (access((path + "/" + each.file).c_str(), R_OK) != 0) continue;
        std::string text = directory.Text(each.file).value_or("");
        if (text.empty()) continue;
        if (item == nullptr || item->kind != each.kind) {
            const std::string name = DmiName(each.kind);
            item = &inventory.Add(each.kind, std::string(KindWord(each.kind)) + ":" + name, name);
        }
        if (std::string_view(each.file) == "chassis_type") {
            text = SmbiosWord(kChassisWords,
                              static_cast<uint8_t>(std::strtoul(text.c_str(), nullptr, 10)));
        }
        item->Add(each.field, text);
        if (each.field == InventoryField("model")) item->name = item->Text("model");
    }
}

void AddTpmDevices(KemdInventory& inventory) {
    const SysDirectory devices(inventory, "/sys/class/tpm");
    KemdInventoryItem* const known = inventory.Find("tpm:1");
    for (const std::string& name : devices.Names()) {
        const bool isFirst = known != nullptr && known->Find("device") == nullptr;
        KemdInventoryItem& item =
            isFirst ? *known : inventory.Add(ItemKind::kTpm, "tpm:" + name, name);
        item.name = name;
        item.Add("device", name);
        const SysDirectory device = devices.Below(name.c_str());
        item.Add("driver", device.LinkName("device/driver"));
        const uint64_t major = device.Number("tpm_version_major").value_or(0);
        if (item.Find("version") == nullptr && major != 0) {
            item.Add("version", major == 1 ? "1.2" : std::to_string(major) + ".0");
        }
    }
}

void AddKernel(KemdInventory& inventory) {
    utsname names{};
    (void)uname(&names);
    KemdInventoryItem& item = inventory.Add(ItemKind::kKernel, "kernel:running", names.sysname);
    item.Add("release", names.release);
    item.Add("version", names.version);
    item.Add("architecture", names.machine);
    item.Add("host_name", names.nodename);
    item.Add("operating_system", OperatingSystem());
    item.Add("boot_mode", BootMode());
    AddSecureBoot(inventory, item);
    const std::string signature = HypervisorSignature();
    item.Add("virtualization", DetectMachine(inventory, signature));
    item.Add("hypervisor", HypervisorName(signature));
    item.Add("container", DetectContainer());
    const std::string memory = ReadTextFile("/proc/meminfo").value_or("");
    const uint64_t kib =
        std::strtoull(std::string(ValueOf(memory, "MemTotal:")).c_str(), nullptr, 10);
    if (kib != 0) item.AddNumber("memory_total", kib << 10);
    AddCpuLists(inventory, item);
    AddVulnerabilities(inventory, item);
}
