// Memory modules as udev, which is root, has read them from the SMBIOS tables.
#include <algorithm>
#include <charconv>
#include <map>

#include "inventory/smbios_items.h"
#include "inventory/system_items.h"
#include "inventory/udev_database.h"

namespace {

constexpr uint64_t kMostModules = 1024;

uint64_t ToNumber(const std::string& text) {
    uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

struct Property {
    const char* name;
    InventoryField field;
};
constexpr Property kProperties[] = {{"FORM_FACTOR", "form_factor"},
                                    {"TYPE", "type"},
                                    {"MANUFACTURER", "vendor"},
                                    {"SERIAL_NUMBER", "serial"},
                                    {"ASSET_TAG", "asset_tag"},
                                    {"PART_NUMBER", "part_number"},
                                    {"TOTAL_WIDTH", "total_width"},
                                    {"DATA_WIDTH", "data_width"},
                                    {"SIZE", "size"},
                                    {"RANK", "rank"},
                                    {"SPEED_MTS", "rated_speed"},
                                    {"CONFIGURED_SPEED_MTS", "configured_speed"}};

}  // namespace

void AddUdevMemory(KemdInventory& inventory) {
    const UdevRecord record(inventory, "+dmi:id");
    const uint64_t count =
        std::min(ToNumber(record.Property("MEMORY_ARRAY_NUM_DEVICES")), kMostModules);
    const auto property = [&record](uint64_t number, const char* name) {
        return record.Property("MEMORY_DEVICE_" + std::to_string(number) + "_" + name);
    };
    std::map<std::string, unsigned> locators;
    for (uint64_t i = 0; i < count; ++i) ++locators[property(i, "LOCATOR")];
    for (uint64_t i = 0; i < count; ++i) {
        const std::string locator = property(i, "LOCATOR");
        const std::string bank = property(i, "BANK_LOCATOR");
        std::string name = MemoryModuleName(locator, bank, locators[locator] > 1);
        if (name.empty()) name = std::to_string(i + 1);
        KemdInventoryItem& item =
            inventory.Add(ItemKind::kMemoryModule, "memory_module:" + name, name);
        item.Add("location", locator);
        item.Add("bank", bank);
        AddMemoryChannel(item);
        item.AddNumber("populated", property(i, "PRESENT") == "0" ? 0 : 1);
        for (const Property& each : kProperties) {
            const std::string text = property(i, each.name);
            if (each.field.Info().kind == KEMD_INVENTORY_TEXT)
                item.Add(each.field, text);
            else
                AddKnown(item, each.field, ToNumber(text));
        }
    }
}
