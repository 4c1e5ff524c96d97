// The table of all fields that items of the inventory have. A field is named in the code by its
// name; one that the table lacks does not compile.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "kemd/inventory.h"

struct InventoryFieldInfo {
    const char* name;
    uint32_t kind = KEMD_INVENTORY_TEXT;
    const char* unit = "";
    uint32_t flags = 0;
};

inline constexpr uint32_t kList = KEMD_INVENTORY_LIST;
inline constexpr uint32_t kPrivate = KEMD_INVENTORY_PRIVATE;
inline constexpr uint32_t kVolatile = KEMD_INVENTORY_VOLATILE;

inline constexpr auto kInventoryFields = std::to_array<InventoryFieldInfo>({
    // Of several kinds.
    {"vendor"},
    {"model"},
    {"serial", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"version"},
    {"firmware"},
    {"uuid", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"size", KEMD_INVENTORY_NUMBER, "bytes"},
    {"driver"},
    {"module"},
    {"device"},
    {"slot"},
    {"numa_node", KEMD_INVENTORY_NUMBER},

    // System, memory, slots.

    // PCI, USB, network.

    // Drives and adapters.

    // Volumes.
    {"type"},
    {"read_only", KEMD_INVENTORY_YES},
    {"device_number", KEMD_INVENTORY_TEXT, "", kVolatile},
    {"fs_type"},
    {"fs_version"},
    {"fs_label"},
    {"fs_uuid", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"fs_root"},
    {"fs_size", KEMD_INVENTORY_NUMBER, "bytes", kVolatile},
    {"fs_used", KEMD_INVENTORY_NUMBER, "bytes", kVolatile},
    {"fs_available", KEMD_INVENTORY_NUMBER, "bytes", kVolatile},
    {"mountpoints", KEMD_INVENTORY_TEXT, "", kList},
    {"partition_table"},
    {"partition_number", KEMD_INVENTORY_NUMBER},
    {"partition_start", KEMD_INVENTORY_NUMBER, "bytes"},
    {"partition_name"},
    {"partition_type"},
    {"partition_type_name"},
    {"partition_flags"},
    {"partition_uuid", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"members", KEMD_INVENTORY_TEXT, "", kList},
    {"failed_members", KEMD_INVENTORY_TEXT, "", kList},
    {"spare_members", KEMD_INVENTORY_TEXT, "", kList},
    {"state"},
    {"raid_disks", KEMD_INVENTORY_NUMBER},
    {"degraded", KEMD_INVENTORY_NUMBER},
    {"sync_action"},
    {"sync_percent", KEMD_INVENTORY_NUMBER, "percent", kVolatile},
    {"chunk_size", KEMD_INVENTORY_NUMBER, "bytes"},
    {"metadata_version"},
    {"volume_group"},
    {"logical_volume"},
    {"encryption"},
    {"backing_file"},
    {"offset", KEMD_INVENTORY_NUMBER, "bytes"},
    {"algorithm"},
    {"memory_used", KEMD_INVENTORY_NUMBER, "bytes", kVolatile},
    {"cache_mode"},
    {"target"},
    {"source"},
    {"options"},
    {"swap_priority"},
    {"swap_used", KEMD_INVENTORY_NUMBER, "bytes", kVolatile},
});

// The position of a field in the table.
class InventoryField {
  public:
    // NOLINTNEXTLINE(google-explicit-constructor): item.Add("model", ...) is the purpose.
    consteval InventoryField(const char* name) : m_position(Position(name)) {}
    // For names from outside.
    static std::optional<InventoryField> Find(std::string_view name) {
        const uint16_t position = Search(name);
        if (position == kInventoryFields.size()) return std::nullopt;
        return InventoryField(position);
    }

    [[nodiscard]] const InventoryFieldInfo& Info() const { return kInventoryFields.at(m_position); }
    bool operator==(const InventoryField& other) const = default;

  private:
    explicit constexpr InventoryField(uint16_t position) : m_position(position) {}
    static constexpr uint16_t Search(std::string_view name) {
        uint16_t position = 0;
        while (position < kInventoryFields.size() && kInventoryFields[position].name != name) {
            ++position;
        }
        return position;
    }
    static consteval uint16_t Position(const char* name) {
        const uint16_t position = Search(name);
        if (position == kInventoryFields.size()) throw "no such field";
        return position;
    }

    uint16_t m_position;
};
