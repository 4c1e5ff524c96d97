// Inventories that can be handed on.
#pragma once

struct KemdInventory;

// Each serial number, MAC address, UUID and the like becomes "masked-1", "masked-2" ..., in ids,
// names and all other texts too. The same value becomes the same mask.
void MaskInventory(KemdInventory& inventory);
