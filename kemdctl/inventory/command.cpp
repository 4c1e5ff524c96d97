#include <array>

#include "inventory/host_inventory.h"
#include "inventory/sections.h"
#include "inventory/sources.h"
#include "inventory/store.h"
#include "kemdctl/commands.h"
#include "kemdctl/inventory/firmware.h"
#include "kemdctl/inventory/items.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kHelp =
    R"(usage: kemdctl inventory [SECTION ...] [--long] [--json]
       kemdctl inventory --tables [--json]
       kemdctl inventory [--slot BB:DD] [--from-dump FILE] [--dump FILE] [--json]

Shows the hardware and the volumes of this host. Sections are system, memory,
slots, pci, usb, drives, network and volumes; without one, all are shown.

  --long             all fields of each item
  --tables           the firmware's SMBIOS tables instead: where they come from,
                     their revision, the number of structures of each type, and
                     which slot holds which PCI device
  --slot BB:DD       only the number of the slot that holds the device with this
                     bus and device number, hexadecimal; status 1: not known
  --from-dump FILE   looks at tables in a file, as --dump or dmidecode wrote it
  --dump FILE        writes the tables into a file that dmidecode reads as well;
                     -: to standard output
  --json             results as JSON

The slot map comes from the PCI IRQ routing table, with types from SMBIOS, or
else from SMBIOS; for a dump only from SMBIOS. An on-board device has the number
0 in the routing table, and in SMBIOS its instance among devices of its kind.
What only root can read is absent for others, and standard error says so.
Exit status: 0 yes or done, 1 no (no tables, slot not known), 2 error.
)";

int UsageError(const std::string& what) {
    Complain("%s; see kemdctl inventory --help", what.c_str());
    return kError;
}

// After TakeValue of each of them.
bool HasValues(const CommandLine& line) {
    for (const CommandLine::Option& option : line.options) {
        const bool needsValue =
            option.name != "--json" && option.name != "--long" && option.name != "--tables";
        if (!needsValue || option.value != nullptr) continue;
        Complain("%s: a value is missing", Printable(option.name).c_str());
        return false;
    }
    return true;
}

// False, after a complaint, when a word is no section.
bool TakeSections(CommandLine& line, uint32_t& sections) {
    for (const char* word : line.words) {
        const uint32_t section = SectionByName(word);
        if (section == 0) {
            (void)UsageError("there is no section " + Printable(word));
            return false;
        }
        sections |= section;
    }
    line.words.clear();
    return true;
}

int ShowItems(CommandLine& line, ReportWriter& report) {
    uint32_t sections = 0;
    if (!TakeSections(line, sections)) return kError;
    const bool isWhole = sections == 0;
    if (isWhole) sections = KEMD_INVENTORY_ALL & ~KEMD_INVENTORY_HEALTH;
    KemdInventory inventory;
    ScanHost(inventory, sections);
    if (!line.Has("--json")) {
        ShowSections(report, inventory, sections, line.Has("--long"));
    } else if (isWhole) {
        StateTables(report);
        report.Members(InventoryJson(inventory));
    } else {
        report.SetJson(false);
        Write(InventoryJson(inventory));
    }
    ComplainOfNotes(inventory);
    return kYes;
}

}  // namespace

int RunInventory(CommandLine& line, ReportWriter& report) {
    constexpr std::array<std::string_view, 6> kOptions = {"--slot", "--from-dump", "--dump",
                                                          "--json", "--tables",    "--long"};
    if (line.Has("--help")) {
        Write(kHelp);
        return kYes;
    }
    const char* const slot = line.TakeValue("--slot");
    const char* const source = line.TakeValue("--from-dump");
    const char* const target = line.TakeValue("--dump");
    const bool isFirmware =
        slot != nullptr || source != nullptr || target != nullptr || line.Has("--tables");
    if (!line.HasOnly(kOptions) || !HasValues(line) || (isFirmware && !line.HasNoWords()) ||
        (slot != nullptr && target != nullptr)) {
        Complain("see kemdctl inventory --help");
        return kError;
    }
    if (target != nullptr && IsStandardOutput(target) && line.Has("--json")) {
        Complain("--json and --dump - both write to standard output; name a file for --dump");
        return kError;
    }
    if (!isFirmware) return ShowItems(line, report);
    return RunFirmware(report, {slot, source, target});
}
