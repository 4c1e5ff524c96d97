#include "services/registry/file_text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "base/text.h"

namespace {

constexpr RegistryType kValueTypes[] = {kRegistryString, kRegistryExpandString, kRegistryBinary,
                                        kRegistryNumber};

// What stands between name and data, by type.
constexpr std::string_view kMarkers[] = {"", "=s=", "=es=", "=b=", "=d="};

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
        const std::string_view marker = kMarkers[type];
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
    text += entry.Name();
    text += kMarkers[entry.Type()];
    if (entry.IsText()) text += entry.Data();
    if (entry.Type() == kRegistryNumber) text += std::to_string(entry.Number());
    if (entry.Type() == kRegistryBinary) {
        for (const unsigned char byte : entry.Data()) {
            text += {kDigits[byte / 16], kDigits[byte % 16], ' '};
        }
    }
    text += '\n';
}

namespace {

// A key that is being read.
struct OpenKey {
    std::string name;
    RegistryEntries entries;
};

// False when there is not enough memory for the value.
bool TakeValue(RegistryEntries& entries, const RegistryLine& line) try {
    if (line.type == kRegistryNumber) {
        const auto number = DecodeRegistryNumber(line.data);
        if (number) entries.emplace_back(line.name, *number);
    } else if (line.type == kRegistryBinary) {
        entries.emplace_back(line.name, line.type, DecodeRegistryBinary(line.data));
    } else {
        entries.emplace_back(line.name, line.type, line.data);
    }
    return true;
} catch (const std::exception&) {
    return false;
}

// Files written by kemd are sorted already. Others are sorted once at the end: inserting each entry
// of a large key in its place would take forever.
RegistryEntries Sorted(RegistryEntries entries) {
    const auto isBefore = [](const RegistryEntry& a, const RegistryEntry& b) {
        return a.Name() < b.Name();
    };
    const auto isNotBefore = [&isBefore](const auto& a, const auto& b) { return !isBefore(a, b); };
    if (std::adjacent_find(entries.begin(), entries.end(), isNotBefore) != entries.end()) {
        std::stable_sort(entries.begin(), entries.end(), isBefore);
        const auto kept = std::unique(
            entries.rbegin(), entries.rend(),
            [](const RegistryEntry& a, const RegistryEntry& b) { return a.Name() == b.Name(); });
        entries.erase(entries.begin(), kept.base());
    }
    entries.shrink_to_fit();
    return entries;
}

// Ends the innermost key and enters it into its parent. False at the top level.
bool CloseKey(std::vector<OpenKey>& open) {
    if (open.size() == 1) return false;
    const RegistryKey node(new CRegistryNode);
    (void)LockedNode(*node).Merge(Sorted(std::move(open.back().entries)));
    const std::string name = std::move(open.back().name);
    open.pop_back();
    open.back().entries.emplace_back(name, node);
    return true;
}

struct Subkey {
    std::string name;
    RegistryKey node;
};

// A key that is being written. Its subkeys are copied, so that its lock need not be held.
struct Level {
    std::vector<Subkey> subkeys;
    size_t next = 0;
};

// Appends the values and lists the subkeys.
Level OpenLevel(CRegistryNode& node, std::string& text) {
    Level level;
    const LockedNode locked(node);
    for (const RegistryEntry& entry : locked.Entries()) {
        AppendRegistryValue(text, entry);
        if (entry.IsSubkey() && entry.Node()) level.subkeys.push_back({entry.Name(), entry.Node()});
    }
    return level;
}

}  // namespace

ParsedRegistry ParseRegistry(LineReader& lines) {
    std::vector<OpenKey> open(1);  // from the top level to the current key
    bool isRecognised = false;
    int error = 0;
    for (;;) {
        std::string_view text;
        (void)lines.Next(text);  // empty at the end of the file, which ends every key
        const RegistryLine line = DecodeRegistryLine(text);
        if (line.kind == RegistryLine::kEnd && !CloseKey(open)) break;
        if (line.kind == RegistryLine::kHeader) open.push_back({std::string(line.name), {}});
        if (line.kind == RegistryLine::kValue && !TakeValue(open.back().entries, line)) {
            error = ENOMEM;
        }
        if (line.kind != RegistryLine::kEnd && line.kind != RegistryLine::kIgnored) {
            isRecognised = true;
        }
    }
    if (lines.HasFailed()) return {std::nullopt, lines.Error(), false};
    if (!isRecognised) return {std::nullopt, ENODATA, true};
    return {Sorted(std::move(open.back().entries)), error, false};
}

int ParseRegistry(LineReader& lines, CRegistryNode& target) {
    ParsedRegistry parsed = ParseRegistry(lines);
    if (parsed.error != 0) return parsed.error;
    const std::vector<RemovedEntry> replaced = LockedNode(target).Merge(std::move(*parsed.entries));
    return 0;
}

bool WriteRegistry(CRegistryNode& root, const std::function<bool(std::string_view)>& write) {
    constexpr size_t kFragment = size_t{256} * 1024;
    std::string text;
    std::vector<Level> levels;
    levels.push_back(OpenLevel(root, text));
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.subkeys.size()) {
            text += '\n';
            levels.pop_back();
        } else {
            const Subkey subkey = std::move(level.subkeys[level.next++]);
            text.append("[").append(subkey.name).append("]\n");
            levels.push_back(OpenLevel(*subkey.node, text));
        }
        if (text.size() < kFragment) continue;
        if (!write(text)) return false;
        text.clear();
    }
    return text.empty() || write(text);
}
