// The first MiB of memory with bytes of the input in the BIOS area.
#pragma once

#include "tests/inventory/memory_world.h"

// The input's first two bytes are the offset of the others after `start`, in units of `step` bytes.
inline Bytes BiosMemory(const uint8_t* data, size_t size, size_t start, size_t step) {
    const size_t address = start + (data[0] << 8 | data[1]) * step;
    Bytes memory(0x100000);
    Place(memory, address, Bytes(data + 2, data + std::min(size, 2 + memory.size() - address)));
    return memory;
}
