#include <cstdio>
#include <map>
#include <utility>

#include "base/json.h"
#include "kemdctl/trace/options.h"
#include "kemdctl/trace/progress.h"
#include "kemdctl/trace/reports.h"
#include "kemdctl/trace/run_marks.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/record.h"

namespace {

// Times are microseconds of local time; all events are of one process, whose thread 0 has the
// phases.
class TimelineSink : public RecordSink {
  public:
    TimelineSink(const std::string& path, bool isQuiet)
        : m_file(path, 0600), m_progress(path, 0, isQuiet) {}

    void Begin(const TraceMerge& merge) override;
    void Take(const TraceRecord& record) override;
    bool Finish() override;

  private:
    void Put(std::string_view event);
    void PutInstant(const TraceRecord& record);
    void PutMemory(const TraceRecord& record);
    void PutSpans();
    void PutNames();
    void Flush();

    OutputFile m_file;
    Progress m_progress;
    uint64_t m_size = 0;
    bool m_isGood = true;
    bool m_isFirst = true;
    std::string m_text;
    RunSpans m_spans;
    std::map<uint32_t, std::string> m_threads;  // with the tag of their first record
    int64_t m_residentKb = -1;
};

std::string Stamp(int64_t time) {
    return std::to_string(time * 1000);
}

std::string Where(uint32_t thread) {
    return ",\"pid\":1,\"tid\":" + std::to_string(thread);
}

void TimelineSink::Flush() {
    if (m_isGood && !m_file.Write(m_text)) {
        (void)FileError("write", m_file.Path());
        m_isGood = false;
    }
    m_size += m_text.size();
    m_progress.Add(m_text.size());
    m_text.clear();
}

void TimelineSink::Put(std::string_view event) {
    constexpr size_t kEnough = size_t{1} << 17;
    m_text += m_isFirst ? "\n" : ",\n";
    m_isFirst = false;
    m_text += event;
    if (m_text.size() >= kEnough) Flush();
}

void TimelineSink::Begin(const TraceMerge& /*merge*/) {
    m_isGood = m_file.Open();
    if (!m_isGood) (void)FileError("write", m_file.Path());
    m_text = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[";
}

void TimelineSink::PutInstant(const TraceRecord& record) {
    constexpr size_t kLongestName = 200;
    const std::string_view line = record.text.substr(0, record.text.find('\n'));
    const std::string_view name = line.substr(0, kLongestName);
    std::string event = "{\"ph\":\"i\",\"s\":\"t\",\"ts\":" + Stamp(record.time) +
                        Where(record.thread) + ",\"cat\":" + JsonQuoted(record.tag) +
                        ",\"name\":" + JsonQuoted(name);
    if (name.size() < record.text.size()) {
        event += ",\"args\":{\"text\":" + JsonQuoted(record.text) + "}";
    }
    Put(event + "}");
}

void TimelineSink::PutMemory(const TraceRecord& record) {
    if (record.residentKb < 0 || record.residentKb == m_residentKb) return;
    m_residentKb = record.residentKb;
    Put("{\"ph\":\"C\",\"name\":\"resident memory\",\"ts\":" + Stamp(record.time) +
        ",\"pid\":1,\"args\":{\"KB\":" + std::to_string(record.residentKb) + "}}");
}

void TimelineSink::Take(const TraceRecord& record) {
    constexpr size_t kMostThreads = 10000;
    if (!m_isGood) return;
    m_spans.Add(record);
    if (m_threads.size() < kMostThreads) {
        m_threads.try_emplace(record.thread, record.tag.substr(0, 100));
    }
    PutInstant(record);
    PutMemory(record);
}

void TimelineSink::PutSpans() {
    for (const RunSpan& span : m_spans.All()) {
        Put("{\"ph\":\"X\",\"cat\":\"run\",\"name\":" + JsonQuoted(span.name) +
            ",\"ts\":" + Stamp(span.begin) + ",\"dur\":" + Stamp(span.end - span.begin) + Where(0) +
            (span.isOpen ? ",\"args\":{\"end\":\"not in the trace\"}}" : "}"));
    }
}

void TimelineSink::PutNames() {
    const auto name = [this](const char* what, uint32_t thread, const std::string& text) {
        Put(std::string("{\"ph\":\"M\",\"name\":\"") + what + "\"" + Where(thread) +
            ",\"args\":{\"name\":" + JsonQuoted(text) + "}}");
    };
    name("process_name", 0, "kemd");
    name("thread_name", 0, "phases of the run");
    for (const auto& [thread, tag] : m_threads) {
        char id[16];
        std::snprintf(id, sizeof id, "%08X ", thread);
        if (thread != 0) name("thread_name", thread, id + tag);
    }
}

bool TimelineSink::Finish() {
    if (!m_isGood) return false;
    m_spans.Finish();
    PutSpans();
    PutNames();
    m_text += "\n]}\n";
    Flush();
    if (m_isGood && !m_file.Commit()) {
        (void)FileError("write", m_file.Path());
        m_isGood = false;
    }
    if (m_isGood) m_progress.Finish(m_size);
    return m_isGood;
}

}  // namespace

std::unique_ptr<RecordSink> MakeTimelineSink(const TraceOptions& options,
                                             ReportWriter& /*report*/) {
    return std::make_unique<TimelineSink>(options.reportFile, options.isQuiet);
}
