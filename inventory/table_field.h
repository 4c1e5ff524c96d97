// Fields of firmware tables: little-endian, at a byte offset. Outside of the bytes everything is 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

inline uint8_t ReadByte(std::span<const uint8_t> bytes, size_t offset) {
    return offset < bytes.size() ? bytes[offset] : uint8_t{0};
}

inline uint16_t ReadWord(std::span<const uint8_t> bytes, size_t offset) {
    return static_cast<uint16_t>(ReadByte(bytes, offset) | ReadByte(bytes, offset + 1) << 8);
}

inline uint32_t ReadDword(std::span<const uint8_t> bytes, size_t offset) {
    return ReadWord(bytes, offset) | static_cast<uint32_t>(ReadWord(bytes, offset + 2)) << 16;
}

inline uint64_t ReadQword(std::span<const uint8_t> bytes, size_t offset) {
    return ReadDword(bytes, offset) | static_cast<uint64_t>(ReadDword(bytes, offset + 4)) << 32;
}

inline bool BeginsWith(std::span<const uint8_t> bytes, std::string_view text) {
    return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size())
        .starts_with(text);
}
