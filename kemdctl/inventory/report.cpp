#include "kemdctl/inventory/report.h"

#include <array>
#include <cstdarg>
#include <cstdio>

#include "base/text.h"
#include "inventory/smbios_names.h"
#include "kemdctl/ui/report.h"
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

void ReportTables(ReportWriter& report, const CSMBios& smbios) {
    const SourceName source = NameOf(smbios.Data().source);
    const std::string revision = RevisionText(smbios);
    const size_t count = CountStructures(smbios);
    if (smbios.Data().source != SmbiosSource::kNone) {
        report.Line("SMBIOS " + revision + ", " + Counted(count, "structure") + " in " +
                    Counted(smbios.Data().table.size(), "byte") + ", from " + source.shown + "\n");
        report.Line("type  structures");
    }
    report.Object("smbios", [&] {
        report.Text("source", source.json);
        report.Text("revision", revision);
        report.Number("structures", count);
        report.List("types", smbios.Structures(), [&](const auto& structures) {
            const auto& [type, positions] = structures;
            const char* const name = StructureName(type);
            report.Line(Format("%4d  %10zu  %s", type, positions.size(), name));
            report.OpenObject();
            report.Number("type", type);
            report.Text("name", name);
            report.Number("count", positions.size());
            report.Close();
        });
    });
}

void ReportRowName(ReportWriter& report, const SlotRow& row) {
    report.Text("kind", row.isOnboard ? "onboard" : "slot");
    report.Text("label", row.label);
}

void ReportRow(ReportWriter& report, const SlotRow& row, const SourceName& source) {
    const PciSlotData& slot = row.data;
    const std::string type = row.isOnboard ? "on board" : SlotTypeName(slot.type);
    const std::string line = Format("%02x:%02x       %4d  %-34s  %-17s  ", slot.bus, slot.device,
                                    slot.slot, type.c_str(), source.shown) +
                             Printable(row.label);
    report.Line(TrimEnd(line, " "));
    report.Object({}, [&] {
        report.Number("bus", slot.bus);
        report.Number("device", slot.device);
        report.Number("slot", slot.slot);
        report.Number("type", slot.type);
        report.Text("name", type);
        ReportRowName(report, row);
        report.Text("source", source.json);
    });
}

}  // namespace

void ReportInventory(ReportWriter& report, const Inventory& inventory) {
    report.OpenObject();
    ReportTables(report, inventory.smbios);
    if (!inventory.slots.empty()) {
        report.Line(
            "\nbus:device  slot  type                                source             label");
    }
    const SourceName source = NameOf(inventory.slotSource);
    report.List("slots", inventory.slots,
                [&](const SlotRow& row) { ReportRow(report, row, source); });
    if (inventory.slots.empty() && inventory.hasSmbios) {
        const std::string why = WhyNoSlots(inventory.smbios);
        report.Line("\nno slot map: " + why);
        report.Text("slotsNote", why);
    }
    ReportError(report, inventory.error);
}

void ReportSlot(ReportWriter& report, const SlotRow& row, bool isExact) {
    report.Number("slot", row.data.slot);
    report.Text("match", isExact ? "device" : "bus");
    ReportRowName(report, row);
    report.Line(std::to_string(row.data.slot));
}

void ReportError(ReportWriter& report, const std::string& error) {
    report.Flag("incomplete", !error.empty());
    if (!error.empty()) report.Text("error", error);
}
