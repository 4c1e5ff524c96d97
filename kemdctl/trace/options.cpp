#include "kemdctl/trace/options.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "kemdctl/trace/reports.h"
#include "kemdctl/trace/time_word.h"
#include "kemdctl/ui/text.h"

namespace {

struct Parser {
    TraceOptions options;
    bool ignoresCase = false;
    int64_t now = ClockNow();
};
// The value is null for an option that has none. Empty, or what is wrong with it.
using Setter = std::string (*)(Parser& parser, const char* value);
enum class Arity : uint8_t { kFlag, kValue, kRepeated };
struct Word {
    std::string_view name;
    std::string_view other;  // may be empty
    Arity kind;
    Setter set;
    const char* help;  // its lines of the help, which may be those of the next ones, too
};

template <bool TraceOptions::*member, bool value = true>
std::string SetFlag(Parser& parser, const char* /*none*/) {
    parser.options.*member = value;
    return {};
}

template <auto report>
std::string SetReport(Parser& parser, const char* file) {
    if (parser.options.report.index() != 0) return "one report or count at a time";
    parser.options.report = report;
    parser.options.reportFile = file;
    return {};
}

template <std::optional<int64_t> Filter::*member>
std::string SetTime(Parser& parser, const char* value) {
    auto& time = parser.options.filter.*member;
    time = ParseTime(value, parser.now);
    return time ? "" : "not a time such as \"2026-11-15 20:04:51.123\", 20:04, today or -2h30m";
}

template <std::optional<int64_t> TraceOptions::*member>
std::string SetSpan(Parser& parser, const char* value) {
    auto& span = parser.options.*member;
    span = ParseSpan(value);
    return span ? "" : "not a span of time such as 10, 0.5 or 2m30s";
}

template <std::vector<Pattern> Filter::*member>
std::string AddPattern(Parser& parser, const char* value) {
    return (parser.options.filter.*member).emplace_back().Set(value, parser.ignoresCase);
}

std::string SetWaitFor(Parser& parser, const char* value) {
    return parser.options.waitFor.emplace().Set(value, parser.ignoresCase);
}

std::string AddThread(Parser& parser, const char* value) {
    const bool hasPrefix = std::strncmp(value, "0x", 2) == 0 || std::strncmp(value, "0X", 2) == 0;
    const char* const begin = value + (hasPrefix ? 2 : 0);
    const char* const end = value + std::strlen(value);
    uint64_t thread = 0;
    const auto [next, error] = std::from_chars(begin, end, thread, 16);
    if (error != std::errc{} || next != end) return "not a thread such as D82A0740";
    parser.options.filter.threads.push_back(static_cast<uint32_t>(thread));
    return {};
}

std::string AddTag(Parser& parser, const char* value) {
    parser.options.filter.tags.emplace_back(value);
    return {};
}

template <std::optional<uint64_t> TraceOptions::*member, uint64_t least>
std::string SetNumber(Parser& parser, const char* value) {
    const char* const end = value + std::strlen(value);
    uint64_t& number = (parser.options.*member).emplace();
    const auto [next, error] = std::from_chars(value, end, number);
    return error == std::errc{} && next == end && number >= least ? "" : "not a number";
}

template <typename Value>
using Choices = std::initializer_list<std::pair<std::string_view, Value>>;

template <typename Value>
std::string Pick(Value& option, std::string_view word, Choices<Value> choices) {
    std::string all;
    for (const auto& [name, value] : choices) {
        if (name == word) {
            option = value;
            return {};
        }
        all += (all.empty() ? "" : ", ") + std::string(name);
    }
    return "not one of " + all;
}

std::string SetForm(Parser& parser, const char* value) {
    return Pick<Form>(parser.options.form, value,
                      {{"full", Form::kFull},
                       {"short", Form::kShort},
                       {"json", Form::kJson},
                       {"csv", Form::kCsv}});
}

std::string SetJson(Parser& parser, const char* /*none*/) {
    parser.options.form = Form::kJson;
    return {};
}

std::string SetColor(Parser& parser, const char* value) {
    return Pick<ColorMode>(
        parser.options.color, value,
        {{"auto", ColorMode::kAuto}, {"always", ColorMode::kAlways}, {"never", ColorMode::kNever}});
}

std::string IgnoreCase(Parser& parser, const char* /*none*/) {
    parser.ignoresCase = true;
    return {};
}

// -i stands before what it works on. The help has the lines of this table in its order, and the
// shells complete from it: there what an option takes follows it, in capitals or as "one|other".
constexpr Word kWords[] = {
    {"--help", "", Arity::kFlag, SetFlag<&TraceOptions::isHelp>,
     "usage: kemdctl trace [OPTION...] [FILE|DIRECTORY...]  the directory in force\n"
     "       kemdctl trace level [N [--for 10m]]           the level in force of kemd\n"
     "Records of all the files in the order of time. They are chosen in this order:\n"},
    {"-i", "--ignore-case", Arity::kFlag, IgnoreCase, ""},
    {"--start", "", Arity::kFlag, SetFlag<&TraceOptions::fromStart>,
     "  --start                   since the last start of the daemon\n"},
    {"--since", "", Arity::kValue, SetTime<&Filter::since>,
     "  --since T, --until T      T: \"2026-11-15 20:04:51.123\", 20:04, today, -2h30m\n"},
    {"--until", "", Arity::kValue, SetTime<&Filter::until>, ""},
    {"--thread", "", Arity::kRepeated, AddThread,
     "  --thread ID, --tag NAME   of any of these threads, with any of these tags\n"},
    {"--tag", "", Arity::kRepeated, AddTag, ""},
    {"-g", "--grep", Arity::kRepeated, AddPattern<&Filter::wanted>,
     "  -g, --grep REGEX          whose text matches any of these\n"},
    {"-v", "--exclude", Arity::kRepeated, AddPattern<&Filter::excluded>,
     "  -v, --exclude REGEX       whose text matches none; -i, --ignore-case in both\n"},
    {"-n", "--lines", Arity::kValue, SetNumber<&TraceOptions::last, 0>,
     "  -n, --lines N             the last N of them, and when following all new ones\n"},
    {"-f", "--follow", Arity::kFlag, SetFlag<&TraceOptions::follows>,
     "Show them:\n"
     "  -f, --follow              and go on with what is written\n"},
    {"--wait-for", "", Arity::kValue, SetWaitFor,
     "  --wait-for REGEX          only the next that matches; end after --timeout S\n"},
    {"--timeout", "", Arity::kValue, SetSpan<&TraceOptions::timeout>, ""},
    {"-o", "--output", Arity::kValue, SetForm,
     "  -o, --output full|short|json|csv    in this form; --json is -o json\n"},
    {"--json", "", Arity::kFlag, SetJson, ""},
    {"--gaps", "", Arity::kValue, SetSpan<&TraceOptions::gap>,
     "  --gaps S, --delta         only around gaps above S; with the time between\n"},
    {"--delta", "", Arity::kFlag, SetFlag<&TraceOptions::showsDelta>, ""},
    {"--raw", "", Arity::kFlag, SetFlag<&TraceOptions::isRaw>,
     "  --raw                     with all that is not a record\n"},
    {"--color", "", Arity::kValue, SetColor,
     "  --color auto|always|never    --no-pager    -q, --quiet  no word on the files\n"},
    {"--no-pager", "", Arity::kFlag, SetFlag<&TraceOptions::mayPage, false>, ""},
    {"-q", "--quiet", Arity::kFlag, SetFlag<&TraceOptions::isQuiet>, ""},
    {"--count", "", Arity::kFlag, SetReport<MakeCountSink>,
     "Or, in their place:\n"
     "  --count, --stats          their number; how many of which kind, when, memory\n"},
    {"--stats", "", Arity::kFlag, SetReport<MakeStatsSink>, ""},
    {"--export", "", Arity::kValue, SetReport<MakeTimelineSink>,
     "  --export, --html FILE     a timeline for trace viewers; a page to look at\n"},
    {"--html", "", Arity::kValue, SetReport<MakeHtmlSink>, ""},
    {"--header", "", Arity::kFlag, SetReport<ShowHeaders>,
     "Or, of whole files:\n"
     "  --header, --verify        the writer's settings; whether the files are sound\n"},
    {"--verify", "", Arity::kFlag, SetReport<VerifyFiles>, ""},
    {"--last-run", "", Arity::kFlag, SetReport<ShowLastRun>,
     "  --last-run                how the last run ended\n"},
    {"--collect", "", Arity::kValue, SetReport<CollectFiles>,
     "  --collect FILE            everything for support, secrets masked\n"},
    {"--list-runs", "", Arity::kFlag, SetReport<ListKeptRuns>,
     "  --run N, --list-runs      runs that did not end in order are kept: read one\n"},
    {"--run", "", Arity::kValue, SetNumber<&TraceOptions::run, 1>, ""},
};

bool Complained(std::string_view name, const char* value, const std::string& problem) {
    if (problem.empty()) return false;
    const std::string shown = value != nullptr ? " " + Printable(value) : "";
    Complain("%s%s: %s", std::string(name).c_str(), shown.c_str(), problem.c_str());
    return true;
}

bool TakeWord(CommandLine& line, const Word& word, Parser& parser) {
    if (word.kind == Arity::kFlag) {
        const bool isSet = line.Has(word.name) || (!word.other.empty() && line.Has(word.other));
        return !isSet || !Complained(word.name, nullptr, word.set(parser, nullptr));
    }
    std::vector<const char*> values = line.TakeValues(word.name);
    if (!word.other.empty()) {
        for (const char* value : line.TakeValues(word.other)) values.push_back(value);
    }
    if (word.kind == Arity::kValue && values.size() > 1) {
        return !Complained(word.name, nullptr, "given more than once");
    }
    for (const char* value : values) {
        if (Complained(word.name, value,
                       value == nullptr ? "a value is missing" : word.set(parser, value))) {
            return false;
        }
    }
    return true;
}

// What makes no sense together.
std::string FindConflict(const TraceOptions& options) {
    const bool goesOn = options.follows || options.waitFor;
    const Filter& filter = options.filter;
    const bool isList = options.report == TraceReport(ListKeptRuns);
    const bool isOfFiles = std::holds_alternative<FilesReport>(options.report) ||
                           std::holds_alternative<RunsReport>(options.report);
    const bool chooses = options.fromStart || filter.since || filter.until || options.last ||
                         !filter.threads.empty() || !filter.tags.empty() ||
                         !filter.wanted.empty() || !filter.excluded.empty();
    const bool isOfKept = options.run || isList;
    if (isOfKept && goesOn) return "nothing is written to a kept run: no -f, no --wait-for";
    if (isOfKept && options.paths.size() > 1) return "kept runs are those of one directory";
    if (options.run && isList) return "--list-runs shows all of them";
    if (options.timeout && !goesOn) return "--timeout goes with -f and --wait-for only";
    if (isOfFiles && (goesOn || chooses)) return "this report is of whole files: no filters, no -f";
    if (options.waitFor && options.report.index() != 0) {
        return "--wait-for goes with no report and no count";
    }
    return {};
}

}  // namespace

