// One item of the inventory.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "inventory/fields.h"

enum class ItemKind : uint8_t {
    kFirmware,
    kSystem,
    kBoard,
    kChassis,
    kProcessor,  // a socket, as the firmware sees it
    kCache,
    kConnector,
    kPowerSupply,
    kBattery,
    kManagementController,
    kTpm,
    kOnboardDevice,
    kKernel,
    kCpu,  // processors as the kernel sees them
    kNumaNode,
    kGraphics,
    kSerialPort,
    kMemoryArray,
    kMemoryModule,
    kMemoryRange,
    kSlot,
    kPci,
    kUsb,
    kStorageAdapter,
    kDrive,
    kInterface,
    kPartition,
    kVolume,
    kMount,
};

// "memory_module"; the section that the kind belongs to.
const char* KindWord(ItemKind kind);
uint32_t KindSection(ItemKind kind);
// Nothing when there is no such kind.
std::optional<ItemKind> KindByWord(std::string_view word);

// Control characters become blanks. The bytes beyond ASCII stay: names are often UTF-8.
std::string WithoutControls(std::string text);

struct KemdInventoryItem {
    struct Value {
        InventoryField field;
        std::string text;  // a number in decimal
        uint64_t number = 0;
    };

    ItemKind kind;
    std::string id;      // "KIND:..." by what stays the same from one boot to the next
    std::string name;    // for a user
    std::string parent;  // an id, or empty
    std::vector<Value> values;

    // Control characters become blanks, blanks at both ends go. An empty text is not added.
    void Add(InventoryField field, std::string_view text);
    void AddNumber(InventoryField field, uint64_t number);
    // In the place of all values that the field has.
    void Set(InventoryField field, std::string_view text);
    // The first value; null when there is none.
    [[nodiscard]] const Value* Find(InventoryField field) const;
    // Empty, 0 when there is none.
    [[nodiscard]] const std::string& Text(InventoryField field) const;
    [[nodiscard]] uint64_t Number(InventoryField field) const;
};
