#include "trace_reader/trace_file.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "base/file_io.h"
#include "trace/texts.h"

namespace {

constexpr uint64_t kFirstPiece = uint64_t{1} << 20;
constexpr uint64_t kFirstBlock = uint64_t{1} << 14;

uint64_t Longer(uint64_t length) {
    return std::min(2 * length, kFirstPiece);
}

// Starts "gzip -dc" from `in` to `out`; -1, with errno, when that fails.
pid_t StartGzip(int in, int out) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    errno = posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    if (errno == 0) errno = posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    if (errno == 0)
        errno = posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    // What the caller ignores (a broken pipe) must end the program.
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    std::array<char, 5> name{"gzip"};
    std::array<char, 4> option{"-dc"};
    const std::array<char*, 3> arguments = {name.data(), option.data(), nullptr};
    char* const environment[] = {nullptr};
    pid_t child = -1;
    int error = errno != 0 ? errno : ENOENT;
    // Not by PATH, for root's sake.
    for (const char* path : {"/usr/bin/gzip", "/bin/gzip"}) {
        if (error != ENOENT) break;
        error = posix_spawn(&child, path, &actions, &attributes, arguments.data(), environment);
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    errno = error;
    return error == 0 ? child : -1;
}

}  // namespace

bool TraceFile::Open(const std::string& path) {
    m_path = path;
    m_isCompressed = false;
    m_error.clear();
    // A pipe or a terminal must not make it wait.
    m_fd.Reset(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!m_fd.IsOpen() || fstat(m_fd.Get(), &status) != 0) {
        m_error = std::strerror(errno);
    } else if (!S_ISREG(status.st_mode)) {
        m_error = "not a regular file";
    }
    if (!m_error.empty()) m_fd.Reset();
    if (!m_fd.IsOpen()) return false;
    m_device = status.st_dev;
    m_inode = status.st_ino;
    if (Read(0, 2) == "\x1f\x8b") Unpack();
    return m_fd.IsOpen();
}

bool TraceFile::OpenMemory() {
    m_path.clear();
    m_isCompressed = false;
    m_fd.Reset(memfd_create("trace", MFD_CLOEXEC));
    return m_fd.IsOpen();
}

void TraceFile::Unpack() {
    constexpr size_t kPipe = size_t{1} << 16;
    const UniqueFd packed = std::move(m_fd);
    const auto block = std::make_unique<char[]>(kPipe);
    std::array<int, 2> ends{-1, -1};
    m_isCompressed = true;
    m_fd.Reset(memfd_create("trace", MFD_CLOEXEC));
    const bool isReady = m_fd.IsOpen() && pipe2(ends.data(), O_CLOEXEC) == 0;
    UniqueFd from(ends[0]), to(ends[1]);
    const pid_t child = isReady ? StartGzip(packed.Get(), to.Get()) : -1;
    if (child < 0) {
        const int error = errno;
        m_error = std::string("cannot be unpacked: ") +
                  (error == ENOENT ? "gzip is needed" : std::strerror(error));
        m_fd.Reset();
        return;
    }
    to.Reset();
    // The first block shows how large the file may get.
    uint64_t size = 0, limit = kFirstPiece;
    while (size <= limit) {
        const ReadResult got = ReadFully(from.Get(), block.get(), kPipe);
        if (!Write(size, {block.get(), got.count}) || got.error != 0) {
            const int error = got.error != 0 ? got.error : errno;
            m_error = std::string("unpacked in part only: ") + std::strerror(error);
            break;
        }
        size += got.count;
        if (got.count < kPipe) break;
        if (size > limit && limit == kFirstPiece) limit = UnpackedLimit(packed.Get());
    }
    from.Reset();  // ends a gzip that still writes
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    if (size > limit) {
        m_error = "unpacks to more than a ring can hold";
    } else if (status != 0 && m_error.empty()) {
        m_error = "compressed data is damaged or cut";
    }
}

// Text does not become smaller than a small part, but the pre-fill of a ring does: its header, at
// the start of the file, says how large it is.
uint64_t TraceFile::UnpackedLimit(int packed) const {
    constexpr uint64_t kTextRatio = 64;
    struct stat status = {};
    (void)fstat(packed, &status);
    const auto packedSize = static_cast<uint64_t>(status.st_size);
    const std::string text = Read(0, kFirstPiece);
    const size_t found = text.find(trace_text::kRingSize);
    const char* const number = text.c_str() + found + trace_text::kRingSize.size();
    const uint64_t ring = found == text.npos ? 0 : std::strtoull(number, nullptr, 10);
    const uint64_t limit = std::max(ring, packedSize * kTextRatio);
    return std::clamp(limit, kFirstPiece, kLimit - trace_text::kPreFillLine) +
           trace_text::kPreFillLine;
}

uint64_t TraceFile::Size() const {
    struct stat status = {};
    return fstat(m_fd.Get(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

bool TraceFile::IsSame(const struct stat& other) const {
    return m_device == other.st_dev && m_inode == other.st_ino;
}

bool TraceFile::IsReplaced() const {
    struct stat status = {};
    return stat(m_path.c_str(), &status) != 0 || !IsSame(status);
}

void TraceFile::NoteFailure(uint64_t offset, int error) const {
    m_failedAt = offset;
    if (!m_error.empty()) return;
    m_error = "cannot be read at byte " + std::to_string(offset) + ": " + std::strerror(error);
}

size_t TraceFile::Read(uint64_t offset, char* to, size_t length) const {
    const ReadResult got = ReadFullyAt(m_fd.Get(), to, length, static_cast<off_t>(offset));
    if (got.error != 0) NoteFailure(offset + got.count, got.error);
    return got.count;
}

std::string TraceFile::Read(uint64_t offset, size_t length) const {
    const uint64_t size = Size();
    std::string text(offset < size ? std::min<uint64_t>(length, size - offset) : 0, '\0');
    text.resize(Read(offset, text.data(), text.size()));
    return text;
}

bool TraceFile::Write(uint64_t offset, std::string_view bytes) {
    return WriteFullyAt(m_fd.Get(), bytes, static_cast<off_t>(offset));
}

// Reads of some file systems see a write page by page. Looking for a hole takes the lock that a
// write holds.
void TraceFile::AwaitWrite() const {
    (void)lseek(m_fd.Get(), 0, SEEK_HOLE);
}

uint64_t TraceFile::Find(std::string_view text, uint64_t begin, uint64_t end) const {
    // Blocks overlap, so that an occurrence across two of them is not missed. The first ones are
    // small: often the next occurrence is near. What cannot be read is passed over.
    uint64_t length = kFirstBlock;
    for (uint64_t at = begin; at + text.size() <= end;
         at += std::exchange(length, Longer(length))) {
        const std::string block = Read(at, std::min<uint64_t>(length + text.size() - 1, end - at));
        const void* found = memmem(block.data(), block.size(), text.data(), text.size());
        if (found != nullptr) {
            return at + static_cast<uint64_t>(static_cast<const char*>(found) - block.data());
        }
        if (at + block.size() >= Size()) break;
    }
    return npos;
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
    return npos;
}

uint64_t TraceFile::FindLineEnd(uint64_t begin, uint64_t end) const {
    const uint64_t feed = Find("\n", begin, end);
    return feed == npos ? end : feed + 1;
}

uint64_t TraceFile::FindLineStart(uint64_t place) const {
    const uint64_t feed = FindLast("\n", 0, place);
    return feed == npos ? 0 : feed + 1;
}
