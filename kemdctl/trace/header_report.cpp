#include "kemdctl/trace/header_report.h"

#include <algorithm>
#include <string_view>

#include "base/text.h"
#include "kemdctl/ui/json.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr std::string_view kCommandLine = "Command Line Options:";
constexpr std::string_view kArgument = "argv[";
constexpr std::string_view kEnd = "# End of header.";
constexpr std::string_view kAssigned[] = {"Orvana Environment:", "Orvana Configuration File:"};
constexpr std::string_view kSettings[] = {"Debug values from ini file :",
                                          "Internal Debug values      :"};

// Goes through the records of a header.
class HeaderReader {
  public:
    void Take(std::string_view text) {
        if (TakeSection(text)) return;
        if (text.starts_with(kEnd)) m_separator = {};
        // The settings stand behind a command line of any length.
        if (m_entries.size() >= (m_separator == kColon ? 2 * kMost : kMost)) return;
        const size_t found = m_separator.empty() ? text.npos : text.find(m_separator);
        if (found == text.npos) return;
        m_entries.push_back({m_section, std::string(Trim(text.substr(0, found))),
                             std::string(Trim(text.substr(found + m_separator.size())))});
    }
    // The command line of a ring's first cycle stands among its first records.
    void TakeRecord(std::string_view text) {
        if (text.ends_with(kCommandLine) || text.starts_with(kArgument)) return Take(text);
        m_separator = {};
    }
    std::vector<HeaderEntry> Entries() { return std::move(m_entries); }

  private:
    static constexpr size_t kMost = 4096;
    static constexpr std::string_view kColon = ":";  // in settings only

    bool TakeSection(std::string_view text) {
        const auto isOneOf = [text](const auto& names) {
            return std::find(std::begin(names), std::end(names), text) != std::end(names);
        };
        std::string_view separator;
        if (text.ends_with(kCommandLine)) separator = " = ";
        if (isOneOf(kAssigned)) separator = "=";
        if (isOneOf(kSettings)) separator = kColon;
        if (separator.empty()) return false;
        m_separator = separator;
        m_section = Trim(text.substr(0, text.size() - 1));
        return true;
    }

    std::string m_section;
    std::string_view m_separator;
    std::vector<HeaderEntry> m_entries;
};

void PutEntries(JsonWriter& json, const std::string& path,
                const std::vector<HeaderEntry>& entries) {
    json.Open('{');
    json.Key("file");
    json.Text(path);
    json.Key("entries");
    json.Open('[');
    for (const HeaderEntry& entry : entries) {
        json.Open('{');
        for (const auto& [key, text] :
             {std::pair<const char*, const std::string&>{"section", entry.section},
              {"name", entry.name},
              {"value", entry.value}}) {
            json.Key(key);
            json.Text(text);
        }
        json.Close('}');
    }
    json.Close(']');
    json.Close('}');
}

}  // namespace

std::vector<HeaderEntry> ReadHeader(TraceSource& source) {
    constexpr int kFirstRecords = 1000;
    HeaderReader reader;
    source.ShowAll(true);
    source.Rewind();
    int count = 0;
    for (TraceRecord record; count < kFirstRecords && source.Next(record);) {
        if (record.kind == RecordKind::kHeader) reader.Take(record.text);
        if (record.kind != RecordKind::kRecord) continue;
        reader.TakeRecord(record.text);
        ++count;
    }
    return reader.Entries();
}

std::string FormatHeader(const std::vector<HeaderEntry>& entries) {
    constexpr size_t kWidest = 32;
    size_t width = 0;
    for (const HeaderEntry& entry : entries) {
        width = std::max(width, Width(Printable(entry.name)));
    }
    width = std::min(width, kWidest);
    std::string text;
    const std::string* section = nullptr;
    for (const HeaderEntry& entry : entries) {
        if (section == nullptr || *section != entry.section) {
            text += Printable(entry.section) + "\n";
        }
        section = &entry.section;
        std::string name = Printable(entry.name);
        name.append(width - std::min(Width(name), width), ' ');
        text += "  " + name + "  " + Printable(entry.value) + "\n";
    }
    return text;
}

int ShowHeaders(const std::vector<std::string>& paths, bool asJson) {
    JsonWriter json;
    bool isGood = true, isFound = false;
    if (asJson) json.Open('[');
    for (const std::string& path : paths) {
        TraceSource source(path, 0);
        const bool isOpen = source.Open();
        if (!isOpen) Complain("%s: %s", Printable(path).c_str(), source.Problem().c_str());
        isGood = isGood && isOpen;
        if (!isOpen) continue;
        const std::vector<HeaderEntry> entries = ReadHeader(source);
        isFound = isFound || !entries.empty();
        if (!source.Facts().error.empty()) {
            Complain("%s: %s", Printable(path).c_str(), source.Facts().error.c_str());
            isGood = false;
        }
        if (asJson) {
            PutEntries(json, path, entries);
        } else {
            Write(Printable(path) + (entries.empty() ? ": no header\n" : ":\n"));
            Write(FormatHeader(entries));
        }
    }
    if (asJson) json.Close(']');
    if (asJson) json.Finish();
    return !isGood ? kError : isFound ? kYes : kNo;
}
