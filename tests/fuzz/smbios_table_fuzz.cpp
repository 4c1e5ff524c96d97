// Feeds arbitrary bytes to the walk over an SMBIOS table and to the slot records from it.
#include <vector>

#include "inventory/pci_slot_sources.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CSMBios smbios;
    SmbiosData tables;
    tables.table.assign(data, data + size);
    tables.table.shrink_to_fit();
    const bool complete = smbios.Connect(std::move(tables));
    Require(complete || size == 0 || !smbios.Error().empty(), "a failure without a text");
    size_t structures = 0;
    for (const auto& [type, positions] : smbios.Structures()) {
        size_t last = 0;
        for (const size_t position : positions) {
            Require(position < size && data[position] == type, "an index beside its structure");
            Require(position >= last, "an index out of order");
            Require(smbios.Formatted(position).size() >= 4, "a structure without a header");
            last = position;
            ++structures;
        }
    }
    Require(structures <= size / 4, "more structures than headers");
    const auto slots = GatherSmbiosSlots(smbios);
    Require(slots.size() <= structures, "more slots than structures");
    return 0;
}
