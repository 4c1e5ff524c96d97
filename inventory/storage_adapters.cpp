#include "inventory/storage_adapters.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "inventory/drive_identity.h"
#include "inventory/drive_path.h"
#include "inventory/host_inventory.h"
#include "inventory/pci_function.h"
#include "inventory/sys_directory.h"

namespace {

bool IsClassDevice(const char* deviceClass, const std::string& name) {
    return access(("/sys/class/" + std::string(deviceClass) + "/" + name).c_str(), F_OK) == 0;
}

std::string HostInterface(const DrivePath& path, std::string_view driver) {
    if (IsClassDevice("fc_host", path.host)) return "fc";
    if (IsClassDevice("sas_host", path.host)) return "sas";
    if (IsClassDevice("iscsi_host", path.host)) return "iscsi";
    if (!path.usb.empty()) return "usb";
    if (driver.starts_with("ahci") || driver.starts_with("sata")) return "sata";
    return driver.find("ata") == driver.npos ? "scsi" : "ide";
}

// What drivers call it: each has its own words.
void AddHostVersions(const SysDirectory& host, KemdInventoryItem& adapter) {
    struct Attribute {
        const char* name;
        InventoryField field;
    };
    static constexpr auto kAttributes = std::to_array<Attribute>({
        {"version_fw", "firmware"},
        {"fwrev", "firmware"},
        {"fw_version", "firmware"},
        {"firmware_version", "firmware"},
        {"firmware_revision", "firmware"},
        {"host_fw_version", "firmware"},
        {"hba_kernel_version", "firmware"},
        {"version_bios", "bios_version"},
        {"optrom_bios_version", "bios_version"},
        {"option_rom_version", "bios_version"},
        {"hba_bios_version", "bios_version"},
        {"host_fw_bios_version", "bios_version"},
        {"board_name", "model"},
        {"model_name", "model"},
        {"modelname", "model"},
        {"model", "model"},
        {"vendor", "vendor"},
        {"board_tracer", "serial"},
        {"serial_num", "serial"},
        {"serialnum", "serial"},
        {"serial_number", "serial"},
        {"host_sas_address", "sas_address"},
    });
    const std::vector<std::string> names = host.Names();
    for (const auto& [name, field] : kAttributes) {
        if (!std::binary_search(names.begin(), names.end(), name)) continue;
        if (adapter.Find(field) == nullptr) adapter.Add(field, host.Text(name).value_or(""));
    }
    adapter.Add("state", host.Text("state").value_or(""));
}

}  // namespace

StorageAdapters::StorageAdapters(KemdInventory& inventory) : m_inventory(&inventory) {
    std::vector<std::string> hosts = SysDirectory(inventory, "/sys/class/scsi_host").Names();
    // "host2" before "host10".
    std::stable_sort(hosts.begin(), hosts.end(),
                     [](const auto& one, const auto& other) { return one.size() < other.size(); });
    for (const std::string& name : hosts) AddHost(name);
    for (const auto& [adapter, count] : m_ports) inventory.Find(adapter)->AddNumber("ports", count);
    for (const std::string& name : SysDirectory(inventory, "/sys/class/nvme").Names()) {
        AddNvme(name);
    }
}

const StorageAdapters::Host* StorageAdapters::FindHost(const std::string& name) const {
    const auto found = m_hosts.find(name);
    return found == m_hosts.end() ? nullptr : &found->second;
}

std::string StorageAdapters::NvmeId(const std::string& name) const {
    const auto found = m_nvme.find(name);
    return found == m_nvme.end() ? std::string() : found->second;
}

