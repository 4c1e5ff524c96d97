#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kemdctl/trace/options.h"
#include "kemdctl/trace/reports.h"
#include "kemdctl/trace/show_sink.h"
#include "kemdctl/trace/sink.h"
#include "kemdctl/trace/stopper.h"
#include "kemdctl/trace/time_word.h"
#include "kemdctl/trace/trace_files.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/record.h"
#include "trace_reader/trace_merge.h"
#include "trace_reader/trace_watch.h"

namespace {

// Passes the last records on to another sink, once it is known which ones these are.
class LastRecords : public RecordSink {
  public:
    // Without `limit` everything is passed on at once. `next` outlives this.
    LastRecords(RecordSink& next, std::optional<uint64_t> limit) : m_next(next), m_limit(limit) {}

    void Begin(const TraceMerge& merge) override { m_next.Begin(merge); }
    void Take(const TraceRecord& record) override;
    [[nodiscard]] uint64_t Kept() const { return m_kept.size(); }
    void Forget() {
        m_kept.clear();
        m_oldest = 0;
    }
    // Passes on what was kept, and from now on everything.
    void Release();
    [[nodiscard]] bool Finish() override {
        Release();
        return m_next.Finish();
    }
    [[nodiscard]] uint64_t Passed() const { return m_passed; }

  private:
    void Pass(const TraceRecord& record) {
        ++m_passed;
        m_next.Take(record);
    }

    RecordSink& m_next;
    std::optional<uint64_t> m_limit;
    std::vector<KeptRecord> m_kept;  // the oldest at m_oldest, and so on in a circle
    size_t m_oldest = 0;
    uint64_t m_passed = 0;
};

void LastRecords::Take(const TraceRecord& record) {
    if (!m_limit) {
        Pass(record);
    } else if (m_kept.size() < *m_limit) {
        m_kept.emplace_back().Keep(record);
    } else if (*m_limit > 0) {
        m_kept[m_oldest].Keep(record);
        m_oldest = (m_oldest + 1) % m_kept.size();
    }
}

void LastRecords::Release() {
    m_limit.reset();
    const std::vector<KeptRecord> kept = std::exchange(m_kept, {});
    for (size_t i = 0; i < kept.size(); ++i) Pass(kept[(m_oldest + i) % kept.size()].Get());
}

// What the first record of a run of the daemon is recognised by.
struct RunStart {
    int64_t time;
    uint32_t thread;
    [[nodiscard]] bool IsAt(const TraceRecord& record) const;
};

constexpr std::string_view kBanner = "kemd Version=\"";

// A text may begin with a line feed that belongs to nothing.
std::string_view Bare(std::string_view text) {
    return text.substr(std::min(text.find_first_not_of('\n'), text.size()));
}

bool RunStart::IsAt(const TraceRecord& record) const {
    const std::string_view text = Bare(record.text);
    return record.time == time && record.thread == thread &&
           (text.starts_with(trace_text::kRingStart) || text.starts_with(kBanner));
}

// Reads all these files; nothing when no start is in them. Both rings of a run begin with the same
// record, but only the start-up ring has the banner after it. A log begins with the banner.
std::optional<RunStart> FindLastStart(const std::vector<std::string>& files) {
    TraceMerge merge;
    for (const std::string& file : files) merge.Add(file);
    std::optional<RunStart> last;
    std::map<uint16_t, RunStart> ringStarts;  // by source
    for (TraceRecord record; merge.Next(record);) {
        const std::string_view text = Bare(record.text);
        if (text.starts_with(trace_text::kRingStart)) {
            ringStarts[record.source] = {record.time, record.thread};
        } else if (text.starts_with(kBanner)) {
            const auto found = ringStarts.find(record.source);
            last = found != ringStarts.end() ? found->second : RunStart{record.time, record.thread};
            ringStarts.clear();
        }
    }
    return last;
}

// Nothing when the records themselves are shown.
std::unique_ptr<RecordSink> MakeReport(const TraceOptions& options, ReportWriter& report) {
    const auto* make = std::get_if<RecordsReport>(&options.report);
    return make != nullptr ? (*make)(options, report) : nullptr;
}

class RecordReport {
  public:
    RecordReport(const TraceOptions& options, ReportWriter& report)
        : m_options(options),
          m_report(MakeReport(options, report)),
          m_show(m_report ? nullptr : std::make_unique<ShowSink>(options)),
          m_last(m_report ? *m_report : *m_show, options.last),
          m_goesOn(options.follows || options.waitFor),
          m_isWaiting(options.filter.since || options.fromStart) {}

