#include <charconv>
#include <cstring>

#include "kemdctl/trace/header_report.h"
#include "kemdctl/trace/reports.h"
#include "kemdctl/trace/trace_files.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/record.h"
#include "trace_reader/trace_source.h"

namespace {

struct Verdict {
    bool isReadable = false;
    bool isWhole = false;
    std::string summary;
    std::vector<std::string> findings;
};

std::string Bytes(uint64_t count) {
    return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

// What only the records themselves show.
class RecordCheck {
  public:
    void Take(const TraceRecord& record) {
        if (std::memchr(record.line.data(), '\0', record.line.size()) != nullptr) ++m_withNul;
        if (record.kind != RecordKind::kRecord) return;
        if (m_hasTime && record.time < m_time && m_backBy == 0) {
            m_backBy = m_time - record.time;
            m_backAt = m_time;
        }
        m_time = record.time;
        m_hasTime = true;
    }
    void Report(const SourceFacts& facts, std::vector<std::string>& findings) const {
        if (facts.clockBack > 0) {
            findings.push_back(
                std::string("time goes back ") +
                (facts.clockBack == 1 ? "once" : std::to_string(facts.clockBack) + " times") +
                ", first by " + std::to_string(m_backBy) + " ms after " +
                FormatTime(m_backAt).data());
        }
        if (m_withNul > 0) {
            findings.push_back(std::to_string(m_withNul) +
                               " lines hold zero bytes, as a crash of the system leaves them");
        }
    }

  private:
    uint64_t m_withNul = 0;
    int64_t m_time = 0;
    int64_t m_backBy = 0;
    int64_t m_backAt = 0;
    bool m_hasTime = false;
};

// A ring is never made shorter or longer while it is used.
void CheckSize(TraceSource& source, std::vector<std::string>& findings) {
    if (source.Facts().kind != FileKind::kRingFile) return;
    for (const HeaderEntry& entry : ReadHeader(source)) {
        if (entry.name != "Ring Buffer Size") continue;
        uint64_t size = 0;
        (void)std::from_chars(entry.value.data(), entry.value.data() + entry.value.size(), size);
        if (size == source.Facts().size) return;
        findings.push_back("has " + Bytes(source.Facts().size) + ", its header says " +
                           Bytes(size));
        return;
    }
    findings.emplace_back("its header does not say how large it is");
}

Verdict Verify(const std::string& path) {
    Verdict verdict;
    TraceSource source(path, 0);
    if (!source.Open() || source.Facts().kind == FileKind::kForeignFile) {
        verdict.summary = source.Problem();
        return verdict;
    }
    verdict.isReadable = true;
    CheckSize(source, verdict.findings);
    source.ShowAll(true);
    source.Rewind();
    RecordCheck check;
    for (TraceRecord record; source.Next(record);) check.Take(record);
    const SourceFacts& facts = source.Facts();
    check.Report(facts, verdict.findings);
    if (facts.foreign > 0) verdict.findings.push_back(Bytes(facts.foreign) + " are not records");
    if (!facts.problem.empty()) verdict.findings.push_back(facts.problem);
    if (!facts.error.empty()) verdict.findings.push_back(facts.error);
    verdict.isWhole = facts.error.empty();
    if (facts.kind == FileKind::kEmptyFile) verdict.findings.emplace_back("is empty");
    verdict.summary = Describe(source);
    return verdict;
}

void Show(const std::string& path, const Verdict& verdict, ReportWriter& report) {
    const std::string name = Printable(path) + ": ";
    report.OpenObject();
    report.Text("file", path);
    report.Text("state", !verdict.isReadable        ? "unreadable"
                         : verdict.findings.empty() ? "sound"
                                                    : "damaged");
    report.Text("summary", verdict.summary);
    report.List("findings", verdict.findings, [&](const std::string& finding) {
        report.Text({}, finding);
        report.Line(name + finding);
    });
    if (!verdict.isReadable) {
        Complain("%s%s", name.c_str(), verdict.summary.c_str());
    } else if (verdict.findings.empty()) {
        report.Line(name + "sound: " + verdict.summary);
    }
    report.Close();
}

}  // namespace

int VerifyFiles(const TraceOptions& /*options*/, const std::vector<std::string>& files,
                ReportWriter& report) {
    int result = kYes;
    report.OpenArray();
    for (const std::string& path : files) {
        const Verdict verdict = Verify(path);
        Show(path, verdict, report);
        if (!verdict.isWhole) result = kError;
        if (!verdict.findings.empty() && result == kYes) result = kNo;
    }
    return result;
}
