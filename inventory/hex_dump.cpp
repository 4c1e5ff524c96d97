#include "inventory/hex_dump.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "trace/debug.h"

void TraceHexDump(std::span<const uint8_t> bytes) {
    constexpr size_t kPerLine = 16;
    if (!Debug.IsTraceOn()) return;
    for (size_t offset = 0; offset < bytes.size(); offset += kPerLine) {
        std::array<char, 3 * kPerLine + 1> text{};
        const size_t count = std::min(kPerLine, bytes.size() - offset);
        for (size_t i = 0; i < count; ++i) {
            std::snprintf(text.data() + 3 * i, 4, " %02X", bytes[offset + i]);
        }
        TRACE(5, "%04X:%s", static_cast<unsigned>(offset), text.data());
    }
}
