#include "services/registry/file_line.h"

#include <cstdlib>

#include "services/base/line_reader.h"

namespace {

struct Marker {
    std::string_view text;
    RegistryType type;
};
constexpr Marker kMarkers[] = {{"=s=", kRegistryString},
                               {"=es=", kRegistryExpandString},
                               {"=b=", kRegistryBinary},
                               {"=d=", kRegistryNumber}};

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
    for (const Marker& marker : kMarkers) {
        if (!rest.starts_with(marker.text)) continue;
        return {RegistryLine::kValue, line.substr(0, equals), marker.type,
                rest.substr(marker.text.size())};
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

// Grows the text once and fills it in: saving a tree is little else.
static void AppendLine(std::string& text, const RegistryEntry& entry, std::string_view marker,
                       std::string_view data) {
    const std::string_view name(entry.Name(), entry.NameSize());
    const size_t start = text.size();
    text.resize(start + name.size() + marker.size() + data.size() + 1);
    char* end = text.data() + start;
    end += name.copy(end, name.size());
    for (const char c : marker) *end++ = c;
    end[data.copy(end, data.size())] = '\n';
}

static std::string BinaryText(std::string_view bytes) {
    std::string text;
    text.reserve(3 * bytes.size());
    for (const unsigned char byte : bytes) text += {kDigits[byte / 16], kDigits[byte % 16], ' '};
    return text;
}

void AppendRegistryValue(std::string& text, const RegistryEntry& entry) {
    switch (entry.Type()) {
        case kRegistryString:
            return AppendLine(text, entry, "=s=", entry.Data());
        case kRegistryExpandString:
            return AppendLine(text, entry, "=es=", entry.Data());
        case kRegistryBinary:
            return AppendLine(text, entry, "=b=", BinaryText(entry.Data()));
        case kRegistryNumber:
            return AppendLine(text, entry, "=d=", std::to_string(entry.Number()));
        default:
            return;
    }
}
