#include <algorithm>
#include <cstdio>
#include <deque>
#include <utility>

#include "base/json.h"
#include "kemdctl/trace/html_page.h"
#include "kemdctl/trace/options.h"
#include "kemdctl/trace/reports.h"
#include "kemdctl/trace/run_marks.h"
#include "kemdctl/trace/trace_files.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/record.h"
#include "trace_reader/trace_source.h"

namespace {

// What a browser can hold.
constexpr size_t kMostRows = 100000;
constexpr size_t kMostBytes = size_t{64} << 20;
constexpr size_t kLongestText = size_t{16} << 10;

class HtmlSink : public RecordSink {
  public:
    explicit HtmlSink(std::string path) : m_path(std::move(path)) {}

    void Begin(const TraceMerge& merge) override { m_merge = &merge; }
    void Take(const TraceRecord& record) override;
    bool Finish() override;

  private:
    [[nodiscard]] std::string Facts() const;
    [[nodiscard]] std::string Spans() const;
    [[nodiscard]] bool PutData(const FileSink& sink) const;

    std::string m_path;
    const TraceMerge* m_merge = nullptr;
    RunSpans m_spans;
    struct Row {
        int64_t time;
        std::string json;
    };
    std::deque<Row> m_rows;
    size_t m_bytes = 0;
    uint64_t m_leftOut = 0;
    uint64_t m_cut = 0;
};

void HtmlSink::Take(const TraceRecord& record) {
    m_spans.Add(record);
    char thread[16];
    std::snprintf(thread, sizeof thread, "\"%08X\"", record.thread);
    std::string_view text = record.text;
    if (text.size() > kLongestText) {
        text = text.substr(0, kLongestText);
        ++m_cut;
    }
    m_rows.push_back({record.time, InScript("[" + std::to_string(record.time) + "," + thread + "," +
                                            std::to_string(record.residentKb) + "," +
                                            JsonQuoted(record.tag) + "," + JsonQuoted(text) + "," +
                                            std::to_string(record.source) + "]")});
    m_bytes += m_rows.back().json.size();
    while (m_rows.size() > kMostRows || m_bytes > kMostBytes) {
        m_bytes -= m_rows.front().json.size();
        m_rows.pop_front();
        ++m_leftOut;
    }
}

std::string HtmlSink::Facts() const {
    std::string text = "\"files\":[";
    for (const auto& source : m_merge->Sources()) {
        text += (text.back() == '[' ? "{\"path\":" : ",{\"path\":") + JsonQuoted(source->Path()) +
                ",\"facts\":" + JsonQuoted(Describe(*source)) + "}";
    }
    return text + "],\"leftOut\":" + std::to_string(m_leftOut) +
           ",\"cut\":" + std::to_string(m_cut);
}

std::string HtmlSink::Spans() const {
    std::string text = "\"spans\":[";
    const auto [first, last] = std::minmax_element(
        m_rows.begin(), m_rows.end(), [](const Row& a, const Row& b) { return a.time < b.time; });
    for (const RunSpan& span : m_spans.All()) {
        // Rows that were left out may have been the only ones of a phase.
        if (span.end < first->time || span.begin > last->time) continue;
        text += (text.back() == '[' ? "[" : ",[") + JsonQuoted(span.name) + "," +
                std::to_string(std::max(span.begin, first->time)) + "," + std::to_string(span.end) +
                (span.isOpen ? ",true]" : ",false]");
    }
    return text + "]";
}

bool HtmlSink::PutData(const FileSink& sink) const {
    constexpr size_t kEnough = size_t{1} << 17;
    std::string text = InScript("{" + Facts() + "," + Spans() + ",") + "\"rows\":[";
    bool isFirst = true;
    for (const Row& row : m_rows) {
        text += (isFirst ? "\n" : ",\n") + row.json;
        isFirst = false;
        if (text.size() < kEnough) continue;
        if (!sink(text)) return false;
        text.clear();
    }
    return sink(text + "\n]}");
}

bool HtmlSink::Finish() {
    m_spans.Finish();
    return WriteOutputFile(m_path.c_str(), 0600, [this](const FileSink& sink) {
               return sink(kPageBeforeData) && PutData(sink) && sink(kPageAfterData);
           }) == kYes;
}

}  // namespace

std::unique_ptr<RecordSink> MakeHtmlSink(const TraceOptions& options, ReportWriter& /*report*/) {
    return std::make_unique<HtmlSink>(options.reportFile);
}
