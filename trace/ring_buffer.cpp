#include "trace/ring_buffer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "base/cancel_guard.h"
#include "base/file_io.h"

namespace {

bool IsPlain(std::string_view path) {
    constexpr std::string_view kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+,:@%=";
    return path.find_first_not_of(kPlain) == path.npos && !path.starts_with('-');
}

std::string Quote(std::string_view path) {
    std::string quoted = path.starts_with('-') ? "'./" : "'";  // a name, not an option
    for (const char c : path) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

// Quoted where the path has anything but plain characters, so that the name of a directory can
// never run a command.
std::string CompressCommand(const char* path) {
    return "gzip -f " + (IsPlain(path) ? path : Quote(path)) + " 2>/dev/null";
}

}  // namespace

bool RingBuffer::Create(const char* path) {
    Close();
    errno = 0;
    m_fd = OpenRegularFile(path, O_RDWR | O_CREAT | O_TRUNC, 0700);
    m_fd.Reset(KeepHigh(m_fd.Release()));
    return m_fd.IsOpen();
}

bool RingBuffer::Fill(std::string_view lines) {
    size_t written = 0;
    const bool isWhole = WriteFully(m_fd.Get(), lines, &written);
    m_fileSize += static_cast<off_t>(written);
    return isWhole;
}

bool RingBuffer::Map(size_t size) {
    errno = 0;
    return m_map.MapShared(m_fd.Get(), size);
}

void RingBuffer::WakeNow(const timeval& now) {
    timeval passed{};
    timersub(&now, &m_lastWake, &passed);
    if (passed.tv_sec == 0 && passed.tv_usec < kWakePause) return;
    m_lastWake = now;
    const CancelGuard guard;
    const int saved = errno;
    (void)!ftruncate(m_fd.Get(), m_fileSize);
    errno = saved;
}

void RingBuffer::Close() {
    m_map.Unmap();
    m_fd.Reset();
    m_fileSize = 0;
    m_writeOffset = 0;
    m_restartOffset = 0;
    m_wrapCount = 0;
}

void RingBuffer::Discard() {
    (void)!ftruncate(m_fd.Get(), 0);
    Close();
}

bool RingBuffer::Append(std::string_view record) {
    if (m_writeOffset + record.size() + kTrailer.size() > m_map.Size()) return false;
    char* to = m_map.Data() + m_writeOffset;
    std::memcpy(to, record.data(), record.size());
    std::memcpy(to + record.size(), kTrailer.data(), kTrailer.size());
    m_writeOffset += record.size();
    return true;
}

void RingBuffer::EndHeader() {
    // A header that fills the file (a command line of megabytes) still leaves room for a record.
    const size_t last = m_map.Size() - std::min(m_map.Size(), 2 * kAlignment);
    m_writeOffset = std::min(m_writeOffset + 2 * kAlignment, last);
    m_writeOffset -= m_writeOffset % kAlignment;
}

void RingBuffer::BeginCycle() {
    std::memset(m_map.Data() + m_writeOffset, '.', m_map.Size() - m_writeOffset);
    ++m_wrapCount;
    m_writeOffset = 0;
}

void RingBuffer::Resume(std::string_view record) {
    m_writeOffset = m_restartOffset;
    if (Append(record)) return;
    const size_t room = m_map.Size() - m_writeOffset;
    if (room <= kTrailer.size()) return;
    const std::string_view head = record.substr(0, room - kTrailer.size() - 1);
    std::memcpy(m_map.Data() + m_writeOffset, head.data(), head.size());
    m_writeOffset += head.size();
    (void)Append("\n");
}

bool CompressFile(const char* path) try {
    FILE* gzip = popen(CompressCommand(path).c_str(), "re");
    if (gzip == nullptr) return false;
    (void)pclose(gzip);
    return true;
} catch (const std::exception&) {
    return false;
}
