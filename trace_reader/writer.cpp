#include "trace_reader/writer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

// Whether the process is there and only /proc keeps it from us: by its permissions, or as if there
// was no such process.
bool IsKeptFromUs(int process, const std::error_code& error) {
    if (error == std::errc::permission_denied) return true;
    return error && kill(process, 0) != 0 && errno == EPERM;
}

// Null: no file, only whether all can be seen.
Writing Look(int process, const TraceFile* file) {
    if (process <= 0) return Writing::kNo;
    std::error_code error;
    const std::string directory = "/proc/" + std::to_string(process) + "/fd";
    std::filesystem::directory_iterator entry(directory, error);
    bool isUnseen = IsKeptFromUs(process, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        struct stat status = {};
        if (stat(entry->path().c_str(), &status) != 0) {
            isUnseen = isUnseen || errno == EACCES;
        } else if (file != nullptr && file->IsSame(status)) {
            return Writing::kYes;
        }
    }
    return isUnseen ? Writing::kUnseen : Writing::kNo;
}

// Of the open file that an entry of /proc/PID/fd stands for; 0 when it is another one, or not for
// writing.
uint64_t PositionOf(const std::filesystem::path& entry, const TraceFile& file) {
    struct stat status = {};
    if (stat(entry.c_str(), &status) != 0 || !file.IsSame(status)) return 0;
    const std::filesystem::path process = entry.parent_path().parent_path();
    std::ifstream info(process / "fdinfo" / entry.filename());
    uint64_t position = 0;
    int flags = 0;
    std::string name;
    info >> name >> position >> name >> std::oct >> flags;
    return info && (flags & O_ACCMODE) != O_RDONLY ? position : 0;
}

}  // namespace

Writing SeeWriter(int process, const TraceFile& file) {
    return Look(process, &file);
}

bool IsWriter(int process, const TraceFile& file) {
    return Look(process, &file) == Writing::kYes;
}

bool HidesFiles(int process) {
    return Look(process, nullptr) == Writing::kUnseen;
}

// Of the open files only those with its name are looked at: asking for one of a server that does
// not answer would wait for it.
uint64_t WritePosition::Search(const TraceFile& file) {
    using Entries = std::filesystem::directory_iterator;
    std::error_code error;
    const auto name = std::filesystem::weakly_canonical(file.Path(), error).filename();
    for (Entries process("/proc", error); !error && process != Entries();
         process.increment(error)) {
        if (std::atoi(process->path().filename().c_str()) <= 0) continue;
        std::error_code hidden;
        for (Entries entry(process->path() / "fd", hidden); !hidden && entry != Entries();
             entry.increment(hidden)) {
            std::error_code gone;
            if (std::filesystem::read_symlink(entry->path(), gone).filename() != name) continue;
            m_descriptor = entry->path();
            if (const uint64_t position = PositionOf(m_descriptor, file)) return position;
        }
    }
    m_descriptor.clear();
    return 0;
}

uint64_t WritePosition::Find(const TraceFile& file) {
    using Clock = std::chrono::steady_clock;
    if (const uint64_t position = PositionOf(m_descriptor, file)) return position;
    if (file.IsCompressed() || Clock::now() < m_nextSearch) return 0;
    const uint64_t position = Search(file);
    if (position == 0) m_nextSearch = Clock::now() + std::chrono::seconds(1);
    return position;
}
