#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "base/file_io.h"
#include "inventory/bios_tables.h"
#include "inventory/pci_slot_sources.h"
#include "kemdctl/commands.h"
#include "kemdctl/inventory/inventory_report.h"
#include "kemdctl/inventory/smbios_dump.h"
#include "kemdctl/ui/json.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kHelp =
    R"(usage: kemdctl inventory [--slot BB:DD] [--from-dump FILE] [--dump FILE]
                         [--json]

Shows which source delivers the firmware's SMBIOS tables, their revision, the
number of structures of each type, and which slot holds which PCI device.

  --slot BB:DD       only the number of the slot that holds the device with this
                     bus and device number, hexadecimal; status 1: not known
  --from-dump FILE   looks at tables in a file, as --dump or dmidecode wrote it
  --dump FILE        writes the tables into a file that dmidecode reads as well;
                     -: to standard output
  --json             results as JSON

The slot map comes from the PCI IRQ routing table, with types from SMBIOS, or
else from SMBIOS; of a dump only from SMBIOS. A device on board has the number 0
in the first, its instance among the devices of its kind in the second.
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
    Complain("%s is no bus and device number BB:DD", Printable(text).c_str());
    return false;
}

// Which of the sources are there but cannot be read, and why.
std::string DeniedSources() {
    std::string denied;
    bool needsRoot = false;
    for (const char* path : {"/sys/firmware/dmi/tables/smbios_entry_point",
                             "/sys/firmware/dmi/tables/DMI", "/sys/firmware/efi/systab",
                             "/proc/efi/systab", "/vmfs/devices/char/mem/smbios", "/dev/mem"}) {
        if (access(path, R_OK) == 0 || errno == ENOENT) continue;
        const int error = errno;
        denied += std::string(denied.empty() ? "cannot read " : ", ") + path + ": ";
        denied += std::strerror(error);
        needsRoot = needsRoot || error == EACCES || error == EPERM;
    }
    return denied + (needsRoot ? "; run kemdctl as root" : "");
}

bool LoadDump(const char* path, Inventory& inventory) {
    if (!OpenRegularFile(path, O_RDONLY).IsOpen()) {
        const int error = errno;
        inventory.error = std::string("cannot read ") + path + ": " +
                          (error == EINVAL ? "no regular file" : std::strerror(error));
        return false;
    }
    const auto file = ReadTableFile(path, kLargestSmbiosTable);
    SmbiosData data;
    if (!file || !DecodeSmbiosDump(*file, data)) {
        inventory.error = std::string(path) + " holds no SMBIOS tables";
        return false;
    }
    inventory.hasSmbios = inventory.smbios.Connect(std::move(data));
    const CPciSlotMap::Slots slots = GatherSmbiosSlots(inventory.smbios);
    if (!slots.empty()) inventory.slotSource = PciSlotSource::kSmbios;
    inventory.slots = MakeSlotRows(slots, inventory.slotSource, inventory.smbios);
    return true;
}

void ShowSlotAsJson(const SlotRow* row, bool isExact, const std::string& error) {
    JsonWriter json;
    json.Open('{');
    if (row != nullptr) {
        json.Key("slot");
        json.Number(row->data.slot);
        json.Key("match");
        json.Text(isExact ? "device" : "bus");
        AddSlotName(json, *row);
    }
    AddError(json, error);
    json.Close('}');
    json.Finish();
}

int ShowSlot(const Inventory& inventory, const PciAddress& address, bool withJson) {
    const auto [bus, device] = address;
    const SlotRow* const row = FindSlotRow(inventory.slots, bus, device);
    std::string error = inventory.error;
    if (row == nullptr) {
        std::array<char, 64> text{};
        std::snprintf(text.data(), text.size(), "the slot of %02x:%02x is not known", bus, device);
        error = text.data();
        if (inventory.slots.empty() && inventory.hasSmbios) {
            error += ": " + WhyNoSlots(inventory.smbios);
        }
        Complain("%s", error.c_str());
    }
    const bool isExact = row != nullptr && row->data.Matches(bus, device, false);
    if (row != nullptr && !isExact) {
        Complain("%02x:%02x has no row of its own: slot %d is that of %02x:%02x, by the bus alone",
                 bus, device, row->data.slot, row->data.bus, row->data.device);
    }
    if (withJson) {
        ShowSlotAsJson(row, isExact, error);
    } else if (row != nullptr) {
        Write(std::to_string(row->data.slot) + "\n");
    }
    return row != nullptr ? kYes : kNo;
}

