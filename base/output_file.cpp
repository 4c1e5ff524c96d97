#include "base/output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

OutputFile::~OutputFile() {
    const int saved = errno;
    if (!m_name.empty()) unlink(m_name.c_str());
    errno = saved;
}

bool OutputFile::Open() {
    struct stat status {};
    // Renaming would replace a device or a pipe.
    if (stat(m_path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return false;
    }
    std::string name = m_path + ".XXXXXX";
    m_fd.Reset(mkostemp(name.data(), O_CLOEXEC));
    if (m_fd.IsOpen()) m_name = name;
    return m_fd.IsOpen();
}

bool OutputFile::Commit() {
    if (fchmod(m_fd.Get(), m_mode) != 0 || fsync(m_fd.Get()) != 0 ||
        rename(m_name.c_str(), m_path.c_str()) != 0) {
        return false;
    }
    m_name.clear();
    return true;
}
