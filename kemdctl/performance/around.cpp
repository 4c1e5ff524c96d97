// kemdctl performance around: what changed most before a moment, with the trace of that time. After
// a crash: the last minutes before it.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <deque>
#include <sstream>
#include <string>
#include <utility>

#include "kemdctl/performance/command.h"
#include "kemdctl/performance/history.h"
#include "kemdctl/performance/selection.h"
#include "kemdctl/trace/crashes.h"
#include "kemdctl/trace/options.h"
#include "kemdctl/trace/run_story.h"
#include "kemdctl/trace/time_word.h"
#include "kemdctl/trace/trace_files.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/table.h"
#include "kemdctl/ui/text.h"
#include "performance/ranking.h"
#include "trace_reader/trace_merge.h"

namespace {

constexpr int64_t kWindow = 2 * kMinute;
constexpr int64_t kBefore = 15 * kMinute;

// What the history and the trace have to do with a moment.
struct Moment {
    int64_t wall = 0;
    std::optional<RunStory> story;   // of last-run
    std::vector<std::string> files;  // of the trace
};

// A history from elsewhere has nothing to do with the trace of this host.
bool MayReadTrace(const PerformanceOptions& options, const HistoryReader& reader) {
    std::array<char, 256> name{};
    if (!options.traces.empty() || options.file == nullptr) return true;
    if (gethostname(name.data(), name.size() - 1) == 0 && reader.Host() == name.data()) return true;
    Complain("note: the trace of %s is not here: name its files or directory with --trace",
             Printable(reader.Host()).c_str());
    return false;
}

// Those in force, or named, and those of the runs that were kept.
std::vector<std::string> AllTraceFiles(const PerformanceOptions& options) {
    TraceOptions trace;
    trace.paths = options.traces;
    std::vector<std::string> files = ChooseFiles(trace);
    for (const KeptPlace& place : ListKept(options.traces).value_or(std::vector<KeptPlace>())) {
        const std::vector<std::string> kept = FilesIn(place.path);
        files.insert(files.end(), kept.begin(), kept.end());
    }
    return files;
}

// The newest run that is over: the last one or, when that still runs, the newest one that was kept.
std::optional<RunStory> FindEndedRun(const PerformanceOptions& options) {
    const auto kept = ListKept(options.traces).value_or(std::vector<KeptPlace>());
    TraceOptions trace;
    trace.paths = options.traces;
    const std::vector<std::string> files = ChooseFiles(trace);
    std::optional<RunStory> story;
    if (!files.empty()) story = ReadRun(files);
    if (story && story->end != LastRun::End::kRunning) return story;
    return kept.empty() ? std::nullopt : ReadRun(FilesIn(kept.front().path));
}

// What a monitor that began again says about the one before; nothing when it has always run.
std::optional<int64_t> FindLastBegin(HistoryReader& reader) {
    const std::vector<Mark> marks = reader.Marks(reader.Range());
    for (size_t i = marks.size(); i-- > 1;) {
        if (marks[i].kind != MarkKind::kReboot && marks[i].kind != MarkKind::kStart) continue;
        if (marks[i].time.wall > reader.Range().from) return marks[i].time.wall;
    }
    return {};
}

// The newest sample before `to`, looked for from `from` on; `from` when there is none.
int64_t FindLastSample(HistoryReader& reader, int64_t from, int64_t to) {
    const auto columns = ChooseColumns(reader, {});
    if (!columns || columns->empty() || from >= to) return from;
    const auto points = ReadColumns(reader, {&columns->front(), 1}, {from, to}, 0);
    return points[0].empty() ? from : std::max(from, points[0].back().wall);
}

// When a run ended: at its crash, or with its last record or sample.
int64_t EndOf(const RunStory& story, HistoryReader& reader) {
    for (const CrashRecord& crash : story.crashes) {
        if (!crash.isIsolated) return crash.time * kNsPerMs;
    }
    const int64_t end = UtcTime(story.run.end) * kNsPerMs;
    int64_t next = reader.Range().to;
    for (const Mark& mark : reader.Marks({end + 1, next})) {
        const bool isOther = mark.kind == MarkKind::kStart || mark.kind == MarkKind::kStop ||
                             mark.kind == MarkKind::kReboot;
        if (isOther) next = std::min(next, mark.time.wall);
    }
    return FindLastSample(reader, end, next);
}

bool FindLastRun(const PerformanceOptions& options, HistoryReader& reader, bool mayReadTrace,
                 Moment& moment) {
    if (mayReadTrace) moment.story = FindEndedRun(options);
    if (moment.story) {
        moment.wall = EndOf(*moment.story, reader);
        moment.files = moment.story->paths;
        return true;
    }
    const auto begin = FindLastBegin(reader);
    if (!begin) {
        Complain("no run that is over is known: neither the trace nor the history has one");
        return false;
    }
    const int64_t from = std::max(reader.Range().from, *begin - int64_t{24} * 60 * kMinute);
    moment.wall = FindLastSample(reader, from, *begin);
    return true;
}

bool FindMoment(const PerformanceOptions& options, HistoryReader& reader, Moment& moment) {
    const bool mayReadTrace = MayReadTrace(options, reader);
    const std::string& word = options.words[0];
    if (word == "last-run") return FindLastRun(options, reader, mayReadTrace, moment);
    const auto time = ParseMoment(word, options.now);
    if (!time) return false;
    moment.wall = *time;
    if (mayReadTrace) moment.files = AllTraceFiles(options);
    return true;
}

void ShowChanges(ReportWriter& report, HistoryReader& reader, HistorySpan window) {
    constexpr size_t kMost = 12;
    const HistorySpan before = {std::max(window.from - kBefore, reader.Range().from), window.from};
    const size_t cores = CountCores(reader.Series());
    const std::vector<RankedChange> changes = RankChanges(reader, window, before, kMost);
    std::vector<TableRow> rows = {
        {"what changed most", "usual", "these 2 min", "farthest", "at", "score"}};
    report.List("changes", changes, [&](const RankedChange& change) {
        const SeriesInfo& info = reader.Series()[change.series];
        const ValueFormat format(info, cores);
        std::array<char, 32> score{};
        std::snprintf(score.data(), score.size(), "%.0f", change.score);
        rows.push_back({Printable(ShortId(info)), format.Text(change.before),
                        format.Text(change.during), format.Text(change.extreme),
                        TimeText(change.at, change.at, change.at, 0).substr(0, 8), score.data()});
        report.OpenObject();
        report.Text("id", SeriesId(info));
        report.Text("unit", info.unit);
        report.Text("kind", info.kind == SeriesKind::kCounter ? "counter" : "gauge");
        report.Real("before", change.before);
        report.Real("during", change.during);
        report.Real("extreme", change.extreme);
        report.Number("at", change.at / 1000);
        report.Real("score", change.score);
        report.Close();
    });
    if (!changes.empty()) {
        ShowTable(report, rows);
    } else if (FindLastSample(reader, before.from, before.to) <= before.from) {
        report.Line("nothing to compare with: there are no samples of the 15 minutes before");
    } else {
        report.Line("nothing changed noticeably, compared with the " +
                    SpanText((before.to - before.from) / kMinute * kMinute) + " before");
    }
}

// Records and marks of the window in one order.
class Events {
  public:
    Events(const PerformanceOptions& options, size_t most)
        : m_most(options.last ? *options.last : most) {}

