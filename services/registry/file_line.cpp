#include "services/registry/file_line.h"

#include <cstdlib>

#include "base/line_reader.h"
#include "base/text.h"

namespace {

constexpr RegistryType kValueTypes[] = {kRegistryString, kRegistryExpandString, kRegistryBinary,
                                        kRegistryNumber};

constexpr char kDigits[] = "0123456789abcdef";

}  // namespace

RegistryLine DecodeRegistryLine(std::string_view line) {
    line = CutAtNul(line);
    if (line.empty() || line.front() == '\n') return {RegistryLine::kEnd};
    if (line.back() == '\n') line.remove_suffix(1);
    if (line.front() == '[') {
        const size_t end = line.find(']');
        if (end != line.npos) return {RegistryLine::kHeader, line.substr(1, end - 1)};
    }
    const size_t equals = line.find('=');
    if (equals == line.npos) return {};
    const std::string_view rest = line.substr(equals);
    for (const RegistryType type : kValueTypes) {
        const std::string_view marker = RegistryMarker(type);
        if (!rest.starts_with(marker)) continue;
        return {RegistryLine::kValue, line.substr(0, equals), type, rest.substr(marker.size())};
    }
    return {};
}

std::optional<int32_t> DecodeRegistryNumber(std::string_view data) {
    const std::string text(data);
    char* end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str()) return std::nullopt;
    return static_cast<int32_t>(number);
}

std::string DecodeRegistryBinary(std::string_view data) {
    const std::string text(data);
    std::string bytes;
    const char* rest = text.c_str();
    for (;;) {
        char* end = nullptr;
        const unsigned long number = std::strtoul(rest, &end, 16);
        if (end == rest) return bytes;
        bytes += static_cast<char>(number);
        rest = end;
    }
}

void AppendRegistryValue(std::string& text, const RegistryEntry& entry) {
    if (entry.IsSubkey()) return;
    if (entry.Type() != kRegistryBinary) {
        text += entry.Line();
        return;
    }
    text.append(entry.Name()).append(RegistryMarker(kRegistryBinary));
    for (const unsigned char byte : entry.Data()) {
        text += {kDigits[byte / 16], kDigits[byte % 16], ' '};
    }
    text += '\n';
}
