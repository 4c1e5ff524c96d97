// Items of USB devices, out of /sys/bus/usb/devices.
#include <algorithm>
#include <array>
#include <charconv>

#include "base/text.h"
#include "inventory/host_inventory.h"
#include "inventory/id_names.h"
#include "inventory/pci_function.h"
#include "inventory/sources.h"
#include "inventory/sys_directory.h"

namespace {

// One of a device's interfaces: "1-1.2:1.0" of "1-1.2".
struct UsbInterface {
    std::string number;
    uint32_t classCode;
    std::string driver;
};

struct UsbDevice {
    std::string name;  // "1-1.2"; of a root hub "usb1"
    SysDirectory directory;
    uint16_t vendor;
    uint16_t product;
    uint32_t classCode;
    std::vector<UsbInterface> interfaces;
};

struct UsbClass {
    uint8_t code;
    const char* name;
};
// For hosts without usb.ids.
constexpr auto kUsbClasses = std::to_array<UsbClass>({
    {0x01, "Audio"},
    {0x02, "Communications"},
    {0x03, "Human Interface Device"},
    {0x05, "Physical Interface Device"},
    {0x06, "Imaging"},
    {0x07, "Printer"},
    {0x08, "Mass Storage"},
    {0x09, "Hub"},
    {0x0A, "CDC Data"},
    {0x0B, "Chip/SmartCard"},
    {0x0D, "Content Security"},
    {0x0E, "Video"},
    {0x0F, "Personal Healthcare"},
    {0x10, "Audio/Video"},
    {0x11, "Billboard"},
    {0xDC, "Diagnostic"},
    {0xE0, "Wireless"},
    {0xEF, "Miscellaneous Device"},
    {0xFE, "Application Specific Interface"},
    {0xFF, "Vendor Specific Class"},
});

std::string_view ClassNameOf(const IdNames& names, uint32_t code) {
    if (const auto name = names.BaseClass(code); !name.empty()) return name;
    const auto* const found =
        std::find_if(kUsbClasses.begin(), kUsbClasses.end(),
                     [code](const UsbClass& entry) { return entry.code == code >> 16; });
    return found == kUsbClasses.end() ? std::string_view() : found->name;
}

// These attributes are hexadecimal without "0x".
uint32_t Hex(const SysDirectory& directory, const char* name) {
    const std::string text = directory.Text(name).value_or("");
    uint32_t number = 0;
    (void)std::from_chars(text.data(), text.data() + text.size(), number, 16);
    return number;
}

uint32_t ClassCode(const SysDirectory& directory, bool isInterface) {
    const auto part = [&](const char* ofDevice, const char* ofInterface) {
        return Hex(directory, isInterface ? ofInterface : ofDevice) & 0xFF;
    };
    return part("bDeviceClass", "bInterfaceClass") << 16 |
           part("bDeviceSubClass", "bInterfaceSubClass") << 8 |
           part("bDeviceProtocol", "bInterfaceProtocol");
}

// Interfaces follow their device in the sorted list, though not at once: "1-1.2" comes between
// "1-1" and "1-1:1.0".
void AddInterface(const SysDirectory& bus, const std::string& name,
                  std::vector<UsbDevice>& devices) {
    std::string owner = name.substr(0, name.find(':'));
    if (owner.ends_with("-0")) owner = "usb" + owner.substr(0, owner.size() - 2);
    const auto device = std::find_if(devices.begin(), devices.end(),
                                     [&](const UsbDevice& each) { return each.name == owner; });
    if (device == devices.end()) return;
    const SysDirectory directory = bus.Below(name.c_str());
    if (!directory.Has("bInterfaceClass")) return;
    device->interfaces.push_back({std::to_string(Hex(directory, "bInterfaceNumber")),
                                  ClassCode(directory, true), directory.LinkName("driver")});
}

std::vector<UsbDevice> ReadDevices(KemdInventory& inventory) {
    const SysDirectory bus(inventory, "/sys/bus/usb/devices");
    const std::vector<std::string> names = bus.Names();
    std::vector<UsbDevice> devices;
    for (const std::string& name : names) {
        if (name.find(':') != name.npos) continue;
        SysDirectory directory = bus.Below(name.c_str());
        // One that has gone in between has none.
        if (!directory.Has("idVendor")) continue;
        const auto vendor = static_cast<uint16_t>(Hex(directory, "idVendor"));
        const auto product = static_cast<uint16_t>(Hex(directory, "idProduct"));
        const uint32_t classCode = ClassCode(directory, false);
        devices.push_back({name, std::move(directory), vendor, product, classCode, {}});
    }
    for (const std::string& name : names) {
        if (name.find(':') != name.npos) AddInterface(bus, name, devices);
    }
    return devices;
}

// "usb1" of "1-2", "1-2.4" of "1-2.4.1"; of a root hub its controller.
std::string ParentOf(const UsbDevice& device) {
    const size_t dot = device.name.rfind('.');
    const size_t dash = device.name.find('-');
    if (dot != device.name.npos) return "usb:" + device.name.substr(0, dot);
    if (dash != device.name.npos) return "usb:usb" + device.name.substr(0, dash);
    const auto controller = PciAddressInPath(RealPath(device.directory.Path()));
    return controller ? controller->Id() : "";
}

std::string HexText(uint32_t number, int digits) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%0*x", digits, number);
    return text.data();
}

