#include "performance/checksum.h"

#include <nmmintrin.h>

#include <array>
#include <cstring>

namespace {

constexpr std::array<uint32_t, 256> kTable = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) value = value >> 1 ^ ((value & 1) != 0 ? 0x82f63b78 : 0);
        table[i] = value;
    }
    return table;
}();

uint32_t ByTable(const uint8_t* bytes, size_t size, uint32_t value) {
    for (size_t i = 0; i < size; ++i) value = value >> 8 ^ kTable[(value ^ bytes[i]) & 0xff];
    return value;
}

__attribute__((target("sse4.2"))) uint32_t ByInstruction(const uint8_t* bytes, size_t size,
                                                         uint32_t value) {
    uint64_t wide = value;
    for (; size >= sizeof(uint64_t); size -= sizeof(uint64_t), bytes += sizeof(uint64_t)) {
        uint64_t part = 0;
        std::memcpy(&part, bytes, sizeof part);
        wide = _mm_crc32_u64(wide, part);
    }
    return ByTable(bytes, size, static_cast<uint32_t>(wide));
}

}  // namespace

uint32_t Crc32c(const void* bytes, size_t size, uint32_t before) {
    const auto* const from = static_cast<const uint8_t*>(bytes);
    const bool isFast = __builtin_cpu_supports("sse4.2") != 0;
    return ~(isFast ? ByInstruction(from, size, ~before) : ByTable(from, size, ~before));
}
