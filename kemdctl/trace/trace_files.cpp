#include "kemdctl/trace/trace_files.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "kemdctl/facts/daemon_environment.h"
#include "kemdctl/facts/daemon_state.h"
#include "kemdctl/trace/kept_runs.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/trace_source.h"

namespace {

std::string DirectoryInForce() {
    const TraceSettings settings(ReadDaemonEnvironment(ReadDaemonState()));
    return settings.Directory();
}

bool IsThere(const std::string& path, bool asDirectory) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && (!asDirectory || S_ISDIR(status.st_mode));
}

// The compressed start-up ring is not whole while the ring itself is still there.
void AddDirectory(const std::string& directory, bool mayCome, std::vector<std::string>& files) {
    const bool isStarting = IsThere(directory + "/log.kemd_i", false);
    for (const char* const name : kTraceFileNames) {
        const std::string path = directory + "/" + name;
        if (isStarting && path.ends_with(".gz")) continue;
        const bool isThere = IsThere(path, false);
        // One that may not be looked at is reported when it is opened, and stands for the others.
        const bool isHidden = !isThere && errno != ENOENT;
        if (mayCome || isThere || isHidden) files.push_back(path);
        if (isHidden) break;
    }
}

std::vector<std::string> ListNamed(std::vector<std::string> named, bool mayCome) {
    if (named.empty()) named.push_back(DirectoryInForce());
    std::vector<std::string> files;
    for (const std::string& name : named) {
        if (IsThere(name, true)) {
            AddDirectory(name, mayCome, files);
            continue;
        }
        files.push_back(name);
        if (!mayCome || IsThere(name, false)) continue;
        Complain("%s is not there: waiting for it", Printable(name).c_str());
    }
    if (files.empty()) {
        KeptRuns runs(named.front());
        const bool hasKept = runs.Open() && !runs.List().empty();
        Complain("no trace files in %s%s", Printable(named.front()).c_str(),
                 hasKept ? ", but kept runs: see --list-runs" : "");
    }
    return files;
}

std::string Times(uint64_t count) {
    return count == 1 ? "once" : std::to_string(count) + " times";
}

std::string Bytes(uint64_t count, const char* what) {
    return count == 0 ? ""
                      : ", " + std::to_string(count) + (count == 1 ? " byte " : " bytes ") + what;
}

std::string Span(const SourceFacts& facts) {
    if (facts.records == 0) return ", no records";
    return ", " + std::to_string(facts.records) +
           (facts.records == 1 ? " record read, " : " records read, ") +
           FormatTime(facts.firstTime).data() + " to " + FormatTime(facts.lastTime).data();
}

}  // namespace

std::optional<std::vector<KeptPlace>> ListKept(const std::vector<std::string>& named) {
    KeptRuns runs(named.empty() ? DirectoryInForce() : named.front());
    // A file has none.
    if (!runs.Open() && errno != ENOENT && errno != ENOTDIR) {
        const bool isRefused = errno == EACCES && geteuid() != 0;
        Complain("cannot look at %s: %s%s", Printable(runs.Path()).c_str(), std::strerror(errno),
                 isRefused ? ": run it as root" : "");
        return std::nullopt;
    }
    std::vector<KeptPlace> kept;
    for (const KeptRun& run : runs.List()) kept.push_back({runs.PathOf(run), run.size});
    std::reverse(kept.begin(), kept.end());
    return kept;
}

std::vector<std::string> FilesIn(const std::string& directory) {
    std::vector<std::string> files;
    AddDirectory(directory, false, files);
    return files;
}

std::vector<std::string> ChooseFiles(const TraceOptions& options) {
    if (!options.run) return ListNamed(options.paths, options.follows || options.waitFor);
    const auto kept = ListKept(options.paths);
    if (kept && *options.run <= kept->size()) return FilesIn((*kept)[*options.run - 1].path);
    if (kept) {
        Complain(
            "there is no run %llu: %s kept; see --list-runs",
            static_cast<unsigned long long>(*options.run),
            kept->size() == 1 ? "1 run is" : (std::to_string(kept->size()) + " runs are").c_str());
    }
    return {};
}

Writing SeeWriter(int process, const TraceFile& file) {
    if (process <= 0) return Writing::kNo;
    const std::string path = "/proc/" + std::to_string(process) + "/fd/";
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(path.c_str()), closedir);
    // Some containers answer as if there were no such process.
    bool isUnseen = !entries && (errno == EACCES || (kill(process, 0) != 0 && errno == EPERM));
    while (const dirent* entry = entries ? readdir(entries.get()) : nullptr) {
        struct stat status = {};
        if (stat((path + entry->d_name).c_str(), &status) != 0) {
            isUnseen = isUnseen || errno == EACCES;
        } else if (file.IsSame(status)) {
            return Writing::kYes;
        }
    }
    return isUnseen ? Writing::kUnseen : Writing::kNo;
}

std::string Describe(const TraceSource& source) {
    const SourceFacts& facts = source.Facts();
    constexpr const char* kNames[] = {"empty", "not a trace file", "log", "ring"};
    const bool isRing = facts.kind == FileKind::kRingFile;
    std::string text = isRing && facts.isCompressed ? "compressed " : "";
    text += kNames[static_cast<size_t>(facts.kind)];
    if (isRing || source.IsLog()) {
        text += Span(facts);
        text += facts.cycle == 0 ? ", not wrapped" : ", wrapped";
        if (source.IsLog() && facts.cycle > 0) text += " " + Times(facts.cycle);
        if (facts.clockBack > 0) text += ", clock went back " + Times(facts.clockBack);
        text += Bytes(facts.overwritten, "of older records cut");
        text += Bytes(facts.foreign, "are not records");
        text += Bytes(facts.lost, "overwritten while they were read");
        if (facts.hasUncertainLines)
            text += ", lines at the end of a cycle may be of older records";
        if (facts.writer != 0 && !facts.isCompressed) {
            const std::string process = "process " + std::to_string(facts.writer);
            const Writing writing = SeeWriter(facts.writer, source.File());
            text += writing == Writing::kYes ? ", " + process + " writes it"
                    : writing == Writing::kNo
                        ? ", " + process + " no longer writes it"
                        : ", whether " + process + " still writes it cannot be seen";
        }
    }
    if (facts.kind != FileKind::kForeignFile && !facts.problem.empty())
        text += "; " + facts.problem;
    if (facts.error.empty()) return text;
    return source.IsOpen() ? text + "; " + facts.error : facts.error;
}

bool ReportFacts(const TraceMerge& merge, bool isQuiet) {
    bool isGood = true;
    for (const auto& source : merge.Sources()) {
        const std::string line = Printable(source->Path()) + ": " + Describe(*source);
        if (!source->IsGood()) Complain("%s", line.c_str());
        // Nothing is wrong: it is not kept for the document.
        if (source->IsGood() && !isQuiet) std::fprintf(stderr, "kemdctl: %s\n", line.c_str());
        isGood = isGood && source->IsGood();
    }
    return isGood;
}

bool ReportErrors(const TraceMerge& merge) {
    bool isGood = true;
    for (const auto& source : merge.Sources()) {
        const std::string& error = source->Facts().error;
        if (error.empty() || error == std::strerror(ENOENT)) continue;  // it did not come
        Complain("%s: %s", Printable(source->Path()).c_str(), error.c_str());
        isGood = false;
    }
    return isGood;
}
