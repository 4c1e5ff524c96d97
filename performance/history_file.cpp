#include "performance/history_file.h"

#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "base/file_io.h"

namespace {

constexpr mode_t kFileMode = 0644;
constexpr mode_t kDirectoryMode = 0755;

// Whatever the process's umask is.
void MakeDirectory(const std::string& path) {
    const std::string directory = std::filesystem::path(path).parent_path();
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(directory).parent_path(), ignored);
    if (mkdir(directory.c_str(), kDirectoryMode) == 0)
        (void)chmod(directory.c_str(), kDirectoryMode);
}

UniqueFd OpenOrMake(const std::string& path, int flags) {
    UniqueFd fd = OpenRegularFile(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | flags, kFileMode);
    if (fd.IsOpen()) (void)fchmod(fd.Get(), kFileMode);
    return fd;
}

}  // namespace

int HistoryFile::Lock() {
    return flock(m_fd.Get(), LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
}

HistoryFile::State HistoryFile::ReadHead(std::string& error) {
    const ReadResult got = ReadFullyAt(m_fd.Get(), &m_head, sizeof m_head, 0);
    if (got.error != 0) {
        error = std::strerror(got.error);
        return State::kHistory;
    }
    // The head is written last: a run that was killed before leaves zeros.
    const bool isEmpty = std::all_of(m_head.magic.begin(), m_head.magic.end(),
                                     [](char letter) { return letter == '\0'; });
    if (got.count == 0 || (got.count == sizeof m_head && isEmpty)) return State::kEmpty;
    const std::string wrong =
        got.count < sizeof m_head ? "too short for a history" : CheckFileHead(m_head);
    if (wrong.empty()) return State::kHistory;
    error = wrong;
    const bool isNewer =
        got.count == sizeof m_head && m_head.version > kHistoryVersion &&
        std::string_view(m_head.magic.data(), m_head.magic.size()) == kHistoryMagic;
    return isNewer ? State::kHistory : State::kOther;
}

int HistoryFile::Reserve(const std::string& host, uint64_t size) {
    m_head = MakeFileHead(size, host);
    int failed = EINTR;
    // Where the file system cannot reserve, the library writes into each block.
    while (failed == EINTR)
        failed = posix_fallocate(m_fd.Get(), 0, static_cast<off_t>(m_head.size));
    if (failed != 0) return failed;
    if (!WriteFullyAt(m_fd.Get(), {reinterpret_cast<const char*>(&m_head), sizeof m_head}, 0)) {
        return errno;
    }
    return fdatasync(m_fd.Get()) == 0 ? 0 : errno;
}

int HistoryFile::Map() {
    // A file that was cut would end the process at the first access beyond its end.
    int failed = EINTR;
    while (failed == EINTR)
        failed = posix_fallocate(m_fd.Get(), 0, static_cast<off_t>(m_head.size));
    if (failed != 0) return failed;
    return m_mapping.MapShared(m_fd.Get(), m_head.size) ? 0 : errno;
}

bool HistoryFile::SetAside(std::string& wrong, std::string& findings) {
    const std::string aside = m_path + ".bad";
    if (std::rename(m_path.c_str(), aside.c_str()) != 0) {
        wrong += std::string(", and cannot be set aside: ") + std::strerror(errno);
        return false;
    }
    findings += m_path;
    findings += ": " + wrong + "; it is now " + aside + "\n";
    wrong.clear();
    return true;
}

HistoryFile::State HistoryFile::OpenOnce(const HistorySettings& settings, std::string& error) {
    m_path = settings.path;
    m_fd = OpenOrMake(m_path, 0);
    int failed = m_fd.IsOpen() ? Lock() : errno;
    if (failed == EWOULDBLOCK) {
        error = "another process is writing this history";
    } else if (failed != 0) {
        error = std::strerror(failed);
    }
    if (failed != 0) return State::kHistory;
    const State state = ReadHead(error);
    if (!error.empty()) return state;
    if (state == State::kEmpty) failed = Reserve(settings.host, settings.size);
    if (failed == 0) failed = Map();
    if (failed == 0) return state;
    // A file without a head is no use to anyone, and the disk is full.
    if (state == State::kEmpty) unlink(m_path.c_str());
    error = "its " + std::to_string(settings.size >> 20) +
            " MiB cannot be reserved: " + std::strerror(failed);
    return state;
}

std::unique_ptr<HistoryFile> HistoryFile::Open(const HistorySettings& settings,
                                               std::string& findings, std::string& error) {
    std::string wrong;
    if (settings.size < kLeastHistory) wrong = "a history needs at least 1 MiB";
    if (wrong.empty()) MakeDirectory(settings.path);
    for (int attempt = 0; attempt < 2 && wrong.empty(); ++attempt) {
        auto file = std::make_unique<HistoryFile>();
        const State state = file->OpenOnce(settings, wrong);
        if (wrong.empty()) return file;
        if (state != State::kOther || !file->SetAside(wrong, findings)) break;
    }
    if (wrong.empty()) wrong = "is replaced again and again by another process";
    error = settings.path + ": " + wrong;
    return nullptr;
}

std::unique_ptr<HistoryFile> HistoryFile::MakeOther(const HistorySettings& settings,
                                                    std::string& findings) {
    auto file = std::make_unique<HistoryFile>();
    file->m_path = settings.path + ".new";
    file->m_fd = OpenOrMake(file->m_path, O_TRUNC);
    int failed = file->m_fd.IsOpen() ? file->Lock() : errno;
    if (failed == 0) failed = file->Reserve(settings.host, settings.size);
    if (failed == 0) failed = file->Map();
    if (failed == 0) return file;
    unlink(file->m_path.c_str());
    findings += settings.path + ": keeps its size, " + std::to_string(settings.size >> 20) +
                " MiB cannot be reserved: " + std::strerror(failed) + "\n";
    return nullptr;
}

int HistoryFile::Replace(const std::string& path) {
    if (fdatasync(m_fd.Get()) != 0 || std::rename(m_path.c_str(), path.c_str()) != 0) {
        const int failed = errno;
        unlink(m_path.c_str());
        return failed;
    }
    m_path = path;
    return 0;
}

std::span<uint8_t> HistoryFile::Bytes(uint32_t area) const {
    const AreaPlace& place = m_head.areas[area];
    return {reinterpret_cast<uint8_t*>(m_mapping.Data()) + place.offset, place.size};
}
