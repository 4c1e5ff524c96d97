#include "trace/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>

#include "base/file_io.h"

// An administrator links the log to it to have none.
static bool IsNullDevice(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

bool LogFile::Open(const char* path) {
    Close();
    if (IsNullDevice(path)) {
        m_fd.Reset(open(path, O_RDWR | O_CLOEXEC));
    } else {
        m_fd = OpenRegularFile(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
    }
    m_fd.Reset(KeepHigh(m_fd.Release()));
    return IsOpen();
}

void LogFile::Close() {
    m_fd.Reset();
    m_startupOffset = 0;
    m_startupCount = 0;
    m_count = 0;
    m_cycle = 0;
}

bool LogFile::Append(std::string_view record) {
    size_t written = 0;
    const bool isWhole = WriteFully(m_fd.Get(), record, &written);
    m_count += written;
    return isWhole && m_count > m_limit;
}

void LogFile::MarkStartupEnd() {
    if (!IsOpen()) return;
    m_startupOffset = lseek(m_fd.Get(), 0, SEEK_CUR);
    m_startupCount = m_count;
}

bool LogFile::BeginCycle() {
    errno = 0;
    const bool moved = lseek(m_fd.Get(), m_startupOffset, SEEK_SET) >= 0;
    if (!moved) {
        const int saved = errno;
        (void)lseek(m_fd.Get(), 0, SEEK_SET);
        errno = saved;
    }
    m_count = m_startupCount;
    ++m_cycle;
    return moved;
}
