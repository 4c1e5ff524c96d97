#include "kemdctl/trace/run_marks.h"

#include <algorithm>
#include <array>

namespace {

using Kind = RunMark::Kind;

constexpr std::string_view kStartup = "start-up";
constexpr std::string_view kLoad = "load modules";
constexpr std::string_view kStart = "start all modules";
constexpr std::string_view kStop = "stop all modules";
constexpr std::string_view kUnload = "unload modules";
constexpr std::string_view kProgram = "kemd Version=\"";
constexpr std::string_view kMain = "KEMD-MAIN: ";
constexpr std::string_view kOnExit = "KEMD-MAIN::OnExitService      : ";

struct MarkText {
    std::string_view text;  // what the record begins with, after the name of the function
    RunMark mark;
};
constexpr MarkText kMainTexts[] = {
    {"Load extension modules ...", {Kind::kCallBegin, kLoad}},
    {"... extension modules loaded", {Kind::kCallEnd, kLoad}},
    {"ERROR! Load extension modules FAILED!", {Kind::kCallEnd, kLoad}},
    {"Start all modules  ...", {Kind::kCallBegin, kStart}},
    {"... all modules started", {Kind::kCallEnd, kStart}},
    {"## Done initializing ##", {Kind::kInitialised, kStartup}},
    {"## EXIT PROCESS ", {Kind::kExit, {}}},
    {"FATAL ERROR! ", {Kind::kFatal, {}}},
};
constexpr MarkText kOnExitTexts[] = {
    {"Stopping all modules...", {Kind::kCallBegin, kStop}},
    {"... all modules stopped", {Kind::kCallEnd, kStop}},
    {"Start unload of all registered extension modules ...", {Kind::kCallBegin, kUnload}},
    {"... unload of all registered extension modules completed", {Kind::kCallEnd, kUnload}},
};

template <size_t kCount>
std::optional<RunMark> Find(const MarkText (&texts)[kCount], std::string_view text) {
    const auto* found = std::find_if(std::begin(texts), std::end(texts), [text](const auto& each) {
        return text.starts_with(each.text);
    });
    if (found == std::end(texts)) return std::nullopt;
    return found->mark;
}

}  // namespace

std::optional<RunMark> ParseRunMark(const TraceRecord& record) {
    const std::string_view text = record.text;
    if (!text.starts_with('K') && !text.starts_with('k')) return std::nullopt;
    if (record.tag != "kemd") return std::nullopt;  // a module may write the same
    if (text.starts_with(kProgram)) return RunMark{Kind::kRunBegin, kStartup};
    if (text.starts_with(kMain)) return Find(kMainTexts, text.substr(kMain.size()));
    if (text.starts_with(kOnExit)) return Find(kOnExitTexts, text.substr(kOnExit.size()));
    return std::nullopt;
}

void RunSpans::Begin(std::string_view name, int64_t time) {
    constexpr size_t kMostOpen = 8;
    if (m_open.size() < kMostOpen) m_open.push_back({name, time, time, false});
}

void RunSpans::End(std::string_view name, int64_t time, bool isOpen) {
    constexpr size_t kMost = 10000;
    const auto found = std::find_if(m_open.begin(), m_open.end(),
                                    [name](const RunSpan& span) { return span.name == name; });
    if (found == m_open.end()) return;
    // The clock may have gone back.
    if (m_spans.size() < kMost) {
        m_spans.push_back({name, found->begin, std::max(time, found->begin), isOpen});
    }
    m_open.erase(found);
}

void RunSpans::Add(const TraceRecord& record) {
    const auto mark = ParseRunMark(record);
    if (mark && mark->kind == Kind::kRunBegin) Finish();
    m_lastTime = record.time;
    if (!mark) return;
    switch (mark->kind) {
        case Kind::kRunBegin:
        case Kind::kCallBegin:
            return Begin(mark->name, record.time);
        case Kind::kInitialised:
        case Kind::kCallEnd:
            return End(mark->name, record.time, false);
        case Kind::kExit:
        case Kind::kFatal:
            return Finish();
    }
}

void RunSpans::Finish() {
    while (!m_open.empty()) End(m_open.front().name, m_lastTime, true);
}

std::optional<ModuleNote> ParseModuleNote(const TraceRecord& record) {
    constexpr std::string_view kModule = "module ";
    constexpr std::string_view kFile = ".so ";
    constexpr std::array<std::string_view, 10> kStates = {
        "loading", "loaded",           "starting",        "started",        "stopping",
        "stopped", "cannot be loaded", "failed to start", "failed to stop", "is left out"};
    if (record.tag != "switch" || !record.text.starts_with(kModule)) return {};
    // A fragment of an overwritten record may stand after it.
    std::string_view text = record.text.substr(0, record.text.find('\n'));
    text.remove_prefix(kModule.size());
    const size_t end = text.find(kFile);
    if (end == text.npos) return {};
    const std::string_view name = text.substr(0, end + kFile.size() - 1);
    text.remove_prefix(end + kFile.size());
    const std::string_view state = text.substr(0, text.find(':'));
    if (std::find(kStates.begin(), kStates.end(), state) == kStates.end()) return {};
    return ModuleNote{name, state};
}
