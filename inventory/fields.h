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
    {"type"},
    {"state"},
    {"address"},
    {"enabled", KEMD_INVENTORY_YES},
    {"read_only", KEMD_INVENTORY_YES},
    {"irq", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"port"},
    {"ports", KEMD_INVENTORY_NUMBER},
    {"power_state", KEMD_INVENTORY_TEXT, "", kVolatile},
    {"device_number", KEMD_INVENTORY_TEXT, "", kVolatile},

    // System, memory, slots.
    {"date"},
    {"release"},
    {"controller_release"},
    {"rom_size", KEMD_INVENTORY_NUMBER, "bytes"},
    {"characteristics", KEMD_INVENTORY_TEXT, "", kList},
    {"sku"},
    {"family"},
    {"wake_up"},
    {"boot_status", KEMD_INVENTORY_TEXT, "", kVolatile},
    {"oem_strings", KEMD_INVENTORY_TEXT, "", kList | kPrivate},
    {"asset_tag", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"part_number"},
    {"location"},
    {"status"},
    {"populated", KEMD_INVENTORY_YES},
    {"locked", KEMD_INVENTORY_YES},
    {"boot_up_state"},
    {"power_supply_state"},
    {"thermal_state"},
    {"security"},
    {"height", KEMD_INVENTORY_NUMBER, "U"},
    {"power_cords", KEMD_INVENTORY_NUMBER},
    {"cores", KEMD_INVENTORY_NUMBER},
    {"cores_enabled", KEMD_INVENTORY_NUMBER},
    {"threads", KEMD_INVENTORY_NUMBER},
    {"current_speed", KEMD_INVENTORY_NUMBER, "MHz", kVolatile},
    {"min_speed", KEMD_INVENTORY_NUMBER, "MHz"},
    {"max_speed", KEMD_INVENTORY_NUMBER, "MHz"},
    {"bus_clock", KEMD_INVENTORY_NUMBER, "MHz"},
    {"voltage", KEMD_INVENTORY_NUMBER, "mV", kList},
    {"voltage_min", KEMD_INVENTORY_NUMBER, "mV"},
    {"voltage_max", KEMD_INVENTORY_NUMBER, "mV"},
    {"socket_type"},
    {"caches", KEMD_INVENTORY_TEXT, "", kList},
    {"level", KEMD_INVENTORY_NUMBER},
    {"mode"},
    {"error_correction"},
    {"associativity"},
    {"size_max", KEMD_INVENTORY_NUMBER, "bytes"},
    {"internal_name"},
    {"internal_connector"},
    {"external_name"},
    {"external_connector"},
    {"chemistry"},
    {"capacity", KEMD_INVENTORY_NUMBER, "mWh"},
    {"power_max", KEMD_INVENTORY_NUMBER, "W"},
    {"present", KEMD_INVENTORY_YES},
    {"plugged", KEMD_INVENTORY_YES},
    {"hot_replaceable", KEMD_INVENTORY_YES},
    {"input_range"},
    {"interface_type"},
    {"base_address"},
    {"i2c_address"},
    {"protocols", KEMD_INVENTORY_TEXT, "", kList},
    {"number", KEMD_INVENTORY_NUMBER},
    {"width"},
    {"length"},
    {"usage"},
    {"bus_address"},
    {"peer_addresses", KEMD_INVENTORY_TEXT, "", kList},
    {"bank"},
    {"channel", KEMD_INVENTORY_NUMBER},
    {"form_factor"},
    {"type_detail", KEMD_INVENTORY_TEXT, "", kList},
    {"technology"},
    {"rank", KEMD_INVENTORY_NUMBER},
    {"rated_speed", KEMD_INVENTORY_NUMBER, "MT/s"},
    {"configured_speed", KEMD_INVENTORY_NUMBER, "MT/s"},
    {"total_width", KEMD_INVENTORY_NUMBER, "bits"},
    {"data_width", KEMD_INVENTORY_NUMBER, "bits"},
    {"nonvolatile_size", KEMD_INVENTORY_NUMBER, "bytes"},
    {"volatile_size", KEMD_INVENTORY_NUMBER, "bytes"},
    {"use"},
    {"devices", KEMD_INVENTORY_NUMBER},
    {"start_address", KEMD_INVENTORY_NUMBER},
    {"end_address", KEMD_INVENTORY_NUMBER},
    {"architecture"},
    {"operating_system"},
    {"host_name", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"boot_mode"},
    {"secure_boot", KEMD_INVENTORY_YES},
    {"virtualization"},
    {"hypervisor"},
    {"container"},
    {"memory_total", KEMD_INVENTORY_NUMBER, "bytes", kVolatile},
    {"cpus_online"},
    {"cpus_offline"},
    {"vulnerabilities", KEMD_INVENTORY_TEXT, "", kList},
    {"sockets", KEMD_INVENTORY_NUMBER},
    {"cpu_family", KEMD_INVENTORY_NUMBER},
    {"cpu_model", KEMD_INVENTORY_NUMBER},
    {"stepping", KEMD_INVENTORY_NUMBER},
    {"microcode", KEMD_INVENTORY_TEXT, "", kList},
    {"core_type"},
    {"cpus"},
    {"feature_level"},
    {"l1d_cache", KEMD_INVENTORY_NUMBER, "bytes"},
    {"l1d_instances", KEMD_INVENTORY_NUMBER},
    {"l1i_cache", KEMD_INVENTORY_NUMBER, "bytes"},
    {"l1i_instances", KEMD_INVENTORY_NUMBER},
    {"l2_cache", KEMD_INVENTORY_NUMBER, "bytes"},
    {"l2_instances", KEMD_INVENTORY_NUMBER},
    {"l3_cache", KEMD_INVENTORY_NUMBER, "bytes"},
    {"l3_instances", KEMD_INVENTORY_NUMBER},
    {"memory", KEMD_INVENTORY_NUMBER, "bytes"},
    {"distances", KEMD_INVENTORY_NUMBER, "", kList},

    // PCI, USB, network.
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
    {"iommu_group", KEMD_INVENTORY_NUMBER, "", kVolatile},
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
    {"bus_device", KEMD_INVENTORY_NUMBER, "", kVolatile},
    {"subclass_id"},
    {"protocol_id"},
    {"manufacturer"},
    {"product"},
    {"usb_version"},
    {"bus_speed", KEMD_INVENTORY_NUMBER, "kbit/s"},
    {"max_power", KEMD_INVENTORY_NUMBER, "mA"},
    {"usb_interfaces", KEMD_INVENTORY_TEXT, "", kList},
    {"mac", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"permanent_mac", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"driver_version"},
    {"bus"},
    {"speed", KEMD_INVENTORY_NUMBER, "Mbit/s", kVolatile},
    {"speed_max", KEMD_INVENTORY_NUMBER, "Mbit/s"},
    {"duplex", KEMD_INVENTORY_TEXT, "", kVolatile},
    {"link", KEMD_INVENTORY_YES, "", kVolatile},
    {"port_name"},
    {"virtual_function_of"},
    {"connector", KEMD_INVENTORY_TEXT, "", kList | kVolatile},
    {"framebuffer", KEMD_INVENTORY_TEXT, "", kList},
    {"boot_display", KEMD_INVENTORY_YES},
    {"uart"},
    {"io_address"},
    {"console", KEMD_INVENTORY_YES},

    // Drives and adapters.
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
    {"scheduler"},
    {"queue_requests", KEMD_INVENTORY_NUMBER},
    {"hctl", KEMD_INVENTORY_TEXT, "", kVolatile},
    {"sas_address", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"by_path"},
    {"enclosure", KEMD_INVENTORY_TEXT, "", kPrivate},
    {"bay"},
    {"holders", KEMD_INVENTORY_TEXT, "", kList},
    {"multipath"},
    {"hosts", KEMD_INVENTORY_TEXT, "", kList | kVolatile},
    {"bios_version"},
    {"transport"},
    {"controller_id", KEMD_INVENTORY_NUMBER},
    {"subsystem_nqn", KEMD_INVENTORY_TEXT, "", kPrivate},
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