    int Run(const std::vector<std::string>& files);

  private:
    bool Open(const std::vector<std::string>& files);
    // Nothing is left out, so that records need not be looked at one by one.
    [[nodiscard]] bool TakesBlocks() const;
    // What is there when the command begins.
    void ReadFirst();
    void Read();
    void Take(const TraceRecord& record);
    void Follow();
    void ReportLosses();
    [[nodiscard]] std::optional<int64_t> TimeLeft() const;
    [[nodiscard]] bool IsOver() const { return m_hasMatched || IsClosed(); }
    [[nodiscard]] bool IsClosed() const { return m_show ? m_show->IsClosed() : HasWriteFailed(); }
    int Finish();

    const TraceOptions& m_options;
    std::unique_ptr<RecordSink> m_report;
    std::unique_ptr<ShowSink> m_show;
    LastRecords m_last;
    TraceMerge m_merge;
    TraceWatch m_watch;
    std::optional<RunStart> m_start;  // until it was met
    bool m_goesOn;
    bool m_isWaiting;  // for the pattern: what was written before the call counts when it was asked
                       // for
    bool m_isComplete = false;
    bool m_hasMatched = false;
    bool m_isInterrupted = false;
    std::vector<bool> m_isLossReported;  // by source
};

bool RecordReport::Open(const std::vector<std::string>& files) {
    if (m_options.fromStart) {
        m_start = FindLastStart(files);
        if (!m_start) Complain("no start of the daemon is in these files: nothing is left out");
    }
    m_merge.ShowAll(m_options.isRaw);
    if (m_goesOn) m_merge.Follow();
    for (const std::string& file : files) {
        if (m_goesOn && !m_watch.Add(file)) {
            Complain("cannot watch %s: %s", Printable(file).c_str(), std::strerror(errno));
            return false;
        }
        m_merge.Add(file);
    }
    return true;
}

// Reads no more than is needed: of the last records, as far back as it takes to have enough.
void RecordReport::ReadFirst() {
    constexpr uint64_t kLeast = 4096, kFactor = 16;
    const Filter& filter = m_options.filter;
    const int64_t since = filter.since.value_or(INT64_MIN);
    const int64_t until = m_goesOn ? INT64_MAX : filter.until.value_or(INT64_MAX);
    const bool isShort = m_options.last && !m_start && !m_options.isRaw && !m_options.waitFor;
    uint64_t last = UINT64_MAX;
    if (isShort) last = filter.TakesAll() ? std::max<uint64_t>(*m_options.last, 1) : kLeast;
    for (;; last *= kFactor) {
        // After a clock that went back records could be left out, the start among them.
        if (!m_start) m_merge.Select(since, until, last);
        m_isComplete = false;
        Read();
        if (!m_merge.IsShortened() || m_last.Kept() >= *m_options.last || IsOver()) return;
        m_last.Forget();
    }
}

void RecordReport::Take(const TraceRecord& record) {
    if (m_start && !m_start->IsAt(record)) return;
    m_start.reset();
    // Before that, records of other files may be missing.
    m_isComplete = m_isComplete || m_merge.IsComplete();
    if (!m_isComplete || !m_options.filter.Takes(record)) return;
    m_hasMatched = m_isWaiting && m_options.waitFor && m_options.waitFor->IsIn(record.text);
    if (!m_options.waitFor || m_options.follows || m_hasMatched) m_last.Take(record);
}

bool RecordReport::TakesBlocks() const {
    return m_show && m_show->TakesBlocks() && m_options.filter.TakesAll() && !m_options.last &&
           !m_options.waitFor && !m_start;
}

void RecordReport::Read() {
    const bool takesBlocks = TakesBlocks();
    for (TraceRecord record; !IsOver();) {
        for (RecordBlock run; takesBlocks && !IsOver() && m_merge.NextBlock(run);) {
            m_show->TakeBlock(run.lines);
        }
        if (!m_merge.Next(record)) return;
        Take(record);
    }
}

// Until the time-out, or until records of --until can no longer come.
std::optional<int64_t> RecordReport::TimeLeft() const {
    std::optional<int64_t> left = m_options.timeout;
    if (m_options.filter.until) {
        const int64_t until = std::max<int64_t>(*m_options.filter.until - LocalTime(ClockNow()), 0);
        left = std::min(left.value_or(until), until);
    }
    return left;
}

// Once for each file, also with --quiet: what was shown is not what was written.
void RecordReport::ReportLosses() {
    m_isLossReported.resize(m_merge.Sources().size());
    for (size_t i = 0; i < m_isLossReported.size(); ++i) {
        const TraceSource& source = *m_merge.Sources()[i];
        const SourceFacts& facts = source.Facts();
        const bool isMixed = !facts.isCertain && facts.records > 0;
        if ((!source.HasLost() && !isMixed) || m_isLossReported[i]) continue;
        m_isLossReported[i] = true;
        Complain("%s: %s", Printable(source.Path()).c_str(),
                 isMixed ? facts.problem.c_str()
                         : "records were overwritten before they could be shown");
    }
}

void RecordReport::Follow() {
    const Stopper stopper(TimeLeft());
    ReadFirst();
    ReportLosses();
    m_last.Release();
    m_isWaiting = true;
    for (bool isLast = false; !isLast && !IsOver();) {
        if (m_show) m_show->Flush();
        isLast = stopper.IsOver() || stopper.IsInterrupted();
        if (!isLast && !m_watch.Wait(STDOUT_FILENO)) return;
        while (!IsOver() && m_merge.Advance()) Read();
        ReportLosses();
    }
    m_isInterrupted = stopper.IsInterrupted();
}

int RecordReport::Finish() {
    if (!m_last.Finish()) return kError;
    const bool hasFound = m_show ? m_show->HasShown() : m_last.Passed() > 0;
    // Nothing is said to a reader that has gone away; otherwise the pager ends before anything is
    // said.
    const bool isQuiet = m_options.isQuiet || IsClosed();
    m_show.reset();
    const bool isGood = m_goesOn ? ReportErrors(m_merge) : ReportFacts(m_merge, isQuiet);
    if (!isGood) return kError;
    if (m_options.waitFor) return m_hasMatched ? kYes : kNo;
    return hasFound || m_isInterrupted ? kYes : kNo;
}

int RecordReport::Run(const std::vector<std::string>& files) try {
    if (!Open(files)) return kError;
    m_last.Begin(m_merge);
    if (m_goesOn) {
        Follow();
    } else {
        ReadFirst();
    }
    return Finish();
} catch (const std::bad_alloc&) {
    if (m_show) m_show->Flush();  // what there is
    throw;
}

class CountSink : public RecordSink {
  public:
    void Take(const TraceRecord& /*record*/) override { ++m_count; }
    [[nodiscard]] bool Finish() override {
        Write(std::to_string(m_count) + "\n");
        return true;
    }

  private:
    uint64_t m_count = 0;
};

}  // namespace

int ShowRecords(const TraceOptions& options, const std::vector<std::string>& files,
                ReportWriter& report) {
    if (options.report.index() == 0) report.SetStream();
    return RecordReport(options, report).Run(files);
}

std::unique_ptr<RecordSink> MakeCountSink(const TraceOptions& /*options*/, ReportWriter& report) {
    report.SetJson(false);  // a number is JSON
    return std::make_unique<CountSink>();
}
