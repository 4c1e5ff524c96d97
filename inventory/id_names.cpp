#include "inventory/id_names.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "base/file_io.h"
#include "base/line_reader.h"
#include "base/text.h"
#include "inventory/host_inventory.h"

namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// A number of exactly `digits` hexadecimal digits with a blank after it, which are taken out of the
// line.
bool TakeNumber(std::string_view& line, size_t digits, uint64_t& number) {
    if (line.size() <= digits || (line[digits] != ' ' && line[digits] != '\t')) return false;
    number = 0;
    for (const char c : line.substr(0, digits)) {
        const int digit = HexDigit(c);
        if (digit < 0) return false;
        number = number << 4 | static_cast<uint64_t>(digit);
    }
    line = TrimStart(line.substr(digits), " \t");
    return true;
}

uint64_t DeviceKey(uint16_t vendor, uint16_t device) {
    return uint64_t{vendor} << 16 | device;
}

uint64_t SubsystemKey(uint16_t vendor, uint16_t device, uint16_t subVendor, uint16_t subDevice) {
    return DeviceKey(vendor, device) << 32 | DeviceKey(subVendor, subDevice);
}

bool ReadLines(int fd, IdNames& names, int& error) {
    LineReader reader(fd);
    std::string_view line;
    bool isWhole = true;
    while (reader.Next(line)) {
        const bool isStart = isWhole;
        isWhole = line.ends_with('\n') || line.size() < LineReader::kMaxLine;
        if (isStart) names.Take(line);
    }
    error = reader.Error();
    return error == 0;
}

}  // namespace

void IdNames::WantDevice(uint16_t vendor, uint16_t device) {
    Want(kVendors, vendor);
    Want(kDevices, DeviceKey(vendor, device));
}

void IdNames::WantSubsystem(uint16_t vendor, uint16_t device, uint16_t subVendor,
                            uint16_t subDevice) {
    Want(kVendors, subVendor);
    Want(kSubsystems, SubsystemKey(vendor, device, subVendor, subDevice));
}

void IdNames::WantClass(uint32_t code) {
    Want(kClasses, code >> 16);
    Want(kSubclasses, code >> 8);
    Want(kInterfaces, code);
}

void IdNames::Prepare() {
    for (std::vector<Entry>& table : m_tables) {
        std::sort(table.begin(), table.end(),
                  [](const Entry& a, const Entry& b) { return a.key < b.key; });
        const auto end = std::unique(table.begin(), table.end(),
                                     [](const Entry& a, const Entry& b) { return a.key == b.key; });
        table.erase(end, table.end());
    }
}

void IdNames::Read(KemdInventory& inventory, std::initializer_list<const char*> paths) {
    Prepare();
    if (m_tables[kVendors].empty()) return;
    for (const char* const path : paths) {
        const UniqueFd file = OpenRegularFile(path, O_RDONLY);
        int error = errno;
        if (file.IsOpen() && ReadLines(file.Get(), *this, error)) return;
        if (error == ENOENT || error == ENOTDIR) continue;
        inventory.NoteError(path, error);
    }
    inventory.Note(*paths.begin(), "not installed, names of devices are missing");
}

void IdNames::ReadPci(KemdInventory& inventory) {
    Read(inventory, {"/usr/share/misc/pci.ids", "/usr/share/hwdata/pci.ids"});
}

void IdNames::ReadUsb(KemdInventory& inventory) {
    Read(inventory,
         {"/usr/share/misc/usb.ids", "/usr/share/hwdata/usb.ids", "/var/lib/usbutils/usb.ids"});
}

bool IdNames::Keep(Table table, uint64_t key, std::string_view name) {
    std::vector<Entry>& entries = m_tables.at(table);
    const auto found =
        std::lower_bound(entries.begin(), entries.end(), key,
                         [](const Entry& entry, uint64_t wanted) { return entry.key < wanted; });
    if (found == entries.end() || found->key != key) return false;
    if (found->name.empty()) found->name = name;
    return true;
}

void IdNames::TakeIndented(std::string_view line) {
    const size_t depth = line.size() > 1 && line[1] == '\t' ? 1 : 0;
    const Table table = m_below.at(depth);
    if (depth == 0) m_below[1] = kTables;
    if (table == kTables) return;
    line.remove_prefix(depth + 1);
    uint64_t number = 0;
    uint64_t second = 0;
    const size_t digits = table == kDevices || table == kSubsystems ? 4 : 2;
    if (!TakeNumber(line, digits, number)) return;
    if (table == kSubsystems) {
        // usb.ids has interfaces there, with one number.
        if (!TakeNumber(line, digits, second)) return;
        number = number << 16 | second;
    }
    const uint64_t key = m_prefix.at(depth) << (table == kSubsystems ? 32 : digits * 4) | number;
    const bool isWanted = Keep(table, key, TrimEnd(line));
    if (depth != 0 || !isWanted) return;
    m_below[1] = table == kDevices ? kSubsystems : kInterfaces;
    m_prefix[1] = key;
}

void IdNames::Take(std::string_view line) {
    if (line.starts_with('\t')) {
        if (m_below[0] != kTables) TakeIndented(line);
        return;
    }
    if (line.empty() || line[0] == '#' || line[0] == '\n') return;
    m_below = {kTables, kTables};
    const bool isClass = line.starts_with("C ");
    if (isClass) line.remove_prefix(2);
    uint64_t number = 0;
    if (!TakeNumber(line, isClass ? 2 : 4, number)) return;
    if (!Keep(isClass ? kClasses : kVendors, number, TrimEnd(line))) return;
    m_below[0] = isClass ? kSubclasses : kDevices;
    m_prefix[0] = number;
}

std::string_view IdNames::Find(Table table, uint64_t key) const {
    const std::vector<Entry>& entries = m_tables.at(table);
    const auto found =
        std::lower_bound(entries.begin(), entries.end(), key,
                         [](const Entry& entry, uint64_t wanted) { return entry.key < wanted; });
    return found == entries.end() || found->key != key ? std::string_view() : found->name;
}

std::string_view IdNames::Vendor(uint16_t vendor) const {
    return Find(kVendors, vendor);
}

std::string_view IdNames::Device(uint16_t vendor, uint16_t device) const {
    return Find(kDevices, DeviceKey(vendor, device));
}

std::string_view IdNames::Subsystem(uint16_t vendor, uint16_t device, uint16_t subVendor,
                                    uint16_t subDevice) const {
    const std::string_view name =
        Find(kSubsystems, SubsystemKey(vendor, device, subVendor, subDevice));
    const bool isDeviceItself = vendor == subVendor && device == subDevice;
    return name.empty() && isDeviceItself ? Device(vendor, device) : name;
}

std::string_view IdNames::BaseClass(uint32_t code) const {
    return Find(kClasses, code >> 16);
}

std::string_view IdNames::Subclass(uint32_t code) const {
    return Find(kSubclasses, code >> 8);
}

std::string_view IdNames::ProgrammingInterface(uint32_t code) const {
    return Find(kInterfaces, code);
}
