#include "inventory/volumes.h"

#include "inventory/sources.h"

void ScanVolumes(KemdInventory& inventory) {
    BlockItems blocks = ScanBlockDevices(inventory);
    ScanMounts(inventory, blocks);
}
