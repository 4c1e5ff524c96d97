#include <unistd.h>

#include <cerrno>

#include "inventory/bios_tables.h"
#include "inventory/smbios_items.h"
#include "inventory/sources.h"
#include "inventory/system_items.h"
#include "kemd/pci_slot_map.h"

namespace {

constexpr const char* kTables = "SMBIOS tables";

// Whether there are tables, or what may hold them, for root alone.
bool IsDenied() {
    for (const char* path : kInventoryFiles) {
        if (access(path, R_OK) != 0 && (errno == EACCES || errno == EPERM)) return true;
    }
    return false;
}

void NoteTables(KemdInventory& inventory, const CSMBios& smbios, bool isComplete) {
    if (isComplete) return;
    if (smbios.Data().source != SmbiosSource::kNone) {
        inventory.Note(kTables, "broken: what follows the first fault is absent");
    } else if (IsDenied()) {
        inventory.Note(kTables, "only root may read them; the rest needs a scan as root");
    } else {
        inventory.Note(kTables, "the firmware has none");
    }
}

}  // namespace

void ScanSystem(KemdInventory& inventory, uint32_t sections) {
    CSMBios smbios;
    NoteTables(inventory, smbios, smbios.Connect());
    SmbiosItems items(inventory, smbios);
    const bool hasTables = !smbios.Structures().empty();
    if ((sections & KEMD_INVENTORY_SYSTEM) != 0) {
        if (hasTables)
            items.AddSystem();
        else
            AddDmiItems(inventory);
        AddTpmDevices(inventory);
        AddKernel(inventory);
        AddCpus(inventory);
        AddNumaNodes(inventory);
    }
    if ((sections & KEMD_INVENTORY_MEMORY) != 0) {
        if (hasTables)
            items.AddMemory();
        else
            AddUdevMemory(inventory);
    }
    if ((sections & KEMD_INVENTORY_SLOTS) != 0) {
        items.AddSlots();
        JoinSlotMap(inventory, CPciSlotMap::GetSlotMapping(), CPciSlotMap::Source());
    }
}