// "1.5" Mbit/s gives 1500; nothing for "unknown".
uint64_t Kilobits(std::string_view text) {
    double megabits = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), megabits);
    const bool isGood = result.ec == std::errc() && megabits > 0 && megabits < 1e6;
    return isGood ? static_cast<uint64_t>(megabits * 1000 + 0.5) : 0;
}

// The number that the text starts with: "500mA".
void AddLeadingNumber(KemdInventoryItem& item, InventoryField field, const std::string& text) {
    uint64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec == std::errc()) item.AddNumber(field, number);
}

void AddNames(KemdInventoryItem& item, const UsbDevice& device, const IdNames& names) {
    const std::string manufacturer = device.directory.Text("manufacturer").value_or("");
    const std::string product = device.directory.Text("product").value_or("");
    const std::string_view vendor = names.Vendor(device.vendor);
    const std::string_view name = names.Device(device.vendor, device.product);
    item.Add("address", device.name);
    item.Add("vendor", vendor.empty() ? manufacturer : vendor);
    item.Add("vendor_id", HexText(device.vendor, 4));
    item.Add("device", name.empty() ? product : name);
    item.Add("device_id", HexText(device.product, 4));
    item.Add("manufacturer", manufacturer);
    item.Add("product", product);
    item.Add("serial", device.directory.Text("serial").value_or(""));
    if (device.classCode >> 16 != 0) item.Add("class", ClassNameOf(names, device.classCode));
    item.Add("class_id", HexText(device.classCode >> 16, 2));
    item.Add("subclass_id", HexText(device.classCode >> 8 & 0xFF, 2));
    item.Add("protocol_id", HexText(device.classCode & 0xFF, 2));
}

void AddInterfaces(KemdInventoryItem& item, const UsbDevice& device, const IdNames& names) {
    for (const UsbInterface& each : device.interfaces) {
        // "0: 08/06/50 usb-storage, Mass Storage"
        std::string text = each.number + ": " + HexText(each.classCode >> 16, 2) + "/" +
                           HexText(each.classCode >> 8 & 0xFF, 2) + "/" +
                           HexText(each.classCode & 0xFF, 2);
        text += each.driver.empty() ? " no driver" : " " + each.driver;
        const std::string_view name = ClassNameOf(names, each.classCode);
        if (!name.empty()) text.append(", ").append(name);
        item.Add("usb_interfaces", text);
        if (item.Find("driver") == nullptr) item.Add("driver", each.driver);
    }
}

void AddState(KemdInventoryItem& item, const UsbDevice& device) {
    const SysDirectory& directory = device.directory;
    const std::string release = directory.Text("bcdDevice").value_or("");
    if (release.size() == 4) item.Add("revision", release.substr(0, 2) + "." + release.substr(2));
    item.Add("usb_version", directory.Text("version").value_or(""));
    const uint64_t speed = Kilobits(directory.Text("speed").value_or(""));
    if (speed != 0) item.AddNumber("bus_speed", speed);
    AddLeadingNumber(item, "max_power", directory.Text("bMaxPower").value_or(""));
    if (const auto ports = directory.Number("maxchild"); ports.value_or(0) != 0) {
        item.AddNumber("ports", *ports);
    }
    AddLeadingNumber(item, "bus_number", directory.Text("busnum").value_or(""));
    AddLeadingNumber(item, "bus_device", directory.Text("devnum").value_or(""));
}

}  // namespace

void ScanUsb(KemdInventory& inventory) {
    const std::vector<UsbDevice> devices = ReadDevices(inventory);
    if (devices.empty()) return;
    IdNames names;
    for (const UsbDevice& device : devices) {
        names.WantDevice(device.vendor, device.product);
        names.WantClass(device.classCode);
        for (const UsbInterface& each : device.interfaces) names.WantClass(each.classCode);
    }
    names.ReadUsb(inventory);
    for (const UsbDevice& device : devices) {
        KemdInventoryItem& item = inventory.Add(ItemKind::kUsb, "usb:" + device.name, device.name);
        item.parent = ParentOf(device);
        AddNames(item, device, names);
        AddInterfaces(item, device, names);
        AddState(item, device);
    }
}
