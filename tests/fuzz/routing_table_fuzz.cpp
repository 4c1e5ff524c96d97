// Puts any bytes into the area of the PCI IRQ routing table.
#include "tests/fuzz/bios_memory.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    BiosMemory memory(data, size, 0xF0000, 1);
    const std::vector<uint8_t> entries = memory.GetRoutingTable();
    const std::vector<uint8_t>& area = memory.Area();
    Require(!memory.IsMapped(), "a mapping that stays");
    Require(entries.size() % 16 == 0 && entries.size() <= 65504 - 32, "entries of another size");
    // The entries are a part of the area, after a header.
    Require(std::search(area.begin(), area.end(), entries.begin(), entries.end()) != area.end(),
            "entries that are not there");
    return 0;
}
