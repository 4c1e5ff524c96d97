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
    {"type"},
    {"state"},

    // System, memory, slots.

    // PCI, USB, network.

    // Drives and adapters.
    {"interface"},
    {"wwn", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"nguid", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"eui64", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"namespace", KEMD_INVENTORY_NUMBER},
    {"nvme_paths", KEMD_INVENTORY_TEXT, "", kList},
    {"logical_sector_size", KEMD_INVENTORY_NUMBER, "bytes"},
    {"physical_sector_size", KEMD_INVENTORY_NUMBER, "bytes"},
    {"minimum_io_size", KEMD_INVENTORY_NUMBER, "bytes"},
    {"optimal_io_size", KEMD_INVENTORY_NUMBER, "bytes"},
    {"discard_granularity", KEMD_INVENTORY_NUMBER, "bytes"},
    {"discard_max", KEMD_INVENTORY_NUMBER, "bytes"},
    {"zoned"},
    {"zone_size", KEMD_INVENTORY_NUMBER, "bytes"},
    {"zones", KEMD_INVENTORY_NUMBER},
    {"rotational", KEMD_INVENTORY_YES},
    {"rotation_rate", KEMD_INVENTORY_NUMBER, "rpm"},
    {"removable", KEMD_INVENTORY_YES},
    {"read_only", KEMD_INVENTORY_YES},
    {"scheduler"},
    {"queue_requests", KEMD_INVENTORY_NUMBER},
    {"device_number", KEMD_INVENTORY_TEXT, "", kVolatile},
    {"hctl", KEMD_INVENTORY_TEXT, "", kVolatile},
    {"sas_address", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"by_path"},
    {"port"},
    {"enclosure", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"bay"},
    {"holders", KEMD_INVENTORY_TEXT, "", kList},
    {"multipath"},
    {"hosts", KEMD_INVENTORY_TEXT, "", kList | kVolatile},
    {"ports", KEMD_INVENTORY_NUMBER},
    {"bios_version"},
    {"transport"},
    {"address"},
    {"controller_id", KEMD_INVENTORY_NUMBER},
    {"subsystem_nqn", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"power_state", KEMD_INVENTORY_TEXT, "", kVolatile},
    {"health"},
    {"critical_warning", KEMD_INVENTORY_TEXT, "", kList},
    {"temperature", KEMD_INVENTORY_NUMBER, "C", kVolatile},
    {"percentage_used", KEMD_INVENTORY_NUMBER, "%", kVolatile},
    {"spare", KEMD_INVENTORY_NUMBER, "%", kVolatile},
    {"spare_threshold", KEMD_INVENTORY_NUMBER, "%"},
    {"media_errors", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"unsafe_shutdowns", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"power_cycles", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"power_on_hours", KEMD_INVENTORY_NUMBER, "hours", kVolatile},
    {"data_read", KEMD_INVENTORY_NUMBER, "bytes", kVolatile},
    {"data_written", KEMD_INVENTORY_NUMBER, "bytes", kVolatile},

    // Volumes.
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
