#include "services/profile/splice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <string>

namespace {

bool ReadAt(int fd, std::string& text, off_t offset) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t count =
            pread(fd, text.data() + done, text.size() - done, offset + static_cast<off_t>(done));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        done += static_cast<size_t>(count);
    }
    return true;
}

bool WriteAt(int fd, std::string_view text, off_t offset) {
    while (!text.empty()) {
        const ssize_t count = pwrite(fd, text.data(), text.size(), offset);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        text.remove_prefix(static_cast<size_t>(count));
        offset += count;
    }
    return true;
}

}  // namespace

bool SpliceFile(int fd, off_t start, off_t end, std::string_view text) try {
    struct stat status {};
    if (fstat(fd, &status) != 0 || start > end || end > status.st_size) return false;
    // From the start, not only from the end: a change that fails is taken back whole.
    std::string before(static_cast<size_t>(status.st_size - start), '\0');
    if (!ReadAt(fd, before, start)) return false;
    std::string after(text);
    after.append(before, static_cast<size_t>(end - start));
    if (WriteAt(fd, after, start) && ftruncate(fd, start + static_cast<off_t>(after.size())) == 0) {
        return true;
    }
    if (WriteAt(fd, before, start)) (void)!ftruncate(fd, status.st_size);
    return false;
} catch (const std::exception&) {
    return false;
}

bool AppendToFile(int fd, std::string_view text) {
    const size_t whole = text.size();
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        text.remove_prefix(static_cast<size_t>(count));
    }
    if (text.empty()) return true;
    // The piece that was written is taken back, unless others have written behind it.
    const auto written = static_cast<off_t>(whole - text.size());
    struct stat status {};
    const off_t end = lseek(fd, 0, SEEK_CUR);
    if (written > 0 && fstat(fd, &status) == 0 && status.st_size == end) {
        (void)!ftruncate(fd, end - written);
    }
    return false;
}
