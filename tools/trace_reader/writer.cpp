#include "tools/trace_reader/writer.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
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
