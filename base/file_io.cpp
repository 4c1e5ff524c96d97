#include "base/file_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

// Calls `transfer(done)` until `size` bytes are done, nothing more comes, or it fails with errno.
template <typename Transfer>
static size_t Repeat(size_t size, const Transfer& transfer) {
    const int saved = std::exchange(errno, 0);
    size_t done = 0;
    while (done < size) {
        const ssize_t count = transfer(done);
        if (count < 0 && errno == EINTR) {
            errno = 0;
            continue;
        }
        if (count <= 0) break;
        done += static_cast<size_t>(count);
    }
    if (done == size) errno = saved;
    return done;
}

ReadResult ReadFully(int fd, void* buffer, size_t size) {
    char* const bytes = static_cast<char*>(buffer);
    const size_t count =
        Repeat(size, [&](size_t done) { return read(fd, bytes + done, size - done); });
    return {count, count < size ? errno : 0};
}

ReadResult ReadFullyAt(int fd, void* buffer, size_t size, off_t offset) {
    char* const bytes = static_cast<char*>(buffer);
    const size_t count = Repeat(size, [&](size_t done) {
        return pread(fd, bytes + done, size - done, offset + static_cast<off_t>(done));
    });
    return {count, count < size ? errno : 0};
}

bool WriteFully(int fd, std::string_view bytes, size_t* written) {
    const size_t count = Repeat(bytes.size(), [&](size_t done) {
        return write(fd, bytes.data() + done, bytes.size() - done);
    });
    if (written != nullptr) *written = count;
    return count == bytes.size();
}

bool WriteFullyAt(int fd, std::string_view bytes, off_t offset) {
    const size_t count = Repeat(bytes.size(), [&](size_t done) {
        return pwrite(fd, bytes.data() + done, bytes.size() - done,
                      offset + static_cast<off_t>(done));
    });
    return count == bytes.size();
}

UniqueFd OpenRegularFile(const char* path, int flags, mode_t mode) {
    UniqueFd file(open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return {};
    if (S_ISREG(status.st_mode)) return file;
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return {};
}

std::optional<std::string> ReadTextFile(const std::string& path, size_t limit) {
    const UniqueFd file = OpenRegularFile(path.c_str(), O_RDONLY);
    if (!file.IsOpen()) return std::nullopt;
    constexpr size_t kStep = 4096;
    std::string text;
    ReadResult got;
    do {
        const size_t start = text.size();
        text.resize(std::min(start + kStep, limit));
        got = ReadFully(file.Get(), text.data() + start, text.size() - start);
        text.resize(start + got.count);
    } while (got.count == kStep && text.size() < limit);
    if (got.error == 0) return text;
    errno = got.error;
    return std::nullopt;
}
