#include "kemdctl/performance/options.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>

#include "kemdctl/performance/format.h"
#include "kemdctl/trace/time_word.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kTimeHelp =
    "not a time such as \"2026-11-15 20:04:51.123\", 20:04, today or -2h30m";

// The value is null for an option that has none. Empty, or what is wrong with it.
using Setter = std::string (*)(PerformanceOptions& options, const char* value);
struct Word {
    std::string_view name;
    unsigned uses;
    bool takesValue;
    Setter set;
    const char* help;  // its lines of the help, which may be those of the next ones, too
};

// Nanoseconds since 1970 end in 2262: times that are farther away count as the last ones, with room
// for windows around them.
std::optional<int64_t> ReadTime(std::string_view text, int64_t now) {
    constexpr int64_t kFarthest = INT64_MAX / kNsPerMs / 100 * 99;
    const auto time = ParseUtcTime(text, now / kNsPerMs);
    if (!time) return {};
    return std::clamp(*time, -kFarthest, kFarthest) * kNsPerMs;
}

template <std::optional<int64_t> PerformanceOptions::*member>
std::string SetTime(PerformanceOptions& options, const char* value) {
    options.*member = ReadTime(value, options.now);
    return options.*member ? "" : kTimeHelp;
}

std::string SetStep(PerformanceOptions& options, const char* value) {
    const auto span = ParseSpan(value);
    if (!span || *span == 0) return "not a step such as 10s, 1m or 0.5";
    options.step = *span * kNsPerMs;
    return {};
}

std::string SetPeriod(PerformanceOptions& options, const char* value) {
    constexpr int64_t kShortest = 100, kLongest = 3'600'000;
    const auto span = ParseSpan(value);
    if (!span || *span < kShortest || *span > kLongest) return "not a period from 100ms to 1h";
    options.period = *span * kNsPerMs;
    return {};
}

template <bool PerformanceOptions::*member>
std::string SetFlag(PerformanceOptions& options, const char* /*none*/) {
    options.*member = true;
    return {};
}

template <ExportForm form>
std::string SetForm(PerformanceOptions& options, const char* /*none*/) {
    if (options.form != ExportForm::kNone) return "one form at a time";
    options.form = form;
    return {};
}

std::string SetHtml(PerformanceOptions& options, const char* value) {
    options.html = value;
    return SetForm<ExportForm::kHtml>(options, value);
}

std::string SetFile(PerformanceOptions& options, const char* value) {
    options.file = value;
    return {};
}

std::string AddTrace(PerformanceOptions& options, const char* value) {
    options.traces.emplace_back(value);
    return {};
}

std::string SetLast(PerformanceOptions& options, const char* value) {
    const char* const end = value + std::strlen(value);
    uint64_t& number = options.last.emplace();
    const auto [next, error] = std::from_chars(value, end, number);
    return error == std::errc{} && next == end ? "" : "not a number";
}

constexpr unsigned kOfSpan = kUseShow | kUseSummary | kUseExport;
constexpr unsigned kAll = kOfSpan | kUseList | kUseAround;

// The help has the lines of this table in its order, and the shells complete from it: there what an
// option takes follows it in capitals.
constexpr Word kWords[] = {
    {"--since", kOfSpan, true, SetTime<&PerformanceOptions::since>,
     "  --since T, --until T   \"2026-11-15 20:04:51\", 14:03, today, -10m; as of kemdctl\n"
     "                         trace. By default the newest ten minutes, of export all\n"},
    {"--until", kOfSpan, true, SetTime<&PerformanceOptions::until>, ""},
    {"--step", kUseShow | kUseExport, true, SetStep,
     "  --step SPAN            show, export: a row for so long a time, as 10s or 1m\n"},
    {"--plot", kUseShow, false, SetFlag<&PerformanceOptions::plots>,
     "  --plot                 show: lines over time\n"},
    {"--csv", kUseExport, false, SetForm<ExportForm::kCsv>,
     "  --csv, --json-lines, --openmetrics    export: in this form\n"},
    {"--json-lines", kUseExport, false, SetForm<ExportForm::kJsonLines>, ""},
    {"--openmetrics", kUseExport, false, SetForm<ExportForm::kOpenMetrics>, ""},
    {"--html", kUseExport, true, SetHtml,
     "  --html FILE            export: one page for a browser, with the trace's events;\n"
     "                         this is also what performance --html FILE does\n"},
    {"--trace", kUseAround | kUseExport, true, AddTrace,
     "  --trace FILE           around, --html: the trace's files or directory\n"},
    {"--lines", kUseAround, true, SetLast,
     "  --lines N              around: at most so many records; 40\n"},
    {"--period", kUseLive, true, SetPeriod, "  --period 1s            live: refreshed so often\n"},
    {"--processes", kUseLive, false, SetFlag<&PerformanceOptions::hasProcesses>,
     "  --processes            live: the processes with the most CPU, memory and I/O\n"},
    {"--once", kUseLive, false, SetFlag<&PerformanceOptions::once>,
     "  --once                 live: prints one screen, after one period\n"},
    {"--file", kAll, true, SetFile,
     "  --file FILE            a history that was copied from another machine\n"},
    {"--json", kAll & ~kUseExport, false, SetFlag<&PerformanceOptions::asJson>,
     "  --json                 results as JSON\n"},
};

bool Complained(std::string_view name, const char* value, const std::string& problem) {
    if (problem.empty()) return false;
    const std::string shown = value != nullptr ? " " + Printable(value) : "";
    Complain("%s%s: %s", std::string(name).c_str(), shown.c_str(), problem.c_str());
    return true;
}

bool TakeWord(CommandLine& line, const Word& word, PerformanceOptions& options) {
    if (!word.takesValue) {
        return !line.Has(word.name) || !Complained(word.name, nullptr, word.set(options, nullptr));
    }
    const std::vector<const char*> values = line.TakeValues(word.name);
    if (values.size() > 1 && word.set != AddTrace) {
        return !Complained(word.name, nullptr, "given more than once");
    }
    return std::none_of(values.begin(), values.end(), [&](const char* value) {
        return Complained(word.name, value,
                          value == nullptr ? "a value is missing" : word.set(options, value));
    });
}

}  // namespace

std::optional<PerformanceOptions> ParsePerformanceOptions(CommandLine& line) {
    PerformanceOptions options;
    options.now = ClockNow() * kNsPerMs;
    std::vector<std::string_view> known;
    for (const Word& word : kWords) {
        known.push_back(word.name);
        if (!TakeWord(line, word, options)) return {};
    }
    if (!line.HasOnly(known)) return {};
    if (options.since && options.until && *options.since > *options.until) {
        Complain("--since is after --until");
        return {};
    }
    return options;
}

bool FitsUse(const CommandLine& line, std::string_view subcommand, unsigned use) {
    return std::none_of(std::begin(kWords), std::end(kWords), [&](const Word& word) {
        return (word.uses & use) == 0 && line.Has(word.name) &&
               Complained(word.name, nullptr,
                          "not an option of " + std::string(subcommand) +
                              "; see kemdctl performance --help");
    });
}

std::string PerformanceOptionsHelp() {
    std::string help;
    for (const Word& word : kWords) help += word.help;
    return help;
}

std::optional<int64_t> ParseMoment(std::string_view text, int64_t now) {
    const auto time = ReadTime(text, now);
    if (!time) Complain("%s: %s", Printable(text).c_str(), kTimeHelp);
    return time;
}
