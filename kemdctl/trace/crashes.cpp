#include "kemdctl/trace/crashes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <string>
#include <string_view>

#include "base/text.h"
#include "kemdctl/trace/collect_archive.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/record.h"

namespace {

// As times of records are.
int64_t RecordTime(int64_t time) {
    const time_t seconds = time / 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    return time + local.tm_gmtoff * 1000;
}

struct Symbol {
    std::string function;  // both empty: not known
    std::string line;
};

// A frame taken apart; the path is empty when no file was known.
struct Frame {
    std::string path;
    std::string offset;  // of the instruction
};

// A return address is after its call, which may be the last of its line or function.
Frame TakeApart(const std::string& text, bool isReturn) {
    const size_t plus = text.rfind("+0x");
    if (plus == text.npos || text[0] != '/') return {};
    const unsigned long long offset = std::strtoull(text.c_str() + plus + 1, nullptr, 16);
    std::array<char, 32> number{};
    std::snprintf(number.data(), number.size(), "0x%llx",
                  offset - (isReturn && offset > 0 ? 1 : 0));
    return {text.substr(0, plus), number.data()};
}

// Of the frames, by their place; one run of addr2line for each file.
std::vector<Symbol> Resolve(const std::vector<std::string>& texts) {
    std::vector<Symbol> symbols(texts.size());
    std::map<std::string, std::vector<size_t>> byPath;
    std::vector<std::string> offsets(texts.size());
    for (size_t i = 0; i < texts.size(); ++i) {
        const Frame frame = TakeApart(texts[i], i > 0);
        if (!frame.path.empty()) byPath[frame.path].push_back(i);
        offsets[i] = frame.offset;
    }
    for (const auto& [path, places] : byPath) {
        std::vector<const char*> arguments = {"addr2line", "-Cfe", path.c_str()};
        for (const size_t i : places) arguments.push_back(offsets[i].c_str());
        const std::string output = RunProgram(arguments);
        const auto lines = std::count(output.begin(), output.end(), '\n');
        if (static_cast<size_t>(lines) != 2 * places.size()) continue;  // a complaint, or nothing
        std::string_view rest = output;
        for (const size_t i : places) {
            const std::string_view function = TakeLine(rest), line = TakeLine(rest);
            if (!function.starts_with("??")) symbols[i].function = function;
            if (!line.starts_with("??")) symbols[i].line = line;
        }
    }
    return symbols;
}

void ShowFrames(ReportWriter& report, const CrashRecord& crash, bool isListed) {
    const std::vector<Symbol> symbols =
        isListed ? std::vector<Symbol>(crash.frames.size()) : Resolve(crash.frames);
    report.OpenArray("frames");
    for (size_t i = 0; i < symbols.size(); ++i) {
        const auto& [function, line] = symbols[i];
        report.OpenObject();
        report.Text("address", crash.frames[i]);
        if (!function.empty()) report.Text("function", function);
        if (!line.empty()) report.Text("line", line);
        report.Close();
        if (isListed) continue;
        std::string text = function;
        if (!line.empty()) text.append(" at ").append(line);
        if (!text.empty()) text += ' ';
        text += text.empty() ? crash.frames[i] : '(' + crash.frames[i] + ')';
        report.Line("  " + Printable(text));
    }
    report.Close();
}

void Show(ReportWriter& report, const CrashRecord& crash, bool isListed) {
    const std::string time = FormatTime(RecordTime(crash.time)).data();
    const std::string sender = std::to_string(crash.sender);
    report.OpenObject();
    report.Text("time", time);
    report.Number("process", crash.process);
    report.Flag("isolated", crash.isIsolated);
    report.Number("signal", crash.signal);
    report.Text("name", crash.name);
    if (!crash.address.empty()) report.Text("address", crash.address);
    if (crash.sender != 0) report.Number("sender", crash.sender);
    report.Number("thread", crash.thread);
    report.Text("threadName", crash.threadName);
    if (!crash.module.empty()) report.Text("module", crash.module);
    if (!isListed) {
        report.Field("crash", time + ", " + DescribeCrash(crash) +
                                  (crash.isIsolated ? " in a process of its own" : "") +
                                  (crash.sender != 0 ? ", sent by process " + sender
                                                     : ", address " + Printable(crash.address)) +
                                  ", thread " + std::to_string(crash.thread) + " (" +
                                  Printable(crash.threadName) + ")");
    }
    ShowFrames(report, crash, isListed);
    report.Close();
}

}  // namespace

std::vector<CrashRecord> CrashesOf(const LastRun& run, const std::vector<int>& writers) {
    const auto all = ReadCrashes();
    if (!all) Complain("note: %s", CrashFileFault(errno).c_str());
    std::vector<CrashRecord> found;
    if (!all) return found;
    for (const CrashRecord& crash : *all) {
        const int64_t time = RecordTime(crash.time);
        if (crash.signal == 0 || time < run.begin) continue;
        const bool isOwn =
            !crash.isIsolated &&
            (writers.empty() || std::count(writers.begin(), writers.end(), crash.process) > 0);
        // After its records the run may go on in silence, or be over.
        if (isOwn || (crash.isIsolated && time <= run.end)) found.push_back(crash);
        if (isOwn) break;
    }
    return found;
}

std::string DescribeCrash(const CrashRecord& crash) {
    return "signal " + std::to_string(crash.signal) + " (" + Printable(crash.name) + ")" +
           (crash.module.empty() ? "" : ", module " + Printable(crash.module));
}

void ShowCrashes(ReportWriter& report, const std::vector<CrashRecord>& crashes, bool isListed) {
    if (crashes.empty()) return;
    report.List("crashes", crashes,
                [&](const CrashRecord& crash) { Show(report, crash, isListed); });
}