    void ReadRecords(const std::vector<std::string>& files, HistorySpan window);
    void Show(ReportWriter& report, std::vector<Mark> marks, bool hasTrace) const;

  private:
    size_t m_most;
    size_t m_count = 0;
    std::deque<KeptRecord> m_records;  // the last ones
    std::vector<std::string> m_paths;
};

void Events::ReadRecords(const std::vector<std::string>& files, HistorySpan window) {
    TraceMerge merge;
    for (const std::string& file : files) merge.Add(file);
    const int64_t since = LocalTime(window.from / kNsPerMs);
    const int64_t until = LocalTime(window.to / kNsPerMs);
    merge.Select(since, until);
    for (TraceRecord record; merge.Next(record);) {
        if (record.time < since || record.time > until) continue;
        ++m_count;
        if (m_most == 0) continue;
        if (m_records.size() == m_most) m_records.pop_front();
        m_records.emplace_back().Keep(record);
    }
    for (const auto& source : merge.Sources()) m_paths.push_back(source->Path());
    (void)ReportFacts(merge, true);
}

// "memory 1 8450 cc1plus 188854272" as "memory  180 MiB     cc1plus (8450)".
std::string ProcessLine(const std::string& line) {
    constexpr std::pair<std::string_view, const char*> kUnits[] = {
        {"cpu", "percent"}, {"memory", "bytes"}, {"io", "bytes"}};
    std::istringstream words(line);
    std::string kind, name;
    unsigned rank = 0, process = 0;
    words >> kind >> rank >> process >> std::ws;
    std::getline(words, name);
    const size_t blank = name.rfind(' ');  // a name may have blanks, too
    const auto* unit = std::find_if(std::begin(kUnits), std::end(kUnits),
                                    [&](const auto& each) { return each.first == kind; });
    if (!words || blank == name.npos || unit == std::end(kUnits)) return Printable(line);
    double value = 0;
    std::from_chars(&name[blank + 1], name.data() + name.size(), value);
    SeriesInfo info;
    info.unit = unit->second;
    if (kind == "io") info.kind = SeriesKind::kCounter;
    constexpr size_t kKindWidth = 8, kValueWidth = 20;
    kind.resize(kKindWidth, ' ');
    kind += ValueFormat(info, 0).Text(value);
    kind.resize(std::max(kValueWidth, kind.size() + 2), ' ');
    return kind + Printable(name.substr(0, blank)) + " (" + std::to_string(process) + ")";
}

std::vector<std::string> MarkLines(const Mark& mark) {
    const std::string time = TimeText(mark.time.wall) + " -- ";
    if (mark.kind != MarkKind::kProcesses) return {time + MarkText(mark)};
    std::vector<std::string> lines = {time + "busiest processes"};
    for (size_t begin = 0; begin < mark.text.size();) {
        const size_t end = std::min(mark.text.find('\n', begin), mark.text.size());
        lines.push_back("    " + ProcessLine(mark.text.substr(begin, end - begin)));
        begin = end + 1;
    }
    return lines;
}

void Events::Show(ReportWriter& report, std::vector<Mark> marks, bool hasTrace) const {
    // Of the lists of processes only the last one.
    const auto isList = [](const Mark& mark) { return mark.kind == MarkKind::kProcesses; };
    const auto last = std::find_if(marks.rbegin(), marks.rend(), isList);
    if (last != marks.rend()) {
        const auto kept = std::remove_if(marks.begin(), last.base() - 1, isList);
        marks.erase(kept, last.base() - 1);
    }
    report.List("marks", marks, [&](const Mark& mark) { StateMark(report, mark); });
    report.Number("recordCount", m_count);
    report.List("records", m_records, [&](const KeptRecord& kept) {
        const TraceRecord record = kept.Get();
        PutRecord(report, record, m_paths[record.source]);
    });
    report.Line("");
    if (m_count > m_records.size()) {
        report.Line("the last " + std::to_string(m_records.size()) + " of " +
                    Counted(m_count, "record") + " of the trace; all: --lines " +
                    std::to_string(m_count));
    } else if (m_count == 0 && hasTrace) {
        report.Line("the trace has no records of these minutes");
    }
    auto mark = marks.begin();
    const auto showMarks = [&](int64_t until) {
        for (; mark != marks.end() && LocalTime(mark->time.wall / kNsPerMs) <= until; ++mark) {
            for (const std::string& line : MarkLines(*mark)) report.Line(line);
        }
    };
    for (const KeptRecord& kept : m_records) {
        const TraceRecord record = kept.Get();
        showMarks(record.time);
        report.Line(Printable(record.line));
    }
    showMarks(INT64_MAX);
}

}  // namespace

