// kemdctl inventory on the firmware's own tables: the slot of a device, and dumps.
#include "kemdctl/inventory/firmware.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "kemdctl/inventory/report.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

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

int Report(ReportWriter& report, const Inventory& inventory) {
    ReportInventory(report, inventory);
    const bool isEmpty = !inventory.hasSmbios && inventory.slots.empty();
    return IsBroken(inventory) || isEmpty ? kNo : kYes;
}

}  // namespace

bool IsStandardOutput(const char* path) {
    return std::strcmp(path, "-") == 0;
}

int RunFirmware(ReportWriter& report, const FirmwareOptions& options) {
    const auto& [slot, source, target] = options;
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

void StateTables(ReportWriter& report) {
    Inventory inventory;
    (void)LoadMachine(inventory, true, true);
    if (!inventory.hasSmbios) AddTableError(inventory);
    ReportInventory(report, inventory);
}
