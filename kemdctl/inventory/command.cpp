#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "kemdctl/commands.h"
#include "kemdctl/inventory/report.h"
#include "kemdctl/ui/output_file.h"
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

struct PciAddress {
    uint8_t bus;
    uint8_t device;
};

// One or two hexadecimal digits and nothing else.
bool ParseNumber(std::string_view text, uint8_t& number) {
    if (text.empty() || text.size() > 2) return false;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number, 16);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

bool ParseAddress(std::string_view text, PciAddress& address) {
    const size_t colon = text.find(':');
    if (colon != text.npos && ParseNumber(text.substr(0, colon), address.bus) &&
        ParseNumber(text.substr(colon + 1), address.device) && address.device < 32) {
        return true;
    }
    Complain("%s is not a bus and device number BB:DD", Printable(text).c_str());
    return false;
}

int ShowSlot(ReportWriter& report, const Inventory& inventory, const PciAddress& address) {
    const auto [bus, device] = address;
    const SlotRow* const row = FindSlotRow(inventory.slots, bus, device);
    report.OpenObject();
    if (row == nullptr) {
        std::array<char, 64> text{};
        std::snprintf(text.data(), text.size(), "the slot of %02x:%02x is not known", bus, device);
        const bool isMapEmpty = inventory.slots.empty() && inventory.hasSmbios;
        const std::string error =
            text.data() + (isMapEmpty ? ": " + WhyNoSlots(inventory.smbios) : "");
        Complain("%s", error.c_str());
        ReportError(report, error);
        return kNo;
    }
    const bool isExact = row->data.Matches(bus, device, false);
    if (!isExact) {
        Complain("%02x:%02x has no row of its own: slot %d is that of %02x:%02x, by the bus alone",
                 bus, device, row->data.slot, row->data.bus, row->data.device);
    }
    ReportSlot(report, *row, isExact);
    ReportError(report, inventory.error);
    return kYes;
}

bool IsStandardOutput(const char* path) {
    return std::strcmp(path, "-") == 0;
}

int WriteDump(ReportWriter& report, const Inventory& inventory, const char* path) {
    const std::string dump = EncodeSmbiosDump(inventory.smbios.Data());
    if (dump.empty()) {
        const std::string& error = inventory.smbios.Error();
        Complain("there are no tables to dump: %s",
                 error.empty() ? "an unknown entry point" : Printable(error).c_str());
        return kNo;
    }
    if (IsStandardOutput(path)) {
        if (isatty(STDOUT_FILENO) == 0) {
            Write(dump);
            return kYes;
        }
        Complain("the tables are binary and standard output is a terminal: name a file, or > FILE");
        return kError;
    }
    const int result =
        WriteOutputFile(path, 0600, [&dump](const FileSink& write) { return write(dump); });
    if (result != kYes) return result;
    report.OpenObject();
    ReportError(report, inventory.error);
    return result;
}

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

int Report(ReportWriter& report, const Inventory& inventory) {
    ReportInventory(report, inventory);
    const bool isEmpty = !inventory.hasSmbios && inventory.slots.empty();
    return IsBroken(inventory) || isEmpty ? kNo : kYes;
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
    PciAddress address{};
    if (slot != nullptr && !ParseAddress(slot, address)) return kError;
    Inventory inventory;
    const bool isLoaded = source != nullptr
                              ? LoadDump(source, inventory)
                              : LoadMachine(inventory, slot == nullptr, target == nullptr);
    const bool needsTables = slot == nullptr && target == nullptr && isLoaded;
    if (IsBroken(inventory) || (needsTables && !inventory.hasSmbios)) AddTableError(inventory);
    if (!inventory.error.empty()) Complain("%s", Printable(inventory.error).c_str());
    if (!isLoaded) {
        report.OpenObject();
        ReportError(report, inventory.error);
        return kError;
    }
    if (target != nullptr) return WriteDump(report, inventory, target);
    return slot != nullptr ? ShowSlot(report, inventory, address) : Report(report, inventory);
}
