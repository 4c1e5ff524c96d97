// Inventories in files: JSON, see docs/inventory.md. Throws std::bad_alloc alone.
#pragma once

#include <string>

struct KemdInventory;

// The document that SaveInventory writes.
std::string InventoryJson(const KemdInventory& inventory);
// An errno number. The file is replaced whole, with mode 0600.
[[nodiscard]] int SaveInventory(const KemdInventory& inventory, const std::string& path);
// An errno number: EBADMSG, with the fault and where it is, when the file holds something else.
[[nodiscard]] int LoadInventory(const std::string& path, KemdInventory& inventory,
                                std::string& fault);
