// Reading the store: get and list.
#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kemdctl/registry/command.h"
#include "kemdctl/registry/store.h"
#include "kemdctl/registry/value.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"
#include "services/registry/node.h"

namespace {

struct Subkey {
    std::string name;
    RegistryKey key;
};

// Reports a key's values and subkeys, or all below it. Keeps its own stack, since a file decides
// how deep the tree is.
class Lister {
  public:
    Lister(ReportWriter& report, bool withAll) : m_report(report), m_withAll(withAll) {}

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
    [[nodiscard]] std::string PathLine() const;
    void ReportValues(CRegistryNode& node);

    ReportWriter& m_report;
    bool m_withAll;
    std::string m_path;  // of the key in hand, with backslashes
    std::vector<Level> m_levels;
};

void Lister::Run(Subkey start) {
    m_path = std::move(start.name);
    m_report.OpenObject();
    m_report.Text("key", m_path);
    Enter(std::move(start.key), 0);
    while (!m_levels.empty() && !HasWriteFailed()) Step();
}

void Lister::Enter(RegistryKey key, size_t parentLength) {
    if (!m_path.empty()) m_report.Line([this] { return PathLine(); });
    m_report.OpenArray("values");
    ReportValues(*key);
    m_report.Close();
    m_report.OpenArray("keys");
    m_levels.push_back({std::move(key), 0, parentLength});
}

void Lister::Step() {
    const size_t length = m_path.size();
    std::optional<Subkey> subkey = TakeSubkey(m_levels.back());
    if (!subkey) return Leave();
    m_report.OpenObject();
    m_report.Text("key", subkey->name);
    if (m_withAll) {
        m_path.append(m_path.empty() ? "" : "\\").append(subkey->name);
        Enter(std::move(subkey->key), length);
    } else {
        m_report.Line([&] { return "  " + Printable(subkey->name) + "\\"; });
        m_report.Close();
    }
}

void Lister::Leave() {
    m_report.Close();  // the keys
    m_report.Close();  // the key itself
    m_path.resize(m_levels.back().parentLength);
    m_levels.pop_back();
}

// A root key missing from the file is an entry without a key; it is not shown.
std::optional<Subkey> Lister::TakeSubkey(Level& level) {
    const LockedNode locked(*level.key);
    const auto& entries = locked.Entries();
    while (level.next < entries.size()) {
        const RegistryEntry& entry = entries[level.next++];
        if (entry.Node()) return Subkey{std::string(entry.Name()), entry.Node()};
    }
    return std::nullopt;
}

std::string Lister::PathLine() const {
    constexpr size_t kShown = 160;  // whole paths of a very deep tree would fill any disk
    const bool isCut = m_path.size() > kShown;
    const size_t begin = isCut ? m_path.find('\\', m_path.size() - kShown) : 0;
    const std::string_view shown = std::string_view(m_path).substr(std::min(begin, m_path.size()));
    // A backslash at the end keeps a last component with a slash whole when the path is used again.
    const bool hasSlash = m_path.find('/', m_path.rfind('\\') + 1) != m_path.npos;
    return (isCut ? "..." : "") + Printable(shown) + (hasSlash ? "\\" : "");
}

// The column after the names; a few long ones may exceed it.
size_t NameColumn(const LockedNode& locked) {
    constexpr size_t kMaxColumn = 32;
    size_t column = 0;
    for (const RegistryEntry& entry : locked.Entries()) {
        if (entry.IsSubkey()) continue;
        column = std::max(column, std::min(Width(Printable(entry.Name())), kMaxColumn));
    }
    return column;
}

void Lister::ReportValues(CRegistryNode& node) {
    const LockedNode locked(node);
    std::optional<size_t> column;
    for (const RegistryEntry& entry : locked.Entries()) {
        if (entry.IsSubkey()) continue;
        const std::string data = DataText(entry);
        ReportValue(m_report, entry, data);
        m_report.Line([&] {
            if (!column) column = NameColumn(locked);
            const std::string name = Printable(entry.Name());
            const size_t width = Width(name);
            std::string line;
            line.reserve(name.size() + *column + data.size() + 16);
            line.append("  ").append(name).append(*column - std::min(*column, width), ' ');
            line.append("  ").append(TypeName(entry.Type()));
            line.append("  ").append(Printable(data));
            return line;
        });
    }
}

}  // namespace

int RegistryGet(const CommandLine& line, ReportWriter& report) {
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
    ReportValue(report, *entry, data);
    report.Line(data);
    return kYes;
}

int RegistryList(const CommandLine& line, ReportWriter& report) {
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
    Lister(report, line.Has("-r")).Run({name, key});
    return kYes;
}
