#include "performance/source.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr size_t kLeastRoom = 4096;  // the kernel's part of a file with parts

}  // namespace

bool SourceFile::Start(SampleContext& context) {
    m_size = 0;
    if (!m_fd.IsOpen()) {
        if (context.now < m_retryAt) return false;
        const int fd = open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (fd < 0) {
            Fail(context, errno);
            return false;
        }
        m_fd.Reset(KeepHigh(fd));
    }
    if (!Append(context)) return false;
    if (m_size == 0) {
        Fail(context, ENODATA);
        return false;
    }
    m_error = 0;
    return true;
}

bool SourceFile::Append(SampleContext& context) {
    if (context.buffer.size() - m_size < kLeastRoom)
        context.buffer.resize(context.buffer.size() * 2);
    ssize_t count = 0;
    do {
        count = pread(m_fd.Get(), context.buffer.data() + m_size, context.buffer.size() - m_size,
                      static_cast<off_t>(m_size));
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        const int error = errno;
        Fail(context, error);
        return false;
    }
    m_size += static_cast<size_t>(count);
    return true;
}

void SourceFile::Fail(const SampleContext& context, int error) {
    m_fd.Reset();
    m_size = 0;
    // What was readable before may be again at once.
    m_retryAt = m_error == 0 ? context.now : context.now + kRareNs;
    m_error = error;
}

std::string_view SourceFile::Read(SampleContext& context) {
    if (!Start(context)) return {};
    for (size_t before = 0; m_hasParts || m_size == context.buffer.size();) {
        before = m_size;
        if (!Append(context)) return {};
        if (m_size == before) break;
    }
    return Text(context);
}

std::string_view SourceFile::ReadMore(SampleContext& context) {
    return Append(context) ? Text(context) : "";
}

void SourceFile::AddNote(std::vector<std::string>& notes, const char* series) const {
    if (m_error == 0) return;
    notes.push_back(m_path + ": " + std::strerror(m_error) + ": no " + series);
}

SeriesTable::Index AddSeries(SeriesTable& table, const SeriesRow& row, const std::string& labels) {
    return table.Add(
        {row.name, labels, row.unit, row.help, row.kind, row.isReal, row.multiply, row.divide});
}
