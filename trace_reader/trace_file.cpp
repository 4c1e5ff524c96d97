#include "trace_reader/trace_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "trace_reader/prefix.h"
#include "trace_reader/unpack_gzip.h"

namespace {

constexpr uint64_t kBlock = uint64_t{1} << 20;
constexpr uint64_t kFirstBlock = uint64_t{1} << 14;

uint64_t Longer(uint64_t length) {
    return std::min(2 * length, kBlock);
}

// What the header at the start of a file says about its size. A log says nothing: it is text, which
// does not become smaller than a small part.
uint64_t UnpackedLimit(int fd, uint64_t packedSize) {
    constexpr std::string_view kLabel = "Ring Buffer Size           : ";
    constexpr std::string_view kFill = "____________________\n";
    constexpr uint64_t kPreFillLine = 1024;
    constexpr uint64_t kTextRatio = 64;
    std::string text(kBlock, '\0');
    text.resize(static_cast<size_t>(std::max<ssize_t>(pread(fd, text.data(), text.size(), 0), 0)));
    if (PrefixParser().ParseHead(text.data(), text.size()).isThere == 0) return kBlock;
    const size_t found = text.find(kLabel);
    // Behind the header of a ring is its slack.
    const bool isRing = found != text.npos && text.find(kFill, found) != text.npos;
    if (!isRing) return std::clamp(packedSize * kTextRatio, kBlock, TraceFile::kLimit);
    const auto size = std::strtoull(text.c_str() + found + kLabel.size(), nullptr, 10);
    return std::min<uint64_t>(size, TraceFile::kLimit - kPreFillLine) + kPreFillLine;
}

}  // namespace

std::string TraceFile::Open(const std::string& path) {
    m_path = path;
    m_isCompressed = false;
    // A pipe or a terminal must not make it wait.
    m_fd.Reset(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!m_fd.IsOpen() || fstat(m_fd.Get(), &status) != 0) return std::strerror(errno);
    if (!S_ISREG(status.st_mode)) {
        m_fd.Reset();
        return "not a regular file";
    }
    m_device = status.st_dev;
    m_inode = status.st_ino;
    return Read(0, 2) == "\x1f\x8b" ? Unpack() : "";
}

std::string TraceFile::Unpack() {
    // A first look keeps what is no ring, or longer than its own header says, out of memory.
    Unpacked unpacked = UnpackGzip(m_fd.Get(), kBlock);
    m_isCompressed = true;
    if (unpacked.isTooLong)
        unpacked = UnpackGzip(m_fd.Get(), UnpackedLimit(unpacked.file.Get(), Size()));
    m_fd = std::move(unpacked.file);
    if (!m_fd.IsOpen()) return "cannot be unpacked: gzip is needed";
    if (unpacked.isTooLong) return "unpacks to more than a ring can hold";
    return unpacked.isDamaged ? "compressed data is damaged or cut" : "";
}

uint64_t TraceFile::Size() const {
    struct stat status = {};
    return fstat(m_fd.Get(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

int64_t TraceFile::Modified() const {
    struct stat status = {};
    if (fstat(m_fd.Get(), &status) != 0) return 0;
    return int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
}

bool TraceFile::IsSame(const struct stat& other) const {
    return m_device == other.st_dev && m_inode == other.st_ino;
}

bool TraceFile::IsReplaced() const {
    struct stat status = {};
    return stat(m_path.c_str(), &status) != 0 || !IsSame(status);
}

size_t TraceFile::Read(uint64_t offset, char* to, size_t length) const {
    size_t done = 0;
    while (done < length) {
        const ssize_t got =
            pread(m_fd.Get(), to + done, length - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<size_t>(got);
    }
    return done;
}

std::string TraceFile::Read(uint64_t offset, size_t length) const {
    const uint64_t size = Size();
    std::string text(offset < size ? std::min<uint64_t>(length, size - offset) : 0, '\0');
    text.resize(Read(offset, text.data(), text.size()));
    return text;
}

bool TraceFile::OpenMemory() {
    m_path.clear();
    m_isCompressed = false;
    m_fd.Reset(memfd_create("trace", MFD_CLOEXEC));
    return m_fd.IsOpen();
}

bool TraceFile::Write(uint64_t offset, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t done =
            pwrite(m_fd.Get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        offset += static_cast<uint64_t>(done);
        bytes.remove_prefix(static_cast<size_t>(done));
    }
    return true;
}

// Reads of some file systems see a write page by page. Looking for a hole takes the lock that a
// write holds.
void TraceFile::AwaitWrite() const {
    (void)lseek(m_fd.Get(), 0, SEEK_HOLE);
}

uint64_t TraceFile::Find(std::string_view text, uint64_t begin, uint64_t end) const {
    // Blocks overlap, so that an occurrence across two of them is not missed. The first ones are
    // small: often the next occurrence is near.
    uint64_t length = kFirstBlock;
    for (uint64_t at = begin; at + text.size() <= end;
         at += std::exchange(length, Longer(length))) {
        const std::string block = Read(at, std::min<uint64_t>(length + text.size() - 1, end - at));
        if (block.size() < text.size()) break;
        const void* found = memmem(block.data(), block.size(), text.data(), text.size());
        if (found != nullptr) {
            return at + static_cast<uint64_t>(static_cast<const char*>(found) - block.data());
        }
    }
    return kNowhere;
}

uint64_t TraceFile::FindLast(std::string_view text, uint64_t begin, uint64_t end) const {
    uint64_t length = kFirstBlock;
    for (uint64_t last = end; last > begin; length = Longer(length)) {
        const uint64_t at = last - std::min<uint64_t>(length, last - begin);
        const std::string block =
            Read(at, std::min<uint64_t>(last - at + text.size() - 1, end - at));
        const size_t found = block.rfind(text);
        if (found != block.npos) return at + found;
        last = at;
    }
    return kNowhere;
}
