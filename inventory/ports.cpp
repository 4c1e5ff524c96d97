// Items of graphics adapters and serial ports.
#include <algorithm>
#include <array>
#include <map>

#include "base/text.h"
#include "inventory/host_inventory.h"
#include "inventory/pci_function.h"
#include "inventory/sources.h"
#include "inventory/sys_directory.h"

namespace {

// What the kernel's classes "drm" and "graphics" know of one adapter.
struct Adapter {
    std::string card;  // "card0"; empty without a driver for it
    std::string driver;
    std::vector<std::string> connectors;
    std::vector<std::string> framebuffers;
};
// By the place in /sys/devices: adapters on PCI, and those of the platform.
using Adapters = std::map<std::string, Adapter>;

bool IsNumbered(std::string_view name, std::string_view start) {
    return name.starts_with(start) && name.size() > start.size() &&
           name.find_first_not_of("0123456789", start.size()) == name.npos;
}

// "HDMI-A-1 connected 1920x1080"
std::string ConnectorText(const SysDirectory& card, const std::string& name, size_t start) {
    const SysDirectory directory = card.Below(name.c_str());
    std::string text = name.substr(start) + " " + directory.Text("status").value_or("unknown");
    const std::string modes = directory.Text("modes").value_or("");
    std::string_view rest = modes;
    const std::string_view best = TakeLine(rest);
    if (!best.empty()) text.append(" ").append(best);
    return text;
}

void FindCards(KemdInventory& inventory, Adapters& adapters) {
    const std::string base = "/sys/class/drm";
    for (const std::string& name : SysDirectory(inventory, base).Names()) {
        if (!IsNumbered(name, "card")) continue;
        const SysDirectory card(inventory, std::string(base).append("/").append(name));
        const std::string path = RealPath(card.Path() + "/device");
        if (path.empty()) continue;
        Adapter& adapter = adapters[path];
        adapter.card = name;
        adapter.driver = card.LinkName("device/driver");
        for (const std::string& below : card.Names()) {
            if (!below.starts_with(name + "-")) continue;
            adapter.connectors.push_back(ConnectorText(card, below, name.size() + 1));
        }
    }
}

void FindFramebuffers(KemdInventory& inventory, Adapters& adapters) {
    const std::string base = "/sys/class/graphics";
    for (const std::string& name : SysDirectory(inventory, base).Names()) {
        if (!IsNumbered(name, "fb")) continue;
        const SysDirectory directory(inventory, std::string(base).append("/").append(name));
        std::string size = directory.Text("virtual_size").value_or("");
        std::replace(size.begin(), size.end(), ',', 'x');
        const std::string path = RealPath(directory.Path() + "/device");
        if (path.empty()) continue;
        Adapter& adapter = adapters[path];
        adapter.framebuffers.push_back(name + " " + directory.Text("name").value_or("") +
                                       (size.empty() ? "" : " " + size));
        if (adapter.driver.empty()) adapter.driver = directory.LinkName("device/driver");
    }
}

// Display controllers on PCI, whether a driver has them or not.
void FindFunctions(KemdInventory& inventory, Adapters& adapters) {
    constexpr uint64_t kDisplay = 0x03;
    const std::string base = "/sys/bus/pci/devices";
    for (const std::string& name : SysDirectory(inventory, base).Names()) {
        const std::string path = std::string(base).append("/").append(name);
        const KemdInventoryItem* const item = inventory.Find("pci:" + name);
        if (item != nullptr
                ? !item->Text("class_id").starts_with("03")
                : SysDirectory(inventory, path).Number("class").value_or(0) >> 16 != kDisplay) {
            continue;
        }
        adapters.try_emplace(RealPath(path));
    }
}

void ScanGraphics(KemdInventory& inventory) {
    Adapters adapters;
    FindFunctions(inventory, adapters);
    FindCards(inventory, adapters);
    FindFramebuffers(inventory, adapters);
    std::vector<std::optional<PciAddress>> addresses;
    for (const auto& [path, adapter] : adapters) addresses.push_back(PciAddressInPath(path));
    const std::vector<PciNames> names = NamePciFunctions(inventory, addresses);
    size_t position = 0;
    for (const auto& [path, adapter] : adapters) {
        const auto& address = addresses[position];
        const PciNames& name = names[position++];
        const std::string place = address ? address->Text() : path.substr(path.rfind('/') + 1);
        KemdInventoryItem& item = inventory.Add(ItemKind::kGraphics, "graphics:" + place,
                                                adapter.card.empty() ? place : adapter.card);
        if (address) item.parent = address->Id();
        item.Add("vendor", name.vendor);
        item.Add("model", name.device);
        const SysDirectory directory(inventory, path);
        item.Add("driver", adapter.driver.empty() ? directory.LinkName("driver") : adapter.driver);
        const unsigned slot = address ? PciSlotOf(inventory, *address) : 0;
        if (slot != 0) item.Add("slot", std::to_string(slot));
        if (const auto isBoot = directory.Number("boot_vga")) {
            item.AddNumber("boot_display", *isBoot != 0 ? 1 : 0);
        }
        for (const std::string& text : adapter.connectors) item.Add("connector", text);
        for (const std::string& text : adapter.framebuffers) item.Add("framebuffer", text);
    }
}

// PORT_ of the kernel's linux/serial_core.h.
std::string UartName(uint64_t type) {
    constexpr auto kNames = std::to_array<const char*>(
        {"unknown", "8250", "16450", "16550", "16550A", "Cirrus", "16650", "16650V2", "16750",
         "Startech", "16C950", "16654", "16850", "RSA", "NS16550A"});
    return type < kNames.size() ? kNames.at(type) : "type " + std::to_string(type);
}

// The USB device that the path goes through: ".../1-1.2/1-1.2:1.0/ttyUSB0".
std::string UsbIdInPath(std::string_view path) {
    const size_t colon = path.rfind(':');
    const size_t start = path.rfind('/', colon) + 1;
    const std::string name(path.substr(start, colon - start));
    const bool isUsb =
        colon != path.npos && name.find('-') != name.npos && path.find("/usb") != path.npos;
    return isUsb ? "usb:" + name : "";
}

void AddSerialPort(KemdInventory& inventory, const std::string& name) {
    const SysDirectory directory(inventory, "/sys/class/tty/" + name);
    const auto type = directory.Number("type");
    // The driver makes ports in reserve, which have no UART.
    if (!directory.Has("device") || (type && *type == 0)) return;
    KemdInventoryItem& item = inventory.Add(ItemKind::kSerialPort, "serial_port:" + name, name);
    const std::string path = RealPath(directory.Path() + "/device");
    const auto pci = PciAddressInPath(path);
    item.parent = UsbIdInPath(path);
    if (item.parent.empty() && pci) item.parent = pci->Id();
    item.Add("device", "/dev/" + name);
    item.Add("driver", directory.LinkName("device/driver"));
    if (type) item.Add("uart", UartName(*type));
    for (const char* const attribute : {"port", "iomem_base"}) {
        if (directory.Number(attribute).value_or(0) == 0) continue;
        item.Add("io_address", directory.Text(attribute).value_or(""));
    }
    if (const uint64_t irq = directory.Number("irq").value_or(0); irq != 0) {
        item.AddNumber("irq", irq);
    }
    const std::string console = directory.Text("console").value_or("");
    if (!console.empty()) item.AddNumber("console", console == "Y" ? 1 : 0);
}

void ScanSerialPorts(KemdInventory& inventory) {
    for (const std::string& name : SysDirectory(inventory, "/sys/class/tty").Names()) {
        for (const char* const start : {"ttyS", "ttyUSB", "ttyACM", "ttyAMA"}) {
            if (IsNumbered(name, start)) AddSerialPort(inventory, name);
        }
    }
}

}  // namespace

void ScanPorts(KemdInventory& inventory) {
    ScanGraphics(inventory);
    ScanSerialPorts(inventory);
}
