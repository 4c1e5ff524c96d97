#include "services/registry/file_text.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "services/registry/file_line.h"

namespace {

// A key that is being read.
struct OpenKey {
    std::string name;
    RegistryEntries entries;
};

void TakeValue(RegistryEntries& entries, const RegistryLine& line) try {
    if (line.type == kRegistryNumber) {
        const auto number = DecodeRegistryNumber(line.data);
        if (number) entries.emplace_back(line.name, *number);
    } else if (line.type == kRegistryBinary) {
        entries.emplace_back(line.name, line.type, DecodeRegistryBinary(line.data));
    } else {
        entries.emplace_back(line.name, line.type, line.data);
    }
} catch (const std::exception&) {
    // Memory does not suffice for this one.
}

// A file that was written here is sorted. For others once at the end: entry by entry a large key
// would take forever.
void Sort(RegistryEntries& entries) {
    const auto isBefore = [](const RegistryEntry& a, const RegistryEntry& b) {
        return CompareNames(a, b) < 0;
    };
    const auto isNotBefore = [&isBefore](const auto& a, const auto& b) { return !isBefore(a, b); };
    if (std::adjacent_find(entries.begin(), entries.end(), isNotBefore) != entries.end()) {
        std::stable_sort(entries.begin(), entries.end(), isBefore);
        const auto kept = std::unique(
            entries.rbegin(), entries.rend(),
            [](const RegistryEntry& a, const RegistryEntry& b) { return CompareNames(a, b) == 0; });
        entries.erase(entries.begin(), kept.base());
    }
    entries.shrink_to_fit();
}

// Ends the innermost key, which becomes an entry of the one around it.
void CloseKey(std::vector<OpenKey>& open) {
    const RegistryKey node(new CRegistryNode);
    (void)LockedNode(*node).Merge(std::move(open.back().entries));
    const std::string name = std::move(open.back().name);
    open.pop_back();
    open.back().entries.emplace_back(name, node);
}

struct Subkey {
    std::string name;
    RegistryKey node;
};

// A key that is being written: its subkeys, copied so that its lock need not be held.
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

std::optional<RegistryEntries> ParseRegistry(LineReader& lines) {
    std::vector<OpenKey> open(1);  // from the top level to the key that the line in hand is in
    bool isRecognised = false;
    bool isMore = true;
    for (;;) {
        std::string_view text;
        isMore = isMore && lines.Next(text);
        const RegistryLine line = DecodeRegistryLine(isMore ? text : "");
        switch (line.kind) {
            case RegistryLine::kEnd:
                Sort(open.back().entries);
                if (open.size() > 1) {
                    CloseKey(open);
                } else if (isRecognised) {
                    return std::move(open.back().entries);
                } else {
                    return std::nullopt;
                }
                break;
            case RegistryLine::kHeader:
                open.push_back({std::string(line.name), {}});
                isRecognised = true;
                break;
            case RegistryLine::kValue:
                TakeValue(open.back().entries, line);
                isRecognised = true;
                break;
            default:
                break;
        }
    }
}

bool ParseRegistry(LineReader& lines, CRegistryNode& target) {
    auto entries = ParseRegistry(lines);
    if (!entries) return false;
    const std::vector<RemovedEntry> replaced = LockedNode(target).Merge(std::move(*entries));
    return true;
}

bool WriteRegistry(CRegistryNode& root, const std::function<bool(std::string_view)>& write) {
    constexpr size_t kPiece = 64 * 1024;
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
        if (text.size() < kPiece) continue;
        if (!write(text)) return false;
        text.clear();
    }
    return text.empty() || write(text);
}
