#include "kemdctl/inventory/machine.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "base/file_io.h"
#include "inventory/bios_tables.h"
#include "inventory/pci_slot_sources.h"
#include "inventory/smbios_entry.h"
#include "inventory/table_field.h"

namespace {

constexpr size_t kTableOffset = 32;

// Stores a number, little-endian.
void Store(std::vector<uint8_t>& bytes, size_t offset, size_t size, uint64_t number) {
    for (size_t i = 0; i < size; ++i) bytes[offset + i] = static_cast<uint8_t>(number >> (8 * i));
}

// Sets the byte at `position` so that those from `start` to `end` add up to 0.
void FixChecksum(std::vector<uint8_t>& bytes, size_t start, size_t end, size_t position) {
    bytes[position] = 0;
    uint8_t sum = 0;
    for (size_t i = start; i < end; ++i) sum = static_cast<uint8_t>(sum + bytes[i]);
    bytes[position] = static_cast<uint8_t>(-sum);
}

// False when the file holds no such tables.
bool DecodeSmbiosDump(std::span<const uint8_t> bytes, SmbiosData& data) {
    data.source = SmbiosSource::kFile;
    if (BeginsWith(bytes, "_SM3_")) {
        const size_t length = ReadSmbiosEntryLength(bytes);
        if (length < 24 || length > bytes.size()) return false;
        data.entryPoint.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
    } else if (!BeginsWith(bytes, "_SM_") || !CheckSmbiosHeader(bytes, data)) {
        return false;
    }
    const SmbiosTableRange range = ReadSmbiosTableRange(bytes);
    if (range.address >= bytes.size()) return false;
    const auto rest = bytes.subspan(range.address);
    // The length in a version-3 entry point is the most that the table can have.
    if (range.length > rest.size() && !BeginsWith(bytes, "_SM3_")) return false;
    const auto table = rest.first(std::min<uint64_t>(range.length, rest.size()));
    data.table.assign(table.begin(), table.end());
    return !data.table.empty();
}

// Which sources exist but cannot be read, and why.
std::string DeniedSources() {
    std::string denied;
    bool needsRoot = false;
    for (const char* path : kInventoryFiles) {
        if (access(path, R_OK) == 0 || errno == ENOENT) continue;
        const int error = errno;
        denied += std::string(denied.empty() ? "cannot read " : ", ") + path + ": ";
        denied += std::strerror(error);
        needsRoot = needsRoot || error == EACCES || error == EPERM;
    }
    return denied + (needsRoot ? "; run kemdctl as root" : "");
}

}  // namespace

std::string EncodeSmbiosDump(const SmbiosData& data) {
    std::vector<uint8_t> entry = data.entryPoint;
    const size_t length = ReadSmbiosEntryLength(entry);
    if (length > entry.size() || data.table.empty()) return {};
    // DMTF DSP0134, the two entry points: table address, table length, checksums.
    if (BeginsWith(entry, "_SM3_") && length >= 24 && length <= kTableOffset) {
        Store(entry, 0x0C, 4, data.table.size());
        Store(entry, 0x10, 8, kTableOffset);
        FixChecksum(entry, 0, length, 0x05);
    } else if (BeginsWith(entry, "_SM_") && length >= 30 && length <= kTableOffset &&
               data.table.size() <= UINT16_MAX) {
        entry.resize(kTableOffset);  // some firmware counts one byte too few
        Store(entry, 0x16, 2, data.table.size());
        Store(entry, 0x18, 4, kTableOffset);
        FixChecksum(entry, 0x10, 0x1F, 0x15);
        FixChecksum(entry, 0, length, 0x04);
    } else {
        return {};
    }
    entry.resize(kTableOffset);
    std::string file(entry.begin(), entry.end());
    return file.append(data.table.begin(), data.table.end());
}

bool LoadDump(const char* path, Inventory& inventory) {
    const auto file = ReadTextFile(path, kLargestSmbiosTable + 1);
    if (!file) {
        const int error = errno;
        inventory.error = std::string("cannot read ") + path + ": " +
                          (error == EINVAL ? "not a regular file" : std::strerror(error));
        return false;
    }
    SmbiosData data;
    const std::vector<uint8_t> bytes(file->begin(), file->end());
    if (bytes.size() > kLargestSmbiosTable || !DecodeSmbiosDump(bytes, data)) {
        inventory.error = std::string(path) + " holds no SMBIOS tables";
        return false;
    }
    inventory.hasSmbios = inventory.smbios.Connect(std::move(data));
    const CPciSlotMap::Slots slots = GatherSmbiosSlots(inventory.smbios);
    if (!slots.empty()) inventory.slotSource = PciSlotSource::kSmbios;
    inventory.slots = MakeSlotRows(slots, inventory.slotSource, inventory.smbios);
    return true;
}

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

bool IsBroken(const Inventory& inventory) {
    return !inventory.hasSmbios && inventory.smbios.Data().source != SmbiosSource::kNone;
}

void AddTableError(Inventory& inventory) {
    const std::string& error = inventory.smbios.Error();
    inventory.error += std::string(inventory.error.empty() ? "" : "; ") +
                       "SMBIOS: " + (error.empty() ? "no tables" : error);
}
