#include "kemdctl/inventory/report.h"

#include <array>
#include <cstdarg>
#include <cstdio>

#include "base/text.h"
#include "kemdctl/inventory/names.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/text.h"

namespace {

struct SourceName {
    const char* shown;
    const char* json;
};

SourceName NameOf(SmbiosSource source) {
    switch (source) {
        case SmbiosSource::kSysfs:
            return {"/sys/firmware/dmi/tables", "sysfs"};
        case SmbiosSource::kMemory:
            return {"the memory that the EFI system table names", "memory"};
        case SmbiosSource::kEsxiDevice:
            return {"the ESXi device", "esxi"};
        case SmbiosSource::kShadowMemory:
            return {"the BIOS shadow memory", "shadow"};
        case SmbiosSource::kFile:
            return {"the dump", "dump"};
        default:
            return {"nowhere", "none"};
    }
}

SourceName NameOf(PciSlotSource source) {
    switch (source) {
        case PciSlotSource::kIrqRoutingTable:
            return {"IRQ routing table", "irq-routing-table"};
        case PciSlotSource::kSmbios:
            return {"SMBIOS", "smbios"};
        default:
            return {"none", "none"};
    }
}

std::string Format(const char* format, ...) KEMD_PRINTF(1, 2);
std::string Format(const char* format, ...) {
    std::array<char, 256> text{};
    va_list args;
    va_start(args, format);
    std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    return text.data();
}

std::string RevisionText(const CSMBios& smbios) {
    return Format("%d.%d", smbios.Revision().major, smbios.Revision().minor);
}

size_t CountStructures(const CSMBios& smbios) {
    size_t count = 0;
    for (const auto& [type, positions] : smbios.Structures()) count += positions.size();
    return count;
}

std::string TypeOf(const SlotRow& row) {
    return row.isOnboard ? "on board" : SlotTypeName(row.data.type);
}

void ShowSlots(const Inventory& inventory) {
    Write("\nbus:device  slot  type                                source             label\n");
    for (const SlotRow& row : inventory.slots) {
        const PciSlotData& slot = row.data;
        std::string line =
            Format("%02x:%02x       %4d  %-34s  %-17s  ", slot.bus, slot.device, slot.slot,
                   TypeOf(row).c_str(), NameOf(inventory.slotSource).shown);
        line += Printable(row.label);
        Write(std::string(TrimEnd(line, " ")) + "\n");
    }
}

}  // namespace

void ShowInventory(const Inventory& inventory) {
    const CSMBios& smbios = inventory.smbios;
    if (smbios.Data().source != SmbiosSource::kNone) {
        Write("SMBIOS " + RevisionText(smbios) + ", " +
              Counted(CountStructures(smbios), "structure") + " in " +
              Counted(smbios.Data().table.size(), "byte") + ", from " +
              NameOf(smbios.Data().source).shown + "\n\n");
        Write("type  structures\n");
        for (const auto& [type, positions] : smbios.Structures()) {
            Write(Format("%4d  %10zu  %s\n", type, positions.size(), StructureName(type)));
        }
    }
    if (!inventory.slots.empty()) {
        ShowSlots(inventory);
    } else if (inventory.hasSmbios) {
        Write("\nno slot map: " + WhyNoSlots(smbios) + "\n");
    }
}

void AddSlotName(JsonWriter& json, const SlotRow& row) {
    json.Key("kind");
    json.Text(row.isOnboard ? "onboard" : "slot");
    json.Key("label");
    json.Text(row.label);
}

void AddError(JsonWriter& json, const std::string& error) {
    json.Key("incomplete");
    json.Flag(!error.empty());
    if (error.empty()) return;
    json.Key("error");
    json.Text(error);
}

void ShowInventoryAsJson(const Inventory& inventory) {
    const CSMBios& smbios = inventory.smbios;
    JsonWriter json;
    const auto number = [&json](const char* key, int64_t value) {
        json.Key(key);
        json.Number(value);
    };
    const auto text = [&json](const char* key, const std::string& value) {
        json.Key(key);
        json.Text(value);
    };
    json.Open('{');
    json.Key("smbios");
    json.Open('{');
    text("source", NameOf(smbios.Data().source).json);
    text("revision", RevisionText(smbios));
    number("structures", static_cast<int64_t>(CountStructures(smbios)));
    json.Key("types");
    json.Open('[');
    for (const auto& [type, positions] : smbios.Structures()) {
        json.Open('{');
        number("type", type);
        text("name", StructureName(type));
        number("count", static_cast<int64_t>(positions.size()));
        json.Close('}');
    }
    json.Close(']');
    json.Close('}');
    json.Key("slots");
    json.Open('[');
    for (const SlotRow& row : inventory.slots) {
        const PciSlotData& slot = row.data;
        json.Open('{');
        number("bus", slot.bus);
        number("device", slot.device);
        number("slot", slot.slot);
        number("type", slot.type);
        text("name", TypeOf(row));
        AddSlotName(json, row);
        text("source", NameOf(inventory.slotSource).json);
        json.Close('}');
    }
    json.Close(']');
    if (inventory.slots.empty() && inventory.hasSmbios) text("slotsNote", WhyNoSlots(smbios));
    AddError(json, inventory.error);
    json.Close('}');
    json.Finish();
}
