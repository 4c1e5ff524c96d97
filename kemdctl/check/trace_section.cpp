#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "base/text.h"
#include "kemdctl/check/look_ups.h"
#include "kemdctl/ui/text.h"
#include "trace/config_file.h"
#include "trace/trace_settings.h"

namespace {

constexpr size_t kNumberLimit = 64;
constexpr size_t kPathLimit = sizeof(TracePath);

// Null for none.
const TraceSetting* FindSetting(std::string_view key) {
    const auto found = std::find_if(kTraceSettings.begin(), kTraceSettings.end(),
                                    [key](const TraceSetting& s) { return s.key == key; });
    return found != kTraceSettings.end() ? &*found : nullptr;
}

// Of a line "key = value"; the whole line when it has no equals sign.
std::string_view KeyOf(std::string_view line) {
    return Trim(line.substr(0, line.find('=')));
}

class SectionCheck {
  public:
    SectionCheck(Findings& findings, const std::string& path, std::string_view section)
        : m_findings(findings), m_path(Printable(path)), m_section(section) {}

    void Lines(bool isGlobal) const;
    void Key(const TraceSetting& setting) const;

  private:
    void Number(const TraceSetting& setting, std::string_view value) const;
    [[nodiscard]] std::string_view LineAt(size_t position) const {
        const size_t before = m_section.rfind('\n', position);
        const size_t start = before == m_section.npos ? 0 : before + 1;
        return m_section.substr(start, m_section.find('\n', position) - start);
    }
    void Warn(const std::string& what, const std::string& action) const {
        m_findings.Warning(m_path + ": " + what, action);
    }

    Findings& m_findings;
    const std::string m_path;
    const std::string_view m_section;
};

// Lines that look like a setting and are none. The format has no comments, but people write them.
void SectionCheck::Lines(bool isGlobal) const {
    for (std::string_view rest = m_section; !rest.empty();) {
        const std::string_view line = Trim(TakeLine(rest));
        if (line.empty() || line[0] == '#' || line[0] == ';' || line.starts_with("//")) continue;
        const std::string key = Printable(KeyOf(line));
        if (line.find('=') == line.npos) {
            Warn("\"" + key + "\" has no =", "write KEY = VALUE, or # before a comment");
        } else if (const TraceSetting* const setting = FindSetting(KeyOf(line));
                   setting == nullptr || setting->isGlobal != isGlobal) {
            Warn("the key \"" + key + "\" is not known", "correct or remove the line");
        }
    }
}

void SectionCheck::Key(const TraceSetting& setting) const {
    const std::string_view key = setting.key;
    const bool isPath = setting.path != nullptr;
    const auto value = FindConfigValue(m_section, key, isPath ? kPathLimit : kNumberLimit);
    if (!value) return;
    const std::string name(key);
    const std::string shown = "\"" + Printable(Trim(*value)) + "\"";
    const std::string_view line = LineAt(m_section.find(key));
    if (KeyOf(line) != key || line.find('=') == line.npos) {
        Warn(
            name + " is taken from the line \"" + Printable(Trim(line)) + "\", its value is " +
                shown,
            "kemd takes a key from where its name first appears, comments included: rename it there");
    } else if (isPath && !value->starts_with('/')) {
        Warn(name + " " + shown + " is not an absolute path", "give one that begins with /");
    } else if (!isPath) {
        Number(setting, *value);
    }
}

void SectionCheck::Number(const TraceSetting& setting, std::string_view value) const {
    const auto number = FindMisreadNumber(value, 0, INT32_MAX);
    if (!number) return;
    const bool isNumber = !value.empty() && std::isdigit(static_cast<unsigned char>(value[0])) != 0;
    Warn(std::string(setting.key) + " \"" + Printable(Trim(value)) + "\"" +
             (isNumber ? "" : " is not a number of 0 or more:") + " counts as " +
             (*number == -1 && setting.hasAbsent ? "absent" : std::to_string(*number)),
         "give one number of 0 or more and nothing else, decimal or with 0x");
}

}  // namespace

std::optional<int32_t> FindMisreadNumber(std::string_view text, int base, int64_t largest) {
    const std::string copy(text);
    const char* const start = copy.c_str();
    char* end = nullptr;
    errno = 0;
    const int64_t value = base == 0 ? static_cast<int64_t>(std::strtoul(start, &end, 0))
                                    : std::strtol(start, &end, base);
    const bool fits = errno == 0 && value >= 0 && value <= largest;
    const bool isWhole = end != start && Trim(end).empty();
    // A leading 0 makes it octal, which few mean.
    const bool isMeant = copy.find_first_of("xX") != copy.npos ||
                         value == static_cast<int64_t>(std::strtoul(start, nullptr, 10));
    if (fits && isWhole && isMeant) return std::nullopt;
    return static_cast<int32_t>(value);
}

void CheckNumberKey(Findings& findings, const std::string& path, std::string_view section,
                    std::string_view key) {
    SectionCheck(findings, path, section).Key(*FindSetting(key));
}

void CheckTraceSection(Findings& findings, const std::string& path, std::string_view section,
                       bool isGlobal) {
    const SectionCheck check(findings, path, section);
    check.Lines(isGlobal);
    for (const bool isPath : {false, true}) {
        for (const TraceSetting& setting : kTraceSettings) {
            const bool isDue = (setting.path != nullptr) == isPath;
            if (isDue && setting.isGlobal == isGlobal) check.Key(setting);
        }
    }
}
