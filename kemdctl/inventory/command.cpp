#include <array>

#include "kemdctl/commands.h"
#include "kemdctl/inventory/firmware.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kHelp =
    R"(usage: kemdctl inventory [--slot BB:DD] [--from-dump FILE] [--dump FILE]
                         [--json]

Shows where the firmware's SMBIOS tables come from, their revision, the number
of structures of each type, and which slot holds which PCI device.

  --slot BB:DD       only the number of the slot that holds the device with this
                     bus and device number, hexadecimal; status 1: not known
  --from-dump FILE   looks at tables in a file, as --dump or dmidecode wrote it
  --dump FILE        writes the tables into a file that dmidecode reads as well;
                     -: to standard output
  --json             results as JSON

The slot map comes from the PCI IRQ routing table, with types from SMBIOS, or
else from SMBIOS; for a dump only from SMBIOS. An on-board device has the number
0 in the routing table, and in SMBIOS its instance among devices of its kind.
Only root can read the tables.
Exit status: 0 yes or done, 1 no (no tables, slot not known), 2 error.
)";

// After TakeValue of each of them.
bool HasValues(const CommandLine& line) {
    for (const CommandLine::Option& option : line.options) {
        const bool needsValue = option.name != "--json";
        if (!needsValue || option.value != nullptr) continue;
        Complain("%s: a value is missing", Printable(option.name).c_str());
        return false;
    }
    return true;
}

}  // namespace

int RunInventory(CommandLine& line, ReportWriter& report) {
    constexpr std::array<std::string_view, 5> kOptions = {"--slot", "--from-dump", "--dump",
                                                          "--json", "--help"};
    if (line.Has("--help")) {
        Write(kHelp);
        return kYes;
    }
    const char* const slot = line.TakeValue("--slot");
    const char* const source = line.TakeValue("--from-dump");
    const char* const target = line.TakeValue("--dump");
    if (!line.HasOnly(kOptions) || !line.HasNoWords() || !HasValues(line) ||
        (slot != nullptr && target != nullptr)) {
        Complain("see kemdctl inventory --help");
        return kError;
    }
    if (target != nullptr && IsStandardOutput(target) && line.Has("--json")) {
        Complain("--json and --dump - both write to standard output; name a file for --dump");
        return kError;
    }
    return RunFirmware(report, {slot, source, target});
}
