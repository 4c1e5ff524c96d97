// Items of network interfaces that have hardware.
#include <algorithm>
#include <charconv>

#include "inventory/host_inventory.h"
#include "inventory/pci_function.h"
#include "inventory/sources.h"
#include "inventory/sys_directory.h"
#include "network/view.h"

namespace {

struct Port {
    InterfaceView view;
    std::string bus;
    std::string address;
    std::optional<PciAddress> pci;
};

std::vector<Port> PortsOf(const NetworkView& view) {
    std::vector<Port> ports;
    for (const InterfaceView interface : view.Interfaces()) {
        Port port{interface, interface.TextOr(KEMD_NET_BUS), interface.TextOr(KEMD_NET_BUS_ADDRESS),
                  std::nullopt};
        // Drivers of virtual ones report a bus, too: "tun".
        if (port.address.empty() || interface.TextOr(KEMD_NET_KIND) != "physical") continue;
        if (port.bus == "pci") port.pci = PciAddress::Parse(port.address);
        // The function that a virtio device belongs to is above it.
        if (port.bus == "virtio") {
            const std::string name = interface.TextOr(KEMD_NET_NAME);
            port.pci = PciAddressInPath(RealPath("/sys/class/net/" + name + "/device"));
        }
        ports.push_back(std::move(port));
    }
    return ports;
}

void AddText(KemdInventoryItem& item, InventoryField field, const Port& port, uint32_t source) {
    item.Add(field, port.view.TextOr(source));
}

void AddNumber(KemdInventoryItem& item, InventoryField field, const Port& port, uint32_t source) {
    if (const auto number = port.view.Number(source)) item.AddNumber(field, *number);
}

// Of "1000baseT/Full", "10000baseSR/Full" ... the highest.
uint64_t MostSpeed(const Port& port) {
    uint64_t most = 0;
    for (const std::string& mode : port.view.List(KEMD_NETWORK_SUPPORTED_MODES)) {
        uint64_t speed = 0;
        const char* const end = mode.data() + mode.size();
        const auto result = std::from_chars(mode.data(), end, speed);
        if (result.ec == std::errc() && result.ptr != end) most = std::max(most, speed);
    }
    return most;
}

void AddFields(KemdInventoryItem& item, const Port& port) {
    AddText(item, "type", port, KEMD_NET_TYPE);
    AddText(item, "mac", port, KEMD_NET_MAC);
    AddText(item, "permanent_mac", port, KEMD_NET_PERMANENT_MAC);
    AddText(item, "driver", port, KEMD_NET_DRIVER);
    AddText(item, "driver_version", port, KEMD_NET_DRIVER_VERSION);
    AddText(item, "firmware", port, KEMD_NET_FIRMWARE);
    AddText(item, "bus", port, KEMD_NET_BUS);
    AddText(item, "address", port, KEMD_NET_BUS_ADDRESS);
    AddNumber(item, "numa_node", port, KEMD_NET_NUMA_NODE);
    // Of an interface that is off the carrier says nothing.
    const bool isDetected = port.view.Number(KEMD_NET_LINK_DETECTED).has_value();
    AddNumber(item, "link", port, isDetected ? KEMD_NET_LINK_DETECTED : KEMD_NET_CARRIER);
    AddNumber(item, "speed", port, KEMD_NET_SPEED);
    AddText(item, "duplex", port, KEMD_NET_DUPLEX);
    if (const uint64_t most = MostSpeed(port); most != 0) item.AddNumber("speed_max", most);
    AddText(item, "port", port, KEMD_NET_PORT);
    AddText(item, "port_name", port, KEMD_NET_PORT_NAME);
}

// The item of the interface that belongs to the same card's physical function.
const Port* PhysicalPort(KemdInventory& inventory, const Port& port,
                         const std::vector<Port>& ports) {
    if (!port.pci) return nullptr;
    const SysDirectory directory(inventory, "/sys/bus/pci/devices/" + port.pci->Text());
    const auto physical = PciAddress::Parse(directory.LinkName("physfn"));
    const auto found = std::find_if(ports.begin(), ports.end(), [&](const Port& each) {
        return physical && each.pci == physical;
    });
    return found == ports.end() ? nullptr : &*found;
}

std::string IdOf(const Port& port) {
    const std::string name = port.view.TextOr(KEMD_NET_PORT_NAME);
    // The numbers of virtio devices change when one is added.
    const std::string place = port.pci ? port.pci->Id() : port.bus + ":" + port.address;
    return "interface:" + place + (name.empty() ? "" : ":" + name);
}

void AddRelations(KemdInventory& inventory, KemdInventoryItem& item, const Port& port,
                  const std::vector<Port>& ports) {
    if (port.pci) {
        item.parent = port.pci->Id();
        const unsigned slot = PciSlotOf(inventory, *port.pci);
        if (slot != 0) item.Add("slot", std::to_string(slot));
    }
    // "1-1.2:1.0" is the interface of the USB device.
    if (port.bus == "usb") item.parent = "usb:" + port.address.substr(0, port.address.find(':'));
    const Port* const physical = PhysicalPort(inventory, port, ports);
    if (physical != nullptr) item.Add("virtual_function_of", IdOf(*physical));
}

}  // namespace

void ScanInterfaces(KemdInventory& inventory) {
    std::string error;
    const auto view = NetworkView::Take(KEMD_NETWORK_HARDWARE, error);
    if (!view) return inventory.Note("network interfaces", error);
    for (const std::string& note : view->Notes()) inventory.Note("network interfaces", note);
    const std::vector<Port> ports = PortsOf(*view);
    std::vector<std::optional<PciAddress>> addresses;
    addresses.reserve(ports.size());
    for (const Port& port : ports) addresses.push_back(port.pci);
    const std::vector<PciNames> names = NamePciFunctions(inventory, addresses);
    for (size_t i = 0; i < ports.size(); ++i) {
        const Port& port = ports[i];
        KemdInventoryItem& item =
            inventory.Add(ItemKind::kInterface, IdOf(port), port.view.TextOr(KEMD_NET_NAME));
        item.Add("vendor", names[i].vendor);
        item.Add("model", names[i].device);
        AddFields(item, port);
        AddRelations(inventory, item, port, ports);
    }
}
