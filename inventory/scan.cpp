#include <unistd.h>

#include <ctime>

#include "inventory/host_inventory.h"
#include "inventory/sources.h"

void ScanHost(KemdInventory& inventory, uint32_t sections, const KemdInventory* last,
              bool onlyNew) {
    constexpr uint32_t kAll = KEMD_INVENTORY_SYSTEM | KEMD_INVENTORY_MEMORY | KEMD_INVENTORY_SLOTS |
                              KEMD_INVENTORY_PCI | KEMD_INVENTORY_USB | KEMD_INVENTORY_DRIVES |
                              KEMD_INVENTORY_NETWORK | KEMD_INVENTORY_VOLUMES;
    constexpr uint32_t kFirmware =
        KEMD_INVENTORY_SYSTEM | KEMD_INVENTORY_MEMORY | KEMD_INVENTORY_SLOTS;
    inventory.time = std::time(nullptr);
    inventory.sections = sections & kAll;
    if (access("/sys/devices", F_OK) != 0) {
        inventory.Note("/sys", "not mounted: what only the kernel's sysfs knows is absent");
    }
    if ((sections & kFirmware) != 0) ScanSystem(inventory, sections);
    if ((sections & KEMD_INVENTORY_PCI) != 0) ScanPci(inventory);
    if ((sections & KEMD_INVENTORY_USB) != 0) ScanUsb(inventory);
    if ((sections & KEMD_INVENTORY_SYSTEM) != 0) ScanPorts(inventory);
    if ((sections & KEMD_INVENTORY_DRIVES) != 0) {
        ScanDrives(inventory, (sections & KEMD_INVENTORY_HEALTH) != 0, last, onlyNew);
    }
    if ((sections & KEMD_INVENTORY_NETWORK) != 0) ScanInterfaces(inventory);
    if ((sections & KEMD_INVENTORY_VOLUMES) != 0) ScanVolumes(inventory);
    FindWarnings(inventory);
}
