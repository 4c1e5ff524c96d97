#include "inventory/item.h"

#include <algorithm>
#include <cassert>

#include "base/text.h"

namespace {

struct KindInfo {
    const char* word;
    uint32_t section;
};

KindInfo Info(ItemKind kind) {
    switch (kind) {
        case ItemKind::kFirmware:
            return {"firmware", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kSystem:
            return {"system", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kBoard:
            return {"board", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kChassis:
            return {"chassis", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kProcessor:
            return {"processor", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kCache:
            return {"cache", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kConnector:
            return {"connector", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kPowerSupply:
            return {"power_supply", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kBattery:
            return {"battery", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kManagementController:
            return {"management_controller", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kTpm:
            return {"tpm", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kOnboardDevice:
            return {"onboard_device", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kKernel:
            return {"kernel", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kCpu:
            return {"cpu", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kNumaNode:
            return {"numa_node", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kGraphics:
            return {"graphics", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kSerialPort:
            return {"serial_port", KEMD_INVENTORY_SYSTEM};
        case ItemKind::kMemoryArray:
            return {"memory_array", KEMD_INVENTORY_MEMORY};
        case ItemKind::kMemoryModule:
            return {"memory_module", KEMD_INVENTORY_MEMORY};
        case ItemKind::kMemoryRange:
            return {"memory_range", KEMD_INVENTORY_MEMORY};
        case ItemKind::kSlot:
            return {"slot", KEMD_INVENTORY_SLOTS};
        case ItemKind::kPci:
            return {"pci", KEMD_INVENTORY_PCI};
        case ItemKind::kUsb:
            return {"usb", KEMD_INVENTORY_USB};
        case ItemKind::kStorageAdapter:
            return {"storage_adapter", KEMD_INVENTORY_DRIVES};
        case ItemKind::kDrive:
            return {"drive", KEMD_INVENTORY_DRIVES};
        case ItemKind::kInterface:
            return {"interface", KEMD_INVENTORY_NETWORK};
        case ItemKind::kPartition:
            return {"partition", KEMD_INVENTORY_VOLUMES};
        case ItemKind::kVolume:
            return {"volume", KEMD_INVENTORY_VOLUMES};
        case ItemKind::kMount:
            return {"mount", KEMD_INVENTORY_VOLUMES};
    }
    return {"unknown", 0};
}

// Else the second one of a name could never be reached.
consteval bool AreFieldNamesUnique() {
    for (size_t i = 0; i < kInventoryFields.size(); ++i) {
        for (size_t j = 0; j < i; ++j) {
            if (std::string_view(kInventoryFields[i].name) == kInventoryFields[j].name)
                return false;
        }
    }
    return true;
}
static_assert(AreFieldNamesUnique());

}  // namespace

std::string WithoutControls(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, ' ');
    return text;
}

const char* KindWord(ItemKind kind) {
    return Info(kind).word;
}

uint32_t KindSection(ItemKind kind) {
    return Info(kind).section;
}

std::optional<ItemKind> KindByWord(std::string_view word) {
    for (unsigned i = 0; i <= static_cast<unsigned>(ItemKind::kMount); ++i) {
        const auto kind = static_cast<ItemKind>(i);
        if (word == KindWord(kind)) return kind;
    }
    return std::nullopt;
}

void KemdInventoryItem::Add(InventoryField field, std::string_view text) {
    assert(field.Info().kind == KEMD_INVENTORY_TEXT);
    std::string clean(Trim(WithoutControls(std::string(text))));
    if (!clean.empty()) values.push_back({field, std::move(clean)});
}

void KemdInventoryItem::AddNumber(InventoryField field, uint64_t number) {
    assert(field.Info().kind != KEMD_INVENTORY_TEXT);
    values.push_back({field, std::to_string(number), number});
}

void KemdInventoryItem::Set(InventoryField field, std::string_view text) {
    std::erase_if(values, [field](const Value& value) { return value.field == field; });
    Add(field, text);
}

const KemdInventoryItem::Value* KemdInventoryItem::Find(InventoryField field) const {
    const auto found = std::find_if(values.begin(), values.end(),
                                    [field](const Value& value) { return value.field == field; });
    return found == values.end() ? nullptr : &*found;
}

const std::string& KemdInventoryItem::Text(InventoryField field) const {
    static const std::string kNone;
    const Value* const value = Find(field);
    return value == nullptr ? kNone : value->text;
}

uint64_t KemdInventoryItem::Number(InventoryField field) const {
    const Value* const value = Find(field);
    return value == nullptr ? 0 : value->number;
}