// -n1 is -n 1.
static void PartShortOptions(CommandLine& line) {
    for (CommandLine::Option& each : line.options) {
        const std::string_view name = each.name.substr(0, 2);
        const auto* word = std::find_if(std::begin(kWords), std::end(kWords),
                                        [name](const Word& one) { return one.name == name; });
        if (each.name.size() == 2 || word == std::end(kWords) || word->kind == Arity::kFlag)
            continue;
        each.value = each.name.data() + name.size();  // up to the end of its word
        each.name = name;
    }
}

std::optional<TraceOptions> ParseTraceOptions(CommandLine& line) {
    Parser parser;
    PartShortOptions(line);
    std::vector<std::string_view> names;
    for (const Word& word : kWords) {
        if (!TakeWord(line, word, parser)) return {};
        names.push_back(word.name);
        if (!word.other.empty()) names.push_back(word.other);
    }
    if (!line.HasOnly(names)) return {};
    parser.options.paths.assign(line.words.begin(), line.words.end());
    const std::string conflict = FindConflict(parser.options);
    if (conflict.empty()) return std::move(parser.options);
    Complain("%s", conflict.c_str());
    return {};
}

void WriteTraceHelp() {
    for (const Word& word : kWords) Write(word.help);
    Write("Exit status: 0 found, 1 nothing matched, or the time-out, 2 an error.\n");
}
