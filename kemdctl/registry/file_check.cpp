#include "kemdctl/registry/file_check.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string_view>
#include <vector>

#include "base/line_reader.h"
#include "base/text.h"
#include "kemdctl/ui/text.h"
#include "services/registry/file_text.h"
#include "services/registry/store.h"

namespace {

// Follows a file through its keys and reports what it finds. Takes the lines as LineReader gives
// them.
class Checker {
  public:
    explicit Checker(const FindingSink& sink) : m_sink(sink) {}

    // False when nothing that follows matters.
    bool Line(std::string_view text);
    void Finish(bool isStore);

  private:
    using Names = std::set<std::string, std::less<>>;

    void Report(const std::string& message) const;
    void EndKey();
    void Header(std::string_view text, const RegistryLine& line);
    void Value(std::string_view text, const RegistryLine& line);
    void Ignored(std::string_view text) const;
    bool Number(const RegistryLine& line, const std::string& shown) const;
    void Binary(const RegistryLine& line, const std::string& shown) const;
    void AddName(std::string_view name);

    const FindingSink& m_sink;
    size_t m_line = 0;
    size_t m_fragment = 0;    // of a line that is too long; 0: its start
    bool m_isWhole = true;    // whether the last line was read to its end
    bool m_hasEnded = false;  // by the empty line of the top level
    bool m_isRecognised = false;
    std::array<bool, kRootKeyNames.size()> m_hasRoot{};
    std::vector<Names> m_levels{1};  // the names in each open key, the top level first
};

std::string Quoted(std::string_view name) {
    return "\"" + Printable(name) + "\"";
}

// Findings in the later fragments of a long line follow from its length.
void Checker::Report(const std::string& message) const {
    if (m_fragment == 0) m_sink(m_line, message);
}

bool Checker::Line(std::string_view text) {
    if (m_isWhole) {
        ++m_line;
        m_fragment = 0;
    } else if (m_fragment++ == 0) {
        m_sink(m_line, "longer than 1023 bytes: read as several lines");
    }
    m_isWhole = text.back() == '\n';
    const RegistryLine line = DecodeRegistryLine(text);
    if (m_hasEnded) {
        if (text == "\n") return true;
        m_sink(m_line, "ignored with all that follows: an empty line ended the top level");
        return false;
    }
    if (CutAtNul(text).size() < text.size()) Report("a NUL byte ends the line");
    text = CutAtNul(text);
    text = TrimEnd(text, "\n");
    switch (line.kind) {
        case RegistryLine::kEnd:
            EndKey();
            break;
        case RegistryLine::kHeader:
            Header(text, line);
            break;
        case RegistryLine::kValue:
            Value(text, line);
            break;
        default:
            Ignored(text);
    }
    return true;
}

void Checker::EndKey() {
    if (m_levels.size() == 1) {
        m_hasEnded = true;
    } else {
        m_levels.pop_back();
    }
}

void Checker::Header(std::string_view text, const RegistryLine& line) {
    m_isRecognised = true;
    if (line.name.size() + 2 < text.size()) Report("what follows \"]\" is ignored");
    AddName(line.name);
    if (m_levels.size() == 1) {
        const auto root = std::find(kRootKeyNames.begin(), kRootKeyNames.end(), line.name);
        if (root == kRootKeyNames.end()) {
            Report(Quoted(line.name) + " is not one of the root keys");
        } else {
            m_hasRoot[static_cast<size_t>(root - kRootKeyNames.begin())] = true;
        }
    }
    m_levels.emplace_back();
}

void Checker::Value(std::string_view text, const RegistryLine& line) {
    m_isRecognised = true;
    const std::string shown = Quoted(line.name);
    if (m_levels.size() == 1) Report(shown + " is a value outside of all keys");
    if (text.starts_with('[')) Report("\"[\" without \"]\": read as the value " + shown);
    if (line.type == kRegistryNumber && !Number(line, shown)) return;
    if (line.type == kRegistryBinary) Binary(line, shown);
    AddName(line.name);
}

void Checker::Ignored(std::string_view text) const {
    if (text.starts_with('[')) {
        Report("\"[\" without \"]\": skipped");
    } else if (text.find('=') == text.npos) {
        Report("no \"=\": skipped");
    } else {
        Report("none of =s=, =es=, =b= and =d= after the name: skipped");
    }
}

// Whether the line has a number.
bool Checker::Number(const RegistryLine& line, const std::string& shown) const {
    const auto number = DecodeRegistryNumber(line.data);
    if (!number) {
        Report(shown + " has no number: skipped");
        return false;
    }
    const std::string data(line.data);
    char* end = nullptr;
    if (std::strtoll(data.c_str(), &end, 10) != *number) {
        Report(shown + " does not fit 32 bits: read as " + std::to_string(*number));
    }
    if (*end != '\0') Report(shown + " has text after its number: ignored");
    return true;
}

void Checker::Binary(const RegistryLine& line, const std::string& shown) const {
    const std::string data(line.data);
    const char* rest = data.c_str();
    bool isCut = false;
    for (size_t count = DecodeRegistryBinary(line.data).size(); count > 0; --count) {
        char* end = nullptr;
        isCut = std::strtoul(rest, &end, 16) > UINT8_MAX || isCut;
        rest = end;
    }
    if (isCut) Report(shown + " has a number above ff: cut to its last two digits");
    if (!Trim(rest).empty()) {
        Report(shown + " has something that is not hexadecimal: ignored from there on");
    }
}

void Checker::AddName(std::string_view name) {
    if (!m_levels.back().emplace(name).second) {
        Report("a second " + Quoted(name) + " in this key: replaces the first");
    }
}

void Checker::Finish(bool isStore) {
    m_fragment = 0;
    m_line += m_line == 0 ? 1 : 0;
    if (!m_isRecognised) return Report("no key and no value: no registry file");
    const size_t open = m_levels.size() - 1;
    if (open > 0) {
        Report("the file ends inside " + Counted(open, "key") +
               ": an empty line is missing for each");
    }
    for (size_t i = 0; isStore && i < m_hasRoot.size(); ++i) {
        if (!m_hasRoot[i]) Report(std::string("the root key ") + kRootKeyNames[i] + " is missing");
    }
}

}  // namespace

bool CheckRegistry(int fd, bool isStore, const FindingSink& sink) {
    LineReader lines(fd);
    Checker checker(sink);
    std::string_view text;
    while (lines.Next(text) && checker.Line(text)) continue;
    if (lines.HasFailed()) {
        errno = lines.Error();
        return false;
    }
    checker.Finish(isStore);
    return true;
}
