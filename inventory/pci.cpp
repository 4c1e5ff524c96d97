// Items of PCI functions: names, slots, and what their links are held against.
#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <map>

#include "inventory/host_inventory.h"
#include "inventory/id_names.h"
#include "inventory/pci_classes.h"
#include "inventory/pci_function.h"
#include "inventory/sources.h"
#include "inventory/sys_directory.h"

namespace {

using Functions = std::vector<PciFunction>;

std::string Hex(uint64_t number, int digits) {
    std::array<char, 20> text{};
    std::snprintf(text.data(), text.size(), "%0*" PRIx64, digits, number);
    return text.data();
}

bool HasSubsystem(const PciFunction& function) {
    return function.subsystemVendor != 0 && function.subsystemVendor != 0xFFFF;
}

const PciFunction* Find(const Functions& functions, const std::optional<PciAddress>& address) {
    if (!address) return nullptr;
    const auto found = std::lower_bound(
        functions.begin(), functions.end(), *address,
        [](const PciFunction& function, const PciAddress& at) { return function.address < at; });
    return found == functions.end() || found->address != *address ? nullptr : &*found;
}

IdNames ReadNames(KemdInventory& inventory, const Functions& functions) {
    IdNames names;
    for (const PciFunction& function : functions) {
        names.WantClass(function.classCode);
        names.WantDevice(function.vendor, function.device);
        if (!HasSubsystem(function)) continue;
        names.WantSubsystem(function.vendor, function.device, function.subsystemVendor,
                            function.subsystem);
    }
    names.ReadPci(inventory);
    return names;
}

std::string_view ClassName(const IdNames& names, uint32_t code) {
    if (const auto name = names.Subclass(code); !name.empty()) return name;
    if (const auto name = names.BaseClass(code); !name.empty()) return name;
    return PciClassName(static_cast<uint16_t>(code >> 8));
}

void AddNames(KemdInventoryItem& item, const PciFunction& function, const IdNames& names) {
    const uint32_t code = function.classCode;
    item.Add("address", function.address.Text());
    item.Add("class", ClassName(names, code));
    item.Add("class_id", Hex(code >> 8, 4));
    item.Add("vendor", names.Vendor(function.vendor));
    item.Add("vendor_id", Hex(function.vendor, 4));
    item.Add("device", names.Device(function.vendor, function.device));
    item.Add("device_id", Hex(function.device, 4));
    if (HasSubsystem(function)) {
        item.Add("subsystem_vendor", names.Vendor(function.subsystemVendor));
        item.Add("subsystem_vendor_id", Hex(function.subsystemVendor, 4));
        item.Add("subsystem", names.Subsystem(function.vendor, function.device,
                                              function.subsystemVendor, function.subsystem));
        item.Add("subsystem_id", Hex(function.subsystem, 4));
    }
    if (function.revision) item.Add("revision", Hex(*function.revision & 0xFF, 2));
    item.Add("programming_interface", Hex(code & 0xFF, 2));
    item.Add("programming_interface_name", names.ProgrammingInterface(code));
    item.Add("label", function.label);
}

void AddModules(KemdInventoryItem& item, const PciFunction& function,
                const std::vector<std::string>& modules) {
    item.Add("driver", function.driver);
    item.Add("module", function.driverModule);
    for (const std::string& module : modules) {
        if (module != function.driverModule) item.Add("module", module);
    }
}

void AddIfKnown(KemdInventoryItem& item, InventoryField field, std::optional<uint64_t> number) {
    if (number) item.AddNumber(field, *number);
}

void AddIfNotZero(KemdInventoryItem& item, InventoryField field, uint64_t number) {
    if (number != 0) item.AddNumber(field, number);
}

void AddRegions(KemdInventoryItem& item, const PciFunction& function) {
    constexpr unsigned kFirstVirtual = 7;
    for (const PciRegion& region : function.regions) {
        switch (region.use) {
            case PciRegion::Use::kBar:
                item.Add("bar", std::to_string(region.number) + ": " + region.text);
                break;
            case PciRegion::Use::kRom:
                item.Add("rom", region.text);
                break;
            case PciRegion::Use::kVirtualFunctionBar:
                item.Add("virtual_function_bar",
                         std::to_string(region.number - kFirstVirtual) + ": " + region.text);
                break;
            case PciRegion::Use::kWindow:
                item.Add("window", region.text);
                break;
        }
    }
}

void AddState(KemdInventoryItem& item, const PciFunction& function) {
    AddIfNotZero(item, "irq", function.irq.value_or(0));
    AddIfKnown(item, "iommu_group", function.iommuGroup);
    AddIfKnown(item, "numa_node", function.numaNode);
    if (function.isEnabled) item.AddNumber("enabled", *function.isEnabled != 0 ? 1 : 0);
    item.Add("power_state", function.powerState);
    AddRegions(item, function);
    if (function.mostVirtualFunctions.value_or(0) != 0) {
        item.AddNumber("virtual_functions", function.virtualFunctions.value_or(0));
        item.AddNumber("virtual_functions_max", *function.mostVirtualFunctions);
    }
    if (function.physicalFunction) item.Add("physical_function", function.physicalFunction->Id());
    AddIfKnown(item, "correctable_errors", function.correctableErrors);
    AddIfKnown(item, "nonfatal_errors", function.nonfatalErrors);
    AddIfKnown(item, "fatal_errors", function.fatalErrors);
}

// Whether the link that the function tells about is the one below it: of a port that has none like
// that above it. The ports of a switch take turns.
bool IsDownstreamPort(const Functions& functions, const PciFunction& function) {
    bool isDownstream = false;
    const PciFunction* bridge = &function;
    for (int depth = 0; bridge != nullptr && bridge->IsBridge() && depth < 256; ++depth) {
        isDownstream = !isDownstream;
        bridge = Find(functions, bridge->parent);
    }
    return isDownstream;
}

// The port above the function's link; null when it is not known.
const PciFunction* PortAbove(const Functions& functions, const PciFunction& function) {
    const PciFunction* const port = Find(functions, function.parent);
    const bool isPort =
        port != nullptr && port->mostLinkWidth != 0 && IsDownstreamPort(functions, *port);
    return isPort ? port : nullptr;
}

// What the link lacks: against the port, when it is known.
void MarkLink(KemdInventoryItem& item, const PciFunction& function, const PciFunction* port) {
    unsigned width = function.mostLinkWidth;
    unsigned speed = 0;
    if (port != nullptr) {
        if (port->mostLinkWidth < width) item.Add("link_limited", "width");
        if (port->mostLinkSpeed < function.mostLinkSpeed) item.Add("link_limited", "speed");
        width = std::min(port->mostLinkWidth, width);
        speed = std::min(port->mostLinkSpeed, function.mostLinkSpeed);
    }
    if (function.linkWidth != 0 && function.linkWidth < width) item.Add("link_degraded", "width");
    if (function.linkSpeed != 0 && function.linkSpeed < speed) item.Add("link_degraded", "speed");
}

void AddLink(KemdInventoryItem& item, const PciFunction& function, const Functions& functions) {
    AddIfNotZero(item, "link_speed", function.linkSpeed);
    AddIfNotZero(item, "link_speed_max", function.mostLinkSpeed);
    AddIfNotZero(item, "link_width", function.linkWidth);
    AddIfNotZero(item, "link_width_max", function.mostLinkWidth);
    if (function.physicalFunction || function.mostLinkWidth == 0) return;
    const PciFunction* const port = PortAbove(functions, function);
    // A virtual machine has cards without their ports: then their own width counts. What a bridge
    // says may be about the link below it.
    if (port == nullptr && function.IsBridge()) return;
    if (port != nullptr) {
        AddIfNotZero(item, "port_speed_max", port->mostLinkSpeed);
        AddIfNotZero(item, "port_width_max", port->mostLinkWidth);
    }
    // All functions of a card share the link.
    if (function.address.function == 0) MarkLink(item, function, port);
}

// Slots as the firmware numbers them, and as hot-plug drivers name them.
class SlotFinder {
  public:
    explicit SlotFinder(KemdInventory& inventory) {
        const SysDirectory slots(inventory, "/sys/bus/pci/slots");
        for (const std::string& name : slots.Names()) {
            m_physical[slots.Text((name + "/address").c_str()).value_or("")] = name;
        }
    }
    // Functions come after their bridges.
    void Add(KemdInventoryItem& item, const PciFunction& function) {
        const unsigned slot = NumberOf(function);
        m_numbers[function.address] = slot;
        if (slot != 0) item.Add("slot", std::to_string(slot));
        const std::string address = function.address.Text();  // "0000:03:00.0"
        for (const size_t length : {address.size() - 2, address.size() - 5}) {
            const auto physical = m_physical.find(address.substr(0, length));
            if (physical != m_physical.end() && item.Find("physical_slot") == nullptr) {
                item.Add("physical_slot", physical->second);
            }
        }
    }

