// How functions of the C interface hand over their results.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string_view>

// Calls `work`; nothing throws across the interface.
template <typename Work>
[[nodiscard]] int Guarded(const Work& work) try {
    return work();
} catch (const std::exception&) {
    return ENOMEM;
}

[[nodiscard]] inline int StoreText(std::string_view text, char* out, size_t* size) {
    if (size == nullptr) return EINVAL;
    const size_t room = *size;
    *size = text.size() + 1;
    if (out == nullptr || room < *size) return ERANGE;
    text.copy(out, text.size());
    out[text.size()] = '\0';
    return 0;
}

// Into a structure that may be of an older or a newer caller: see the head of kemd/network.h.
template <typename T>
[[nodiscard]] int StoreRecord(const T& record, T* out) {
    if (out == nullptr || out->size < sizeof out->size) return EINVAL;
    const uint32_t size = out->size;
    const size_t common = std::min<size_t>(size, sizeof record);
    auto* bytes = reinterpret_cast<unsigned char*>(out);
    std::memcpy(bytes, &record, common);
    std::memset(bytes + common, 0, size - common);
    out->size = size;
    return 0;
}
