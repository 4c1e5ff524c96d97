// Items from SMBIOS tables. Whatever the tables say, nothing outside of them is read, and their
// number is bounded.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "inventory/host_inventory.h"
#include "inventory/smbios_record.h"
#include "kemd/pci_slot_map.h"

class SmbiosItems {
  public:
    // Both must live as long as this.
    SmbiosItems(KemdInventory& inventory, const CSMBios& smbios)
        : m_inventory(inventory), m_smbios(smbios) {}

    void AddSystem();  // KEMD_INVENTORY_SYSTEM
    void AddMemory();
    void AddSlots();

  private:
    // The structures of one type; not all of them when there are absurdly many.
    std::vector<SmbiosRecord> Records(uint8_t type);
    // An item with the structure's handle. Without a name it is named by its number of this kind.
    KemdInventoryItem& Add(ItemKind kind, std::string_view name, const SmbiosRecord& record);
    // The item of that kind whose structure has the handle; null when there is none.
    [[nodiscard]] KemdInventoryItem* FindByHandle(ItemKind kind, uint16_t handle) const;
    void SetParent(KemdInventoryItem& item, ItemKind kind, uint16_t handle) const;

    void AddFirmware();
    void AddSystemItem();
    void AddUuid(KemdInventoryItem& item, const SmbiosRecord& record) const;
    void AddChassis();
    void AddBoards();
    void AddProcessors();
    void AddCaches();
    void LinkCaches();
    void AddConnectors();
    void AddBatteries();
    void AddPowerSupplies();
    void AddManagementControllers();
    void AddHostInterface(const SmbiosRecord& record);
    void AddTpm();
    void AddOnboardDevices();
    void AddMemoryArrays();
    void AddMemoryModules();
    void AddMemoryRanges();

    KemdInventory& m_inventory;
    const CSMBios& m_smbios;
    std::map<std::string, unsigned> m_names;  // how often there is an id
    std::map<ItemKind, unsigned> m_counts;
    std::map<uint16_t, KemdInventoryItem*> m_byHandle;
};

// Gives slots the addresses that only the slot map has, and adds the slots that only it has.
void JoinSlotMap(KemdInventory& inventory, const CPciSlotMap::Slots& slots, PciSlotSource source);

// From the bank or the locator, where one of them says so.
void AddMemoryChannel(KemdInventoryItem& module);
// The locator, with the bank where another module has the same locator.
std::string MemoryModuleName(std::string_view locator, std::string_view bank, bool isRepeated);

// "0x00000000fee00000".
std::string SmbiosHex(uint64_t number);
// As the PCI source names functions: "0000:01:00.0". Empty when firmware has no address.
std::string SmbiosPciAddress(uint16_t segment, uint8_t bus, uint8_t deviceFunction);
