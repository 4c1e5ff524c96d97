#include "tools/kemdctl/trace/trace_files.h"

#include <sys/stat.h>

#include "tools/kemdctl/command.h"
#include "tools/kemdctl/daemon_environment.h"
#include "tools/kemdctl/daemon_state.h"
#include "tools/kemdctl/text.h"
#include "tools/trace_reader/describe.h"

namespace {

std::string DirectoryInForce() {
    const TraceSettings settings(ReadDaemonEnvironment(ReadDaemonState()));
    const std::string directory = settings.InForce().logDirectory.Get();
    return directory.empty() ? "/" : directory;
}

bool IsThere(const std::string& path, bool asDirectory) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && (!asDirectory || S_ISDIR(status.st_mode));
}

// The compressed start-up ring is not whole while the ring itself is still there.
void AddDirectory(const std::string& directory, bool mayCome, std::vector<std::string>& files) {
    const bool isStarting = IsThere(directory + "/log.kemd_i", false);
    for (const char* name : {"/log.kemd_i.gz", "/log.kemd_i", "/log.kemd_a", "/log.kemd"}) {
        if (isStarting && std::string_view(name).ends_with(".gz")) continue;
        if (mayCome || IsThere(directory + name, false)) files.push_back(directory + name);
    }
}

}  // namespace

std::vector<std::string> ListTraceFiles(std::vector<std::string> named, bool mayCome) {
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
    if (files.empty()) Complain("no trace files in %s", Printable(named.front()).c_str());
    return files;
}

bool TellFacts(const TraceMerge& merge, bool isQuiet) {
    bool isGood = true;
    for (const auto& source : merge.Sources()) {
        const SourceFacts& facts = source->Facts();
        const bool isBad = !source->IsOpen() || facts.kind == FileKind::kForeignFile;
        if (isBad || !isQuiet) {
            Complain("%s: %s", Printable(source->Path()).c_str(), Describe(facts).c_str());
        }
        isGood = isGood && !isBad;
    }
    return isGood;
}
