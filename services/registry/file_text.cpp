#include "services/registry/file_text.h"

#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "services/registry/file_line.h"

namespace {

void Store(CRegistryNode& node, RegistryEntry entry) {
    RegistryEntry replaced;
    LockedNode(node).Put(std::move(entry), replaced);
    Discard(replaced);
}

void StoreValue(CRegistryNode& node, const RegistryLine& line) try {
    if (line.type == kRegistryNumber) {
        const auto number = DecodeRegistryNumber(line.data);
        if (number) Store(node, RegistryEntry(line.name, *number));
    } else if (line.type == kRegistryBinary) {
        Store(node, RegistryEntry(line.name, line.type, DecodeRegistryBinary(line.data)));
    } else {
        Store(node, RegistryEntry(line.name, line.type, line.data));
    }
} catch (const std::exception&) {
    // Memory does not suffice for this one.
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

bool ParseRegistry(LineReader& lines, CRegistryNode& target) {
    std::vector<Subkey> open;  // the subkeys that the line in hand is inside of
    bool recognised = false;
    bool more = true;
    for (;;) {
        std::string_view text;
        more = more && lines.Next(text);
        CRegistryNode& node = open.empty() ? target : *open.back().node;
        const RegistryLine line = DecodeRegistryLine(more ? text : "");
        switch (line.kind) {
            case RegistryLine::kEnd: {
                LockedNode(node).Trim();
                if (open.empty()) return recognised;
                const Subkey subkey = std::move(open.back());
                open.pop_back();
                Store(open.empty() ? target : *open.back().node,
                      RegistryEntry(subkey.name, subkey.node));
                recognised = true;
                break;
            }
            case RegistryLine::kHeader:
                open.push_back({std::string(line.name), RegistryKey(new CRegistryNode)});
                break;
            case RegistryLine::kValue:
                StoreValue(node, line);
                recognised = true;
                break;
            default:
                break;
        }
    }
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
