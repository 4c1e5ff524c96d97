#include "tools/kemdctl/inventory_command.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "inventory/bios_tables.h"
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
                     bus and device number, hexadecimal; status 1: not known
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

bool ParseAddress(const char* text, PciAddress& address) {
    unsigned bus = 0;
    unsigned device = 0;
    int end = -1;
    if (std::sscanf(text, "%2x:%2x%n", &bus, &device, &end) != 2 || text[end] != '\0') return false;
    address = {static_cast<uint8_t>(bus), static_cast<uint8_t>(device)};
    return device < 32;
}

// Says which of the sources are there but cannot be read; whether one is.
bool ComplainOfSources() {
    bool isDenied = false;
    for (const char* path : {"/sys/firmware/dmi/tables/smbios_entry_point",
                             "/sys/firmware/dmi/tables/DMI", "/dev/mem"}) {
        if (access(path, R_OK) == 0 || errno == ENOENT) continue;
        Complain("cannot read %s: %s", path, std::strerror(errno));
        isDenied = true;
    }
    return isDenied;
}

bool LoadDump(const char* path, Inventory& inventory) {
    const auto file = ReadTableFile(path, kLargestSmbiosTable);
    SmbiosData data;
    if (!file || !DecodeSmbiosDump(*file, data)) {
        Complain("%s holds no SMBIOS tables that can be read", Printable(path).c_str());
        return false;
    }
    inventory.hasSmbios = inventory.smbios.Connect(std::move(data));
    inventory.slots = CPciSlotMap::GetSlotMappingFromSMBIOS(inventory.smbios);
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
        Complain("there is no entry point that a dump can hold");
        return kNo;
    }
    return WriteOutputFile(path, 0600, [&dump](const FileSink& write) { return write(dump); });
}

// Also a broken table is reported as far as it was read.
int Report(const Inventory& inventory, bool withJson) {
    const bool hasAny = inventory.hasSmbios || !inventory.slots.empty();
    if (!inventory.smbios.Error().empty()) {
        Complain("SMBIOS: %s", Printable(inventory.smbios.Error()).c_str());
    }
    if (withJson) {
        ShowInventoryAsJson(inventory);
    } else {
        ShowInventory(inventory);
    }
    return hasAny ? kYes : kNo;
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
    PciAddress address{};
    if (!line.HasOnly(kOptions) || !line.words.empty() || line.Has("--slot") != (slot != nullptr) ||
        line.Has("--from-dump") != (source != nullptr) ||
        line.Has("--dump") != (target != nullptr) ||
        (slot != nullptr && !ParseAddress(slot, address))) {
        Complain("see kemdctl inventory --help");
        return kError;
    }
    Inventory inventory;
    if (source != nullptr) {
        if (!LoadDump(source, inventory)) return kError;
    } else {
        if (slot == nullptr || target != nullptr) inventory.hasSmbios = inventory.smbios.Connect();
        inventory.slots = CPciSlotMap::GetSlotMapping();
        inventory.slotSource = CPciSlotMap::Source();
        const bool isMissing = inventory.slots.empty() || (slot == nullptr && !inventory.hasSmbios);
        if (isMissing && ComplainOfSources() && inventory.slots.empty()) return kError;
    }
    if (target != nullptr) return WriteDump(inventory, target);
    const bool withJson = line.Has("--json");
    return slot != nullptr ? ShowSlot(inventory, address, withJson) : Report(inventory, withJson);
}
