// Inventories in files: JSON, see docs/inventory.md. Throws std::bad_alloc alone.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

struct KemdInventory;

// Bytes of a document. Tens of thousands of mounts have room.
inline constexpr size_t kLargestInventory = size_t{64} << 20;

// The document that SaveInventory writes.
std::string InventoryJson(const KemdInventory& inventory);
// The way back: an errno number, as LoadInventory.
[[nodiscard]] int ParseInventory(std::string_view json, KemdInventory& inventory,
                                 std::string& fault);
// An errno number: EFBIG for more than kLargestInventory. The file is replaced whole, with
// mode 0600.
[[nodiscard]] int SaveInventory(const KemdInventory& inventory, const std::string& path);
// An errno number: EBADMSG, with the fault and where it is, when the file holds something else,
// and EFBIG. What a newer version knows and this one does not is left out, and a note says so.
[[nodiscard]] int LoadInventory(const std::string& path, KemdInventory& inventory,
                                std::string& fault);
