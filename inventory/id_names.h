// Names of vendors, devices, subsystems and classes out of pci.ids or usb.ids. Wanted numbers are
// collected first; the file is then read once, line by line, and only their names are kept.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

struct KemdInventory;

class IdNames {
  public:
    void WantDevice(uint16_t vendor, uint16_t device);
    // Of a PCI device.
    void WantSubsystem(uint16_t vendor, uint16_t device, uint16_t subVendor, uint16_t subDevice);
    // Class, subclass and programming interface or protocol: 0x010802.
    void WantClass(uint32_t code);

    // Where distributions have pci.ids and usb.ids. The first file that can be read counts; a note
    // says when there is none.
    void ReadPci(KemdInventory& inventory);
    void ReadUsb(KemdInventory& inventory);
    // Between Prepare and the questions: one line of the file.
    void Prepare();
    void Take(std::string_view line);

    // Empty when the file has no name. Valid as long as this object.
    [[nodiscard]] std::string_view Vendor(uint16_t vendor) const;
    [[nodiscard]] std::string_view Device(uint16_t vendor, uint16_t device) const;
    // That of the device itself when the numbers are those of the device.
    [[nodiscard]] std::string_view Subsystem(uint16_t vendor, uint16_t device, uint16_t subVendor,
                                             uint16_t subDevice) const;
    // The class alone, with its subclass, with the programming interface.
    [[nodiscard]] std::string_view BaseClass(uint32_t code) const;
    [[nodiscard]] std::string_view Subclass(uint32_t code) const;
    [[nodiscard]] std::string_view ProgrammingInterface(uint32_t code) const;

  private:
    enum Table { kVendors, kDevices, kSubsystems, kClasses, kSubclasses, kInterfaces, kTables };
    struct Entry {
        uint64_t key;
        std::string name;
    };

    void Want(Table table, uint64_t key) { m_tables.at(table).push_back({key, {}}); }
    // Whether the number is wanted; keeps the name.
    bool Keep(Table table, uint64_t key, std::string_view name);
    [[nodiscard]] std::string_view Find(Table table, uint64_t key) const;
    void TakeIndented(std::string_view line);
    void Read(KemdInventory& inventory, std::initializer_list<const char*> paths);

    std::array<std::vector<Entry>, kTables> m_tables;
    // Of the lines that are indented under the last one that was not, and once more: which table
    // they belong to, and the number that theirs is appended to. kTables: they are not wanted.
    std::array<Table, 2> m_below = {kTables, kTables};
    std::array<uint64_t, 2> m_prefix = {0, 0};
};
