// Puts arbitrary bytes into the area of the PCI IRQ routing table.
#include "tests/fuzz/bios_memory.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const Bytes memory = BiosMemory(data, size, 0xF0000, 1);
    MemoryDevice device(memory);
    const Bytes entries = device.GetRoutingTable();
    Require(!device.IsMapped(), "a mapping that stays");
    Require(entries.size() % 16 == 0 && entries.size() <= 65504 - 32, "entries of another size");
    Require(
        std::search(memory.begin(), memory.end(), entries.begin(), entries.end()) != memory.end(),
        "entries that are not there");
    return 0;
}
