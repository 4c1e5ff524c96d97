#include "tools/trace_reader/writer.h"

#include <filesystem>
#include <string>

bool IsWriter(int process, const TraceFile& file) {
    if (process <= 0) return false;
    std::error_code error;
    const std::string directory = "/proc/" + std::to_string(process) + "/fd";
    std::filesystem::directory_iterator entry(directory, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        struct stat status = {};
        if (stat(entry->path().c_str(), &status) == 0 && file.IsSame(status)) return true;
    }
    return false;
}
