#include "tools/kemdctl/output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "services/base/unique_fd.h"
#include "tools/kemdctl/command.h"
#include "tools/kemdctl/text.h"

int FileError(const char* action, const char* path) {
    const int error = errno;
    Complain("cannot %s %s: %s", action, Printable(path).c_str(),
             error == EINVAL ? "no regular file" : std::strerror(error));
    return kError;
}

bool WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0) return false;  // no signal is handled, so none interrupts
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

int WriteOutputFile(const char* path, mode_t mode,
                    const std::function<bool(const FileSink&)>& produce) {
    struct stat status {};
    // Renaming would replace a device or a pipe.
    if (stat(path, &status) == 0 && !S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return FileError("write", path);
    }
    std::string name = std::string(path) + ".XXXXXX";
    const UniqueFd file(mkostemp(name.data(), O_CLOEXEC));
    if (!file.IsOpen()) return FileError("write", path);
    const FileSink sink = [&file](std::string_view text) { return WriteAll(file.Get(), text); };
    if (produce(sink) && fchmod(file.Get(), mode) == 0 && fsync(file.Get()) == 0 &&
        rename(name.c_str(), path) == 0) {
        return kYes;
    }
    const int error = errno;
    unlink(name.c_str());
    errno = error;
    return FileError("write", path);
}
