// PCI functions out of /sys/bus/pci/devices.
#include <algorithm>
#include <charconv>
#include <filesystem>

#include "base/text.h"
#include "inventory/pci_function.h"
#include "inventory/sys_directory.h"

namespace {

constexpr const char* kDevices = "/sys/bus/pci/devices";

template <typename Number>
std::string_view TakeHex(std::string_view text, Number& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number, 16);
    text.remove_prefix(static_cast<size_t>(result.ptr - text.data()));
    return text.substr(text.empty() ? 0 : 1);  // the colon
}

// The driver, the class and all ids are in this one attribute.
bool TakeUevent(std::string_view text, PciFunction& function) {
    bool hasIds = false;
    bool hasClass = false;
    while (!text.empty()) {
        const std::string_view line = TakeLine(text);
        const size_t equals = std::min(line.find('='), line.size());
        const std::string_view name = line.substr(0, equals);
        const std::string_view value = line.substr(std::min(equals + 1, line.size()));
        if (name == "DRIVER") function.driver = value;
        if (name == "MODALIAS") function.modalias = value;
        if (name == "PCI_CLASS") TakeHex(value, function.classCode);
        if (name == "PCI_ID") TakeHex(TakeHex(value, function.vendor), function.device);
        if (name == "PCI_SUBSYS_ID") {
            TakeHex(TakeHex(value, function.subsystemVendor), function.subsystem);
        }
        hasIds |= name == "PCI_ID";
        hasClass |= name == "PCI_CLASS";
    }
    return hasIds && hasClass;
}

bool TakeIds(const SysDirectory& directory, PciFunction& function) {
    const auto classCode = directory.Number("class");
    const auto vendor = directory.Number("vendor");
    const auto device = directory.Number("device");
    if (!classCode || !vendor || !device) return false;
    function.classCode = static_cast<uint32_t>(*classCode & 0xFFFFFF);
    function.vendor = static_cast<uint16_t>(*vendor);
    function.device = static_cast<uint16_t>(*device);
    function.subsystemVendor =
        static_cast<uint16_t>(directory.Number("subsystem_vendor").value_or(0));
    function.subsystem = static_cast<uint16_t>(directory.Number("subsystem_device").value_or(0));
    function.driver = directory.LinkName("driver");
    function.modalias = directory.Text("modalias").value_or("");
    return true;
}

void TakeRegions(const SysDirectory& directory, PciFunction& function) {
    const std::string text = directory.Text("resource").value_or("");
    std::string_view rest = text;
    for (unsigned number = 0; !rest.empty(); ++number) {
        auto region = ParsePciResource(TakeLine(rest), number);
        if (region) function.regions.push_back(std::move(*region));
    }
}

void TakeLink(const SysDirectory& directory, PciFunction& function) {
    const auto speed = directory.Text("max_link_speed");
    if (!speed) return;
    // The kernel says 255 for a width that it does not know.
    const auto width = [&directory](const char* name) {
        const uint64_t lanes = directory.Number(name).value_or(0);
        return lanes > 64 ? 0 : static_cast<unsigned>(lanes);
    };
    function.mostLinkSpeed = ParsePciLinkSpeed(*speed);
    function.mostLinkWidth = width("max_link_width");
    function.linkSpeed = ParsePciLinkSpeed(directory.Text("current_link_speed").value_or(""));
    function.linkWidth = width("current_link_width");
}

// The sum is the number at the end: "TOTAL_ERR_COR 3".
std::optional<uint64_t> TotalErrors(const SysDirectory& directory, const char* name) {
    const auto text = directory.Text(name);
    if (!text) return std::nullopt;
    const std::string_view last = std::string_view(*text).substr(text->rfind(' ') + 1);
    uint64_t number = 0;
    const auto result = std::from_chars(last.data(), last.data() + last.size(), number);
    if (result.ec != std::errc()) return std::nullopt;
    return number;
}

std::optional<uint64_t> Decimal(const std::string& text) {
    uint64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc()) return std::nullopt;
    return number;
}

void TakeAttributes(const SysDirectory& directory, PciFunction& function) {
    function.revision = directory.Number("revision");
    function.irq = directory.Number("irq");
    function.numaNode = directory.Number("numa_node");
    function.isEnabled = directory.Number("enable");
    function.powerState = directory.Text("power_state").value_or("");
    function.label = directory.Text("label").value_or("");
    function.driverModule = directory.LinkName("driver/module");
    function.iommuGroup = Decimal(directory.LinkName("iommu_group"));
    function.mostVirtualFunctions = directory.Number("sriov_totalvfs");
    if (function.mostVirtualFunctions) function.virtualFunctions = directory.Number("sriov_numvfs");
    function.physicalFunction = PciAddress::Parse(directory.LinkName("physfn"));
    function.correctableErrors = TotalErrors(directory, "aer_dev_correctable");
    if (function.correctableErrors) {
        function.nonfatalErrors = TotalErrors(directory, "aer_dev_nonfatal");
        function.fatalErrors = TotalErrors(directory, "aer_dev_fatal");
    }
    TakeRegions(directory, function);
    TakeLink(directory, function);
}

// The function that the link in /sys/bus/pci/devices passes on its way to the device.
std::optional<PciAddress> ParentOf(const std::string& path) {
    std::error_code error;
    const std::string target = std::filesystem::read_symlink(path, error).string();
    const size_t slash = target.rfind('/');
    if (error || slash == target.npos) return std::nullopt;
    return PciAddressInPath(std::string_view(target).substr(0, slash));
}

}  // namespace

std::optional<std::vector<PciFunction>> ReadPciFromSysfs(KemdInventory& inventory) {
    const SysDirectory devices(inventory, kDevices);
    if (!devices.IsThere()) return std::nullopt;
    std::vector<PciFunction> functions;
    for (const std::string& name : devices.Names()) {
        const auto address = PciAddress::Parse(name);
        const SysDirectory directory = devices.Below(name.c_str());
        if (!address || !directory.IsThere()) continue;
        PciFunction function;
        function.address = *address;
        // One that has gone in between has none of them.
        if (!TakeUevent(directory.Text("uevent").value_or(""), function) &&
            !TakeIds(directory, function)) {
            continue;
        }
        function.parent = ParentOf(directory.Path());
        TakeAttributes(directory, function);
        functions.push_back(std::move(function));
    }
    std::sort(functions.begin(), functions.end(),
              [](const PciFunction& a, const PciFunction& b) { return a.address < b.address; });
    return functions;
}
