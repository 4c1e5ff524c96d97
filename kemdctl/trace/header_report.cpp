#include "kemdctl/trace/header_report.h"

#include <algorithm>
#include <string_view>

#include "base/text.h"
#include "kemdctl/trace/reports.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr std::string_view kArgument = "argv[";
constexpr std::string_view kAssigned[] = {trace_text::kEnvironment, trace_text::kConfiguration};
constexpr std::string_view kSettings[] = {trace_text::kValuesAsRead, trace_text::kValuesInForce};

// Goes through the records of a header.
class HeaderReader {
  public:
    void Take(std::string_view text) {
        if (TakeSection(text)) return;
        if (text.starts_with(trace_text::kHeaderEnd)) m_separator = {};
        // The settings stand after a command line of any length.
        if (m_entries.size() >= (m_separator == kColon ? 2 * kMost : kMost)) return;
        const size_t found = m_separator.empty() ? text.npos : text.find(m_separator);
        if (found == text.npos) return;
        m_entries.push_back({m_section, std::string(Trim(text.substr(0, found))),
                             std::string(Trim(text.substr(found + m_separator.size())))});
    }
    // The command line of a ring's first cycle stands among its first records.
    void TakeRecord(std::string_view text) {
        if (text.ends_with(trace_text::kCommandLine) || text.starts_with(kArgument))
            return Take(text);
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
        if (text.ends_with(trace_text::kCommandLine)) separator = " = ";
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

int ShowHeaders(const TraceOptions& /*options*/, const std::vector<std::string>& files,
                ReportWriter& report) {
    bool isGood = true, isFound = false;
    report.OpenArray();
    for (const std::string& path : files) {
        TraceSource source(path, 0);
        const bool isOpen = source.Open();
        const std::vector<HeaderEntry> entries =
            isOpen ? ReadHeader(source) : std::vector<HeaderEntry>();
        isFound = isFound || !entries.empty();
        const std::string& problem = isOpen ? source.Facts().error : source.Problem();
        if (!problem.empty()) Complain("%s: %s", Printable(path).c_str(), problem.c_str());
        isGood = isGood && problem.empty();
        if (!isOpen) continue;
        report.OpenObject();
        report.Text("file", path);
        report.Line(Printable(path) + (entries.empty() ? ": no header" : ":"));
        report.List("entries", entries, [&report](const HeaderEntry& entry) {
            report.OpenObject();
            report.Text("section", entry.section);
            report.Text("name", entry.name);
            report.Text("value", entry.value);
            report.Close();
        });
        const std::string lines = FormatHeader(entries);
        if (!lines.empty()) report.Line(std::string_view(lines).substr(0, lines.size() - 1));
        report.Close();
    }
    return !isGood ? kError : isFound ? kYes : kNo;
}
