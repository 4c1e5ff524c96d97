#include "kemdctl/trace/kept_runs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

#include "kemdctl/ui/text.h"
#include "trace_reader/trace_source.h"

namespace {

// "20261122T004653Z", and "-0001" after it where that would not be the newest name.
constexpr std::string_view kNamePattern = "00000000T000000Z-0000";
constexpr size_t kTimeLength = 16;

bool IsRunName(std::string_view name) {
    if (name.size() != kTimeLength && name.size() != kNamePattern.size()) return false;
    return std::equal(name.begin(), name.end(), kNamePattern.begin(), [](char each, char pattern) {
        return pattern == '0' ? each >= '0' && each <= '9' : each == pattern;
    });
}

// The clock may have been set back.
std::string NameAfter(const std::string& newest) {
    std::array<char, 32> text{};
    const time_t now = time(nullptr);
    struct tm parts {};
    (void)gmtime_r(&now, &parts);
    (void)std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &parts);
    if (newest < text.data()) return text.data();
    const int count = newest.size() > kTimeLength ? std::stoi(newest.substr(kTimeLength + 1)) : 0;
    std::snprintf(text.data(), text.size(), "-%04d", count + 1);
    return newest.substr(0, kTimeLength) + text.data();
}

UniqueFd OpenDirectory(int parent, const std::string& name) {
    return UniqueFd(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool IsFile(int directory, const char* name, uint64_t& size) {
    struct stat status {};
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
    size = static_cast<uint64_t>(status.st_size);
    return S_ISREG(status.st_mode);
}

// Of the trace files in a directory; how many they are.
size_t SumUp(int directory, uint64_t& bytes) {
    size_t count = 0;
    bytes = 0;
    for (const char* const name : kTraceFileNames) {
        uint64_t size = 0;
        if (!IsFile(directory, name, size)) continue;
        bytes += size;
        ++count;
    }
    return count;
}

std::string Problem(const std::string& what, const std::string& path, int error) {
    return "cannot " + what + " " + Printable(path) + ": " + std::strerror(error);
}

}  // namespace

bool HasRunMark(const std::string& path, RunMark::Kind kind) {
    TraceSource source(path, 0);
    if (!source.Open()) return false;
    for (TraceRecord record; source.Next(record);) {
        const auto mark = ParseRunMark(record);
        if (mark && mark->kind == kind) return true;
    }
    return false;
}

bool KeptRuns::Open() {
    m_log.Reset(open(m_logPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (m_log.IsOpen()) m_runs = OpenDirectory(m_log.Get(), m_path.substr(m_logPath.size() + 1));
    return m_runs.IsOpen();
}

std::vector<KeptRun> KeptRuns::List() const {
    std::vector<KeptRun> runs;
    // A descriptor of its own: closedir closes it.
    UniqueFd own = OpenDirectory(m_runs.Get(), ".");
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(fdopendir(own.Get()), closedir);
    if (directory) (void)own.Release();
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        if (!IsRunName(entry->d_name)) continue;
        const UniqueFd run = OpenDirectory(m_runs.Get(), entry->d_name);
        uint64_t size = 0;
        if (run.IsOpen() && SumUp(run.Get(), size) > 0) runs.push_back({entry->d_name, size});
    }
    std::sort(runs.begin(), runs.end(),
              [](const KeptRun& a, const KeptRun& b) { return a.name < b.name; });
    return runs;
}

// Who else may write there could have root move files, or remove them, elsewhere.
std::string KeptRuns::Make() {
    if (!Open()) {
        if (!m_log.IsOpen()) return Problem("open", m_logPath, errno);
        const char* const name = m_path.c_str() + m_logPath.size() + 1;
        if (mkdirat(m_log.Get(), name, 0700) != 0 && errno != EEXIST) {
            return Problem("make", m_path, errno);
        }
        m_runs = OpenDirectory(m_log.Get(), name);
        if (!m_runs.IsOpen()) return Problem("open", m_path, errno);
    }
    struct stat status {};
    if (fstat(m_runs.Get(), &status) != 0) return Problem("look at", m_path, errno);
    if (status.st_uid == geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0) return {};
    return Printable(m_path) + " may be written by others than root: remove it";
}

std::string KeptRuns::MakeRun(UniqueFd& directory, std::string& name) {
    const std::vector<KeptRun> runs = List();
    name = NameAfter(runs.empty() ? "" : runs.back().name);
    constexpr int kTries = 100;  // something else may have the name
    for (int i = 0; i < kTries && mkdirat(m_runs.Get(), name.c_str(), 0700) != 0; ++i) {
        if (errno != EEXIST) return Problem("make", m_path + "/" + name, errno);
        name = NameAfter(name);
    }
    directory = OpenDirectory(m_runs.Get(), name);
    return directory.IsOpen() ? "" : Problem("open", m_path + "/" + name, errno);
}

// The start-up ring is there only when the run ended before its start-up did, or when it could not
// be compressed; in the first case the others are of the run before.
std::string KeptRuns::Move(const UniqueFd& directory, uint64_t limit, KeptRun& run) {
    std::string problem;
    size_t moved = 0;
    for (const char* const name : {"log.kemd", "log.kemd_i", "log.kemd_a", "log.kemd_i.gz"}) {
        uint64_t size = 0;
        if (!IsFile(m_log.Get(), name, size)) continue;
        const std::string path = m_logPath + "/" + name;
        if (size > limit - run.size) {
            problem = Printable(path) + " has " + SizeText(size) + ", and no more than " +
                      SizeText(limit - run.size) + " are left for it: raise KEMD_KEEP_MIB";
        } else if (renameat(m_log.Get(), name, directory.Get(), name) != 0) {
            problem = Problem("move", path, errno);
        } else {
            run.size += size;
            ++moved;
        }
    }
    if (moved > 0) return problem;
    (void)unlinkat(m_runs.Get(), run.name.c_str(), AT_REMOVEDIR);
    run.name.clear();
    return problem;
}

std::string KeptRuns::Keep(uint64_t limit, KeptRun& run) {
    run = {};
    m_log.Reset(open(m_logPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!m_log.IsOpen()) return Problem("open", m_logPath, errno);
    uint64_t bytes = 0;
    if (SumUp(m_log.Get(), bytes) == 0) return {};
    std::string problem = Make();
    if (!problem.empty()) return problem;
    UniqueFd directory;
    problem = MakeRun(directory, run.name);
    if (problem.empty()) return Move(directory, limit, run);
    run.name.clear();
    return problem;
}

bool KeptRuns::Remove(const std::string& name) {
    const UniqueFd run = OpenDirectory(m_runs.Get(), name);
    for (const char* const file : kTraceFileNames) {
        uint64_t size = 0;
        if (IsFile(run.Get(), file, size)) (void)unlinkat(run.Get(), file, 0);
    }
    return unlinkat(m_runs.Get(), name.c_str(), AT_REMOVEDIR) == 0;
}

std::vector<KeptRun>::iterator KeptRuns::NextToGo(std::vector<KeptRun>& runs) const {
    const auto neverRan = [this](const KeptRun& run) {
        return !HasRunMark(PathOf(run) + "/log.kemd", RunMark::Kind::kInitialised);
    };
    const auto first = std::find_if(runs.begin(), runs.end(), neverRan);
    const bool areSeveral = first != runs.end() && std::any_of(first + 1, runs.end(), neverRan);
    return areSeveral ? first : runs.begin();
}

std::string KeptRuns::Trim(uint64_t runs, uint64_t bytes, uint64_t freeBytes) {
    std::string problem;
    std::vector<KeptRun> kept = List();
    uint64_t sum = 0;
    for (const KeptRun& run : kept) sum += run.size;
    // Nothing is given up for space that would not suffice anyway.
    const uint64_t spare = kept.empty() ? 0 : sum - kept.back().size;
    if (FreeBytes() < freeBytes && FreeBytes() + spare < freeBytes) freeBytes = 0;
    while (kept.size() > 1 && (kept.size() > runs || sum > bytes || FreeBytes() < freeBytes)) {
        const auto next = NextToGo(kept);
        if (!Remove(next->name)) problem = Problem("remove", PathOf(*next), errno);
        sum -= next->size;
        kept.erase(next);
    }
    return problem;
}

uint64_t KeptRuns::FreeBytes() const {
    struct statvfs status {};
    if (fstatvfs(m_log.Get(), &status) != 0) return UINT64_MAX;
    return static_cast<uint64_t>(status.f_bfree) * status.f_frsize;
}