KemdInventoryItem& StorageAdapters::FindOrAdd(const DrivePath& path, const std::string& name) {
    const std::string id = "storage_adapter:" + IdPart(path.Hardware());
    KemdInventoryItem* const found = m_inventory->Find(id);
    if (found != nullptr) return *found;
    KemdInventoryItem& adapter = m_inventory->Add(ItemKind::kStorageAdapter, id, name);
    adapter.parent = path.HardwareId();
    const auto address = PciAddress::Parse(path.pci);
    const unsigned slot = address ? PciSlotOf(*m_inventory, *address) : 0;
    if (slot != 0) adapter.Add("slot", std::to_string(slot));
    return adapter;
}

void StorageAdapters::AddHost(const std::string& name) {
    const SysDirectory host(*m_inventory, "/sys/class/scsi_host/" + name);
    const std::string real = RealPath(host.Path());
    if (real.empty()) return;
    DrivePath path(real);
    std::string driver = host.Text("proc_name").value_or("");
    // Some drivers give no name there.
    if (driver == "(null)") {
        const std::string device = real.substr(0, real.find("/" + name + "/"));
        driver = SysDirectory(*m_inventory, device).LinkName("driver");
    }
    // Hosts of software have no hardware: one adapter for all of a driver's.
    if (path.HardwareId().empty() && !driver.empty()) path.unit = driver;
    const std::string interface = HostInterface(path, driver);
    const size_t count = m_inventory->items.size();
    KemdInventoryItem& adapter =
        FindOrAdd(path, driver.empty() ? path.Hardware() : driver + " " + path.Hardware());
    if (m_inventory->items.size() != count) {
        adapter.Add("driver", driver);
        adapter.Add("interface", interface);
        AddHostVersions(host, adapter);
    }
    adapter.Add("hosts", name);
    if (!path.ata.empty()) ++m_ports[adapter.id];
    if (interface == "fc") {
        const SysDirectory port(*m_inventory, "/sys/class/fc_host/" + name);
        adapter.Add("wwn", port.Text("port_name").value_or(""));
    }
    m_hosts[name] = {interface, adapter.id};
}

void StorageAdapters::AddNvme(const std::string& name) {
    const SysDirectory controller(*m_inventory, "/sys/class/nvme/" + name);
    const std::string real = RealPath(controller.Path());
    if (real.empty()) return;
    DrivePath path(real);
    const std::string address = controller.Text("address").value_or("");
    if (path.pci.empty()) path.unit = address.empty() ? name : address;
    KemdInventoryItem& adapter = FindOrAdd(path, name);
    adapter.name = name;
    adapter.Add("driver", "nvme");
    adapter.Add("interface", "nvme");
    adapter.Add("transport", controller.Text("transport").value_or(""));
    adapter.Add("address", address);
    adapter.Add("model", controller.Text("model").value_or(""));
    adapter.Add("serial", controller.Text("serial").value_or(""));
    adapter.Add("firmware", controller.Text("firmware_rev").value_or(""));
    adapter.Add("subsystem_nqn", controller.Text("subsysnqn").value_or(""));
    adapter.Add("state", controller.Text("state").value_or(""));
    if (const auto number = controller.Number("cntlid"))
        adapter.AddNumber("controller_id", *number);
    if (const auto node = controller.Number("numa_node")) adapter.AddNumber("numa_node", *node);
    m_nvme[name] = adapter.id;
}

std::string StorageAdapters::UnitId(const DrivePath& path, std::string_view devicePath,
                                    std::string_view interface) {
    if (path.Hardware().empty()) return {};
    // A card "mmc0:0001" sits at the host "mmc0".
    const bool isCard = interface == "mmc";
    const std::string name = isCard ? path.unit.substr(0, path.unit.find(':')) : path.unit;
    KemdInventoryItem& adapter = FindOrAdd(path, name);
    if (adapter.Find("interface") == nullptr) {
        const SysDirectory device(*m_inventory, isCard ? "/sys/class/mmc_host/" + name + "/device"
                                                       : std::string(devicePath));
        adapter.Add("driver", device.LinkName("driver"));
        adapter.Add("interface", interface);
    }
    return adapter.id;
}
