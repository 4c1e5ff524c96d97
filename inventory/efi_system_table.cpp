#include "inventory/efi_system_table.h"

#include <charconv>

// 0 for what is no hexadecimal number up to its end.
static uint64_t ParseAddress(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    uint64_t address = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), address, 16);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() ? address : 0;
}

EfiSmbiosAddresses ParseEfiSystemTable(std::string_view text) {
    EfiSmbiosAddresses addresses;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
        const size_t equals = line.find('=');
        if (equals == line.npos) continue;
        const std::string_view name = line.substr(0, equals);
        const uint64_t address = ParseAddress(line.substr(equals + 1));
        if (address == 0) continue;
        if (name == "SMBIOS3") addresses.version3 = address;
        if (name == "SMBIOS") addresses.version2 = address;
    }
    return addresses;
}