int WriteDump(const Inventory& inventory, const char* path) {
    const std::string dump = EncodeSmbiosDump(inventory.smbios.Data());
    if (dump.empty()) {
        const std::string& error = inventory.smbios.Error();
        Complain("nothing that a dump can hold: %s",
                 error.empty() ? "an unknown entry point" : Printable(error).c_str());
        return kNo;
    }
    if (std::strcmp(path, "-") != 0) {
        return WriteOutputFile(path, 0600, [&dump](const FileSink& write) { return write(dump); });
    }
    if (isatty(STDOUT_FILENO) != 0) {
        Complain("the tables are binary and standard output is a terminal: name a file, or > FILE");
        return kError;
    }
    Write(dump);
    return kYes;
}

// Broken tables are there as far as they could be read.
bool IsBroken(const Inventory& inventory) {
    return !inventory.hasSmbios && inventory.smbios.Data().source != SmbiosSource::kNone;
}

int Report(const Inventory& inventory, bool withJson) {
    if (withJson) {
        ShowInventoryAsJson(inventory);
    } else {
        ShowInventory(inventory);
    }
    const bool isEmpty = !inventory.hasSmbios && inventory.slots.empty();
    return IsBroken(inventory) || isEmpty ? kNo : kYes;
}

// Asks the machine. False when what the options need is not there for want of permission.
bool LoadMachine(Inventory& inventory, bool needsSmbios, bool needsSlots) {
    inventory.hasSmbios = inventory.smbios.Connect();
    if (needsSlots) {
        inventory.slotSource = CPciSlotMap::Source();
        inventory.slots =
            MakeSlotRows(CPciSlotMap::GetSlotMapping(), inventory.slotSource, inventory.smbios);
    }
    const bool hasSlots = !inventory.slots.empty();
    if ((inventory.hasSmbios || !needsSmbios) && (hasSlots || !needsSlots)) return true;
    inventory.error = DeniedSources();
    return inventory.error.empty() || (needsSmbios && inventory.hasSmbios) || hasSlots;
}

// What is wrong with the tables, beside what is wrong with their sources.
void AddTableError(Inventory& inventory) {
    const std::string& error = inventory.smbios.Error();
    inventory.error += std::string(inventory.error.empty() ? "" : "; ") +
                       "SMBIOS: " + (error.empty() ? "no tables" : error);
}

}  // namespace

int RunInventory(CommandLine& line, ReportWriter& report) {
    report.SetJson(false);  // its JSON is still its own
    constexpr std::array<std::string_view, 5> kOptions = {"--slot", "--from-dump", "--dump",
                                                          "--json", "--help"};
    if (line.Has("--help")) {
        Write(kHelp);
        return kYes;
    }
    const char* const slot = line.TakeValue("--slot");
    const char* const source = line.TakeValue("--from-dump");
    const char* const target = line.TakeValue("--dump");
    const bool isWhole = line.Has("--slot") == (slot != nullptr) &&
                         line.Has("--from-dump") == (source != nullptr) &&
                         line.Has("--dump") == (target != nullptr);
    if (!line.HasOnly(kOptions) || !line.HasNoWords() || !isWhole ||
        (slot != nullptr && target != nullptr)) {
        Complain("see kemdctl inventory --help");
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
    const bool withJson = line.Has("--json");
    if (!isLoaded) {
        if (withJson) ShowSlotAsJson(nullptr, false, inventory.error);
        return kError;
    }
    if (target != nullptr) return WriteDump(inventory, target);
    return slot != nullptr ? ShowSlot(inventory, address, withJson) : Report(inventory, withJson);
}
