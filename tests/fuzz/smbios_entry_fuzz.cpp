// Puts arbitrary bytes into the BIOS shadow memory: the scan, the check of the entry point, and the
// table that it points to.
#include "inventory/bios_tables.h"
#include "inventory/smbios_entry.h"
#include "tests/fuzz/bios_memory.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    MemoryDevice memory(BiosMemory(data, size, 0xE0000, 2));
    const Bytes bytes(data + 2, data + size);
    SmbiosData found;
    const bool isFound = GetShadowSmbios(memory, found);
    Require(isFound == !found.table.empty(), "a table and a failure");
    if (isFound) {
        uint8_t sum = 0;
        for (const uint8_t byte : found.entryPoint) sum = static_cast<uint8_t>(sum + byte);
        Require(sum == 0 && !found.entryPoint.empty(), "an entry point that does not add up");
        Require(found.table.size() == found.tableLength, "a table of another length");
    }
    (void)ReadSmbiosRevision(bytes);
    (void)ReadSmbiosTableRange(bytes);
    (void)ReadSmbiosEntryLength(bytes);
    return 0;
}