int ShowAround(const PerformanceOptions& options, ReportWriter& report) {
    if (options.words.size() != 1) {
        Complain("around takes one time, or last-run; see kemdctl performance --help");
        return kError;
    }
    const auto reader = OpenHistory(options);
    if (!reader) return kError;
    Moment moment;
    if (!FindMoment(options, *reader, moment)) return kError;
    const HistorySpan window = {moment.wall - kWindow, moment.wall + 1};
    PerformanceOptions ofWindow = options;
    ofWindow.since = window.from;
    ofWindow.until = moment.wall;
    if (!ChooseSpan(ofWindow, *reader, false)) return kNo;
    report.OpenObject();
    report.SetColumn(11);
    ShowOrigin(report, options, *reader);
    report.Number("time", moment.wall / 1000);
    if (moment.story) {
        const LastRun& run = moment.story->run;
        const std::string end = DescribeEnd(run, moment.story->end);
        report.Object("lastRun", [&] {
            report.Text("newest", FormatTime(run.end).data());
            report.Text("description", end);
        });
        report.Field("last run",
                     "to " + std::string(FormatTime(run.end).data()) + ", " + Printable(end));
        ShowCrashes(report, moment.story->crashes, false);
    }
    report.Field("moment", TimeText(moment.wall) + ", and the two minutes before");
    report.Line("");
    ShowChanges(report, *reader, window);
    constexpr size_t kRecords = 40;
    Events events(options, kRecords);
    if (!moment.files.empty()) events.ReadRecords(moment.files, window);
    events.Show(report, reader->Marks(window), !moment.files.empty());
    return kYes;
}
