// Reading the store: get and list.
#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kemdctl/registry/command.h"
#include "kemdctl/registry/store.h"
#include "kemdctl/registry/value.h"
#include "kemdctl/ui/text.h"
#include "services/registry/node.h"

namespace {

struct Subkey {
    std::string name;
    RegistryKey key;
};

// Shows a key's values and subkeys, or all below it. With a stack of its own: a file decides how
// deep a tree is.
class Lister {
  public:
    Lister(bool withJson, bool withAll) : m_withJson(withJson), m_withAll(withAll) {}

    void Run(Subkey start);

  private:
    struct Level {
        RegistryKey key;
        size_t next;          // entry
        size_t parentLength;  // of m_path
    };

    void Enter(RegistryKey key, size_t parentLength);
    void Step();
    void Leave();
    static std::optional<Subkey> TakeSubkey(Level& level);
    void ShowPath();
    void ShowValues(CRegistryNode& node);

    bool m_withJson;
    bool m_withAll;
    JsonWriter m_json;
    std::string m_path;  // of the key in hand, with backslashes
    std::vector<Level> m_levels;
};

void Lister::Run(Subkey start) {
    m_path = std::move(start.name);
    if (m_withJson) {
        m_json.Open('{');
        m_json.Key("key");
        m_json.Text(m_path);
    }
    Enter(std::move(start.key), 0);
    while (!m_levels.empty() && !HasWriteFailed()) Step();
    if (m_withJson) m_json.Finish();
}

void Lister::Enter(RegistryKey key, size_t parentLength) {
    if (m_withJson) {
        m_json.Key("values");
        m_json.Open('[');
    } else {
        ShowPath();
    }
    ShowValues(*key);
    if (m_withJson) {
        m_json.Close(']');
        m_json.Key("keys");
        m_json.Open('[');
    }
    m_levels.push_back({std::move(key), 0, parentLength});
}

void Lister::Step() {
    const size_t length = m_path.size();
    std::optional<Subkey> subkey = TakeSubkey(m_levels.back());
    if (!subkey) return Leave();
    if (m_withJson) {
        m_json.Open('{');
        m_json.Key("key");
        m_json.Text(subkey->name);
    }
    if (m_withAll) {
        m_path.append(m_path.empty() ? "" : "\\").append(subkey->name);
        Enter(std::move(subkey->key), length);
    } else if (m_withJson) {
        m_json.Close('}');
    } else {
        Write("  " + Printable(subkey->name) + "\\\n");
    }
}

void Lister::Leave() {
    if (m_withJson) {
        m_json.Close(']');
        m_json.Close('}');
    }
    m_path.resize(m_levels.back().parentLength);
    m_levels.pop_back();
}

// A root key that the file does not have is an entry without a key: it is not shown.
std::optional<Subkey> Lister::TakeSubkey(Level& level) {
    const LockedNode locked(*level.key);
    const auto& entries = locked.Entries();
    while (level.next < entries.size()) {
        const RegistryEntry& entry = entries[level.next++];
        if (entry.Node()) return Subkey{std::string(entry.Name()), entry.Node()};
    }
    return std::nullopt;
}

void Lister::ShowPath() {
    constexpr size_t kShown = 160;  // whole paths of a very deep tree would fill any disk
    if (m_path.empty()) return;
    const bool isCut = m_path.size() > kShown;
    const size_t begin = isCut ? m_path.find('\\', m_path.size() - kShown) : 0;
    const std::string_view shown = std::string_view(m_path).substr(std::min(begin, m_path.size()));
    // Used as a path again, a last component with a slash stays whole with a backslash behind it.
    const bool hasSlash = m_path.find('/', m_path.rfind('\\') + 1) != m_path.npos;
    Write((isCut ? "..." : "") + Printable(shown) + (hasSlash ? "\\\n" : "\n"));
}

void Lister::ShowValues(CRegistryNode& node) {
    constexpr size_t kMaxColumn = 32;
    const LockedNode locked(node);
    size_t column = 0;
    for (const RegistryEntry& entry : locked.Entries()) {
        if (m_withJson || entry.IsSubkey()) continue;
        column = std::max(column, std::min(Width(Printable(entry.Name())), kMaxColumn));
    }
    for (const RegistryEntry& entry : locked.Entries()) {
        if (entry.IsSubkey()) continue;
        if (m_withJson) {
            WriteValue(m_json, entry, DataText(entry));
            continue;
        }
        const std::string name = Printable(entry.Name());
        const std::string blanks(column - std::min(column, Width(name)), ' ');
        std::string line = "  ";
        line.append(name).append(blanks).append("  ").append(TypeName(entry.Type()));
        line.append("  ").append(Printable(DataText(entry))).append("\n");
        Write(line);
    }
}

}  // namespace

int RegistryGet(const CommandLine& line) {
    if (!LoadStore()) return kError;
    const RegistryKey key = FindKey(SplitPath(line.words[0]));
    if (!key) {
        Complain("no key %s", Printable(line.words[0]).c_str());
        return kNo;
    }
    const LockedNode locked(*key);
    const RegistryEntry* const entry = locked.Find(line.words[1]);
    if (entry == nullptr || entry->IsSubkey()) {
        Complain("no value %s in %s", Printable(line.words[1]).c_str(),
                 Printable(line.words[0]).c_str());
        return kNo;
    }
    std::string data = DataText(*entry);
    Cursor().SetExpand(line.Has("--expand"));
    if (entry->Type() == kRegistryExpandString)
        (void)Cursor().QueryValue(&data, line.words[1], key);
    if (line.Has("--json")) {
        JsonWriter json;
        WriteValue(json, *entry, data);
        json.Finish();
    } else {
        Write(data + "\n");
    }
    return kYes;
}

int RegistryList(const CommandLine& line) {
    if (!LoadStore()) return kError;
    const KeyPath path = SplitPath(line.words.empty() ? "" : line.words[0]);
    const RegistryKey key = FindKey(path);
    if (!key) {
        Complain("no key %s", Printable(line.words[0]).c_str());
        return kNo;
    }
    std::string name;
    for (const std::string_view component : path) {
        name.append(name.empty() ? "" : "\\").append(component);
    }
    Lister(line.Has("--json"), line.Has("-r")).Run({name, key});
    return kYes;
}
