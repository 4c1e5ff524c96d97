#include "tools/kemdctl/inventory_command.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "inventory/bios_tables.h"
#include "inventory/pci_slot_sources.h"
#include "services/base/regular_file.h"
#include "tools/kemdctl/inventory_report.h"
#include "tools/kemdctl/json.h"
#include "tools/kemdctl/output_file.h"
#include "tools/kemdctl/smbios_dump.h"
#include "tools/kemdctl/text.h"

namespace {

constexpr const char* kHelp =
    R"(usage: kemdctl inventory [--slot BB:DD] [--from-dump FILE] [--dump FILE]
                         [--json]

Shows which source delivers the firmware's SMBIOS tables, their revision, the
number of structures of each type, and which slot holds which PCI device.

  --slot BB:DD       only the number of the slot that holds the device with this
                     bus and device number, hexadecimal; 0: none, on board;
                     status 1: not known
  --from-dump FILE   looks at tables in a file, as --dump or dmidecode wrote it
  --dump FILE        writes the tables into a file that dmidecode reads as well
  --json             results as JSON

Only root can read the tables. The slot map comes from the PCI IRQ routing
table, with types from SMBIOS, or else from SMBIOS; of a dump only from SMBIOS.
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

// Says which of the sources are there but cannot be read; whether one is.
bool ComplainOfSources() {
    bool isDenied = false;
    for (const char* path : {"/sys/firmware/dmi/tables/smbios_entry_point",
                             "/sys/firmware/dmi/tables/DMI", "/sys/firmware/efi/systab",
                             "/proc/efi/systab", "/vmfs/devices/char/mem/smbios", "/dev/mem"}) {
        if (access(path, R_OK) == 0 || errno == ENOENT) continue;
        Complain("cannot read %s: %s", path, std::strerror(errno));
        isDenied = true;
    }
    return isDenied;
}

bool LoadDump(const char* path, Inventory& inventory) {
    if (!OpenRegularFile(path, O_RDONLY).IsOpen()) {
        FileError("read", path);
        return false;
    }
    const auto file = ReadTableFile(path, kLargestSmbiosTable);
    SmbiosData data;
    if (!file || !DecodeSmbiosDump(*file, data)) {
        Complain("%s holds no SMBIOS tables", Printable(path).c_str());
        return false;
    }
    inventory.hasSmbios = inventory.smbios.Connect(std::move(data));
    inventory.slots = GatherSmbiosSlots(inventory.smbios);
    if (!inventory.slots.empty()) inventory.slotSource = PciSlotSource::kSmbios;
    return true;
}

int ShowSlot(const Inventory& inventory, const PciAddress& address, bool withJson) {
    const PciSlotData* slot = CPciSlotMap::Find(inventory.slots, address.bus, address.device);
    if (slot == nullptr) {
        Complain("the slot of %02x:%02x is not known", address.bus, address.device);
        return kNo;
    }
    if (withJson) {
        JsonWriter json;
        json.Open('{');
        json.Key("slot");
        json.Number(slot->slot);
        json.Close('}');
        json.Finish();
    } else {
        Write(std::to_string(slot->slot) + "\n");
    }
    return kYes;
}

int WriteDump(const Inventory& inventory, const char* path) {
    const std::string dump = EncodeSmbiosDump(inventory.smbios.Data());
    if (dump.empty()) {
        const std::string& error = inventory.smbios.Error();
        Complain("nothing that a dump can hold: %s",
                 error.empty() ? "an unknown entry point" : Printable(error).c_str());
        return kNo;
    }
    return WriteOutputFile(path, 0600, [&dump](const FileSink& write) { return write(dump); });
}

// Also a broken table is reported as far as it was read.
int Report(const Inventory& inventory, bool withJson) {
    if (!inventory.hasSmbios) {
        const std::string& error = inventory.smbios.Error();
        Complain("SMBIOS: %s", error.empty() ? "no tables" : Printable(error).c_str());
    }
    if (withJson) {
        ShowInventoryAsJson(inventory);
    } else {
        ShowInventory(inventory);
    }
    const bool isBroken =
        !inventory.hasSmbios && inventory.smbios.Data().source != SmbiosSource::kNone;
    return isBroken || (!inventory.hasSmbios && inventory.slots.empty()) ? kNo : kYes;
}

// Asks the machine for what the options need. False when it is not there for want of permission.
bool LoadMachine(Inventory& inventory, bool needsSmbios, bool needsSlots) {
    if (needsSmbios) inventory.hasSmbios = inventory.smbios.Connect();
    if (needsSlots) {
        inventory.slots = CPciSlotMap::GetSlotMapping();
        inventory.slotSource = CPciSlotMap::Source();
    }
    const bool hasAny = inventory.hasSmbios || !inventory.slots.empty();
    const bool hasAll =
        (inventory.hasSmbios || !needsSmbios) && (!inventory.slots.empty() || !needsSlots);
    return hasAll || !ComplainOfSources() || hasAny;
}

}  // namespace

int RunInventory(CommandLine& line) {
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
    if (!line.HasOnly(kOptions) || !line.words.empty() || !isWhole ||
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
    if (!isLoaded) return kError;
    if (target != nullptr) return WriteDump(inventory, target);
    const bool withJson = line.Has("--json");
    return slot != nullptr ? ShowSlot(inventory, address, withJson) : Report(inventory, withJson);
}