  private:
    [[nodiscard]] unsigned NumberOf(const PciFunction& function) const {
        const unsigned slot = PciSlotNumber(CPciSlotMap::GetSlotMapping(), CPciSlotMap::Source(),
                                            function.address, function.parent.has_value());
        if (slot != 0 || !function.parent) return slot;
        // What a card's bridge leads to is in the card's slot.
        const auto parent = m_numbers.find(*function.parent);
        return parent == m_numbers.end() ? 0 : parent->second;
    }

    std::map<std::string, std::string, std::less<>> m_physical;
    std::map<PciAddress, unsigned> m_numbers;
};

}  // namespace

void ScanPci(KemdInventory& inventory) {
    auto read = ReadPciFromSysfs(inventory);
    const Functions functions = read ? std::move(*read) : ReadPciFromProc(inventory);
    if (!read && functions.empty()) {
        inventory.Note("/sys/bus/pci", "not there, nor is /proc/bus/pci: no PCI functions");
    }
    if (functions.empty()) return;
    const IdNames names = ReadNames(inventory, functions);
    const auto modules = FindPciModules(inventory, functions);
    SlotFinder slots(inventory);
    for (size_t i = 0; i < functions.size(); ++i) {
        const PciFunction& function = functions[i];
        KemdInventoryItem& item =
            inventory.Add(ItemKind::kPci, function.address.Id(), function.address.Text());
        if (function.parent) item.parent = function.parent->Id();
        AddNames(item, function, names);
        slots.Add(item, function);
        AddModules(item, function, modules[i]);
        AddState(item, function);
        AddLink(item, function, functions);
    }
}
