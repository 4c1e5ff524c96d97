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
    {"module", KEMD_INVENTORY_TEXT, "", kList},
    {"device"},
    {"slot"},
    {"numa_node", KEMD_INVENTORY_NUMBER},

    // System, memory, slots.

    // PCI, USB, network.
    {"address"},
    {"class"},
    {"class_id"},
    {"vendor_id"},
    {"device_id"},
    {"subsystem_vendor"},
    {"subsystem_vendor_id"},
    {"subsystem"},
    {"subsystem_id"},
    {"revision"},
    {"programming_interface"},
    {"programming_interface_name"},
    {"label"},
    {"physical_slot"},
    {"irq", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"iommu_group", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"enabled", KEMD_INVENTORY_YES},
    {"power_state", KEMD_INVENTORY_TEXT, "", kVolatile},
    {"bar", KEMD_INVENTORY_TEXT, "", kList | kVolatile},
    {"rom", KEMD_INVENTORY_TEXT, "", kVolatile},
    {"virtual_function_bar", KEMD_INVENTORY_TEXT, "", kList | kVolatile},
    {"window", KEMD_INVENTORY_TEXT, "", kList | kVolatile},
    {"link_speed", KEMD_INVENTORY_NUMBER, "MT/s", kVolatile},
    {"link_speed_max", KEMD_INVENTORY_NUMBER, "MT/s"},
    {"link_width", KEMD_INVENTORY_NUMBER, "lanes"},
    {"link_width_max", KEMD_INVENTORY_NUMBER, "lanes"},
    {"port_speed_max", KEMD_INVENTORY_NUMBER, "MT/s"},
    {"port_width_max", KEMD_INVENTORY_NUMBER, "lanes"},
    {"link_degraded", KEMD_INVENTORY_TEXT, "", kList | kVolatile},
    {"link_limited", KEMD_INVENTORY_TEXT, "", kList},
    {"virtual_functions", KEMD_INVENTORY_NUMBER},
    {"virtual_functions_max", KEMD_INVENTORY_NUMBER},
    {"physical_function"},
    {"correctable_errors", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"nonfatal_errors", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"fatal_errors", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"bus_number", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"device_number", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"subclass_id"},
    {"protocol_id"},
    {"manufacturer"},
    {"product"},
    {"usb_version"},
    {"bus_speed", KEMD_INVENTORY_NUMBER, "kbit/s"},
    {"max_power", KEMD_INVENTORY_NUMBER, "mA"},
    {"ports", KEMD_INVENTORY_NUMBER},
    {"interface", KEMD_INVENTORY_TEXT, "", kList},
    {"mac", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"permanent_mac", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"type"},
    {"driver_version"},
    {"bus"},
    {"speed", KEMD_INVENTORY_NUMBER, "Mbit/s", kVolatile},
    {"speed_max", KEMD_INVENTORY_NUMBER, "Mbit/s"},
    {"duplex", KEMD_INVENTORY_TEXT, "", kVolatile},
    {"link", KEMD_INVENTORY_YES, "", kVolatile},
    {"port"},
    {"port_name"},
    {"virtual_function_of"},
    {"connector", KEMD_INVENTORY_TEXT, "", kList | kVolatile},
    {"framebuffer", KEMD_INVENTORY_TEXT, "", kList},
    {"boot_display", KEMD_INVENTORY_YES},
    {"uart"},
    {"io_address"},
    {"console", KEMD_INVENTORY_YES},

    // Drives and adapters.

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
