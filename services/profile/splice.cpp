#include "services/profile/splice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <string>

#include "base/file_io.h"

namespace {

bool ReadAt(int fd, std::string& text, off_t offset) {
    return ReadFullyAt(fd, text.data(), text.size(), offset).count == text.size();
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
    if (WriteFullyAt(fd, after, start) &&
        ftruncate(fd, start + static_cast<off_t>(after.size())) == 0) {
        return true;
    }
    if (WriteFullyAt(fd, before, start)) (void)!ftruncate(fd, status.st_size);
    return false;
} catch (const std::exception&) {
    return false;
}

bool AppendToFile(int fd, std::string_view text) {
    size_t written = 0;
    if (WriteFully(fd, text, &written)) return true;
    // What was written is taken back, unless others have appended since.
    struct stat status {};
    const off_t end = lseek(fd, 0, SEEK_CUR);
    if (written > 0 && fstat(fd, &status) == 0 && status.st_size == end) {
        (void)!ftruncate(fd, end - static_cast<off_t>(written));
    }
    return false;
}
