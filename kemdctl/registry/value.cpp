#include "kemdctl/registry/value.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "base/text.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr RegistryType kTypes[] = {kRegistryString, kRegistryExpandString, kRegistryBinary,
                                   kRegistryNumber};

// False unless the whole text is a number.
template <typename Number>
bool ParseAll(std::string_view text, Number& number, int base) {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number, base);
    return result.ec == std::errc() && result.ptr == end;
}

// Pairs of digits with blanks anywhere between them; a single digit is a byte too.
std::optional<std::string> ParseBinary(std::string_view text) {
    std::string bytes;
    for (;;) {
        text = TrimStart(text, " ");
        if (text.empty()) return bytes;
        const std::string_view group = text.substr(0, text.find(' '));
        if (group.size() > 1 && group.size() % 2 != 0) return std::nullopt;
        for (size_t i = 0; i < group.size(); i += 2) {
            uint8_t byte = 0;
            if (!ParseAll(group.substr(i, 2), byte, 16)) return std::nullopt;
            bytes += static_cast<char>(byte);
        }
        text.remove_prefix(group.size());
    }
}

}  // namespace

const char* TypeName(uint32_t type) {
    switch (type) {
        case kRegistryString:
            return "string";
        case kRegistryExpandString:
            return "expand";
        case kRegistryBinary:
            return "binary";
        case kRegistryNumber:
            return "number";
        default:
            return "key";
    }
}

std::string DataText(const RegistryEntry& entry) {
    if (entry.Type() == kRegistryNumber) return std::to_string(entry.Number());
    if (entry.Type() != kRegistryBinary) return std::string(entry.Data());
    std::string text;
    for (const unsigned char byte : entry.Data()) {
        char digits[4];
        std::snprintf(digits, sizeof digits, text.empty() ? "%02x" : " %02x", byte);
        text += digits;
    }
    return text;
}

void ReportValue(ReportWriter& report, const RegistryEntry& entry, const std::string& data) {
    report.OpenObject();
    report.Text("name", entry.Name());
    report.Text("type", TypeName(entry.Type()));
    if (entry.Type() == kRegistryNumber) {
        report.Number("data", entry.Number());
    } else {
        report.Text("data", data);
    }
    report.Close();
}

std::optional<RegistryEntry> MakeValue(std::string_view name, std::string_view type,
                                       std::string_view data) {
    const auto known = std::find_if(std::begin(kTypes), std::end(kTypes),
                                    [type](RegistryType each) { return type == TypeName(each); });
    if (known == std::end(kTypes)) {
        Complain("unknown type %s: string, expand, number or binary", Printable(type).c_str());
        return std::nullopt;
    }
    if (*known == kRegistryNumber) {
        int32_t number = 0;
        if (ParseAll(data, number, 10)) return RegistryEntry(name, number);
        Complain("%s is not a decimal number of 32 bits", Printable(data).c_str());
        return std::nullopt;
    }
    if (*known != kRegistryBinary) return RegistryEntry(name, *known, data);
    if (const auto bytes = ParseBinary(data)) return RegistryEntry(name, *known, *bytes);
    Complain("%s is not hexadecimal, two digits for each byte", Printable(data).c_str());
    return std::nullopt;
}
