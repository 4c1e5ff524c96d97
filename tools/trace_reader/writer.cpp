#include "tools/trace_reader/writer.h"

#include <fcntl.h>

#include <cerrno>
#include <csignal>
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

uint64_t WritePosition::Find(const TraceFile& file) {
    using Entries = std::filesystem::directory_iterator;
    if (const uint64_t position = PositionOf(m_descriptor, file)) return position;
    std::error_code error;
    for (Entries process("/proc", error); !error && process != Entries();
         process.increment(error)) {
        if (std::atoi(process->path().filename().c_str()) <= 0) continue;
        std::error_code hidden;
        for (Entries entry(process->path() / "fd", hidden); !hidden && entry != Entries();
             entry.increment(hidden)) {
            m_descriptor = entry->path();
            if (const uint64_t position = PositionOf(m_descriptor, file)) return position;
        }
    }
    m_descriptor.clear();
    return 0;
}
