// Bytes as hexadecimal text for the trace, 16 a record, at level 5.
#pragma once

#include <cstdint>
#include <span>

void TraceHexDump(std::span<const uint8_t> bytes);
