// Reads an open file line by line through a buffer of its own, without allocation.
//
// Lines are those of fgets with a buffer of 1,024 bytes: a line carries its line feed, the last one
// may lack it, and a line of more than 1,023 bytes comes in fragments. Bytes of value 0 are passed
// on.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

template <size_t kBufferSize>
class BasicLineReader {
  public:
    static constexpr size_t kMaxLine = 1023;

    // Starts at the descriptor's file position; does not own the descriptor.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the buffer is filled by reading
    explicit BasicLineReader(int fd) : m_fd(fd) {}

    // False at the end of the file and when it cannot be read on. The line is valid until the next
    // call.
    [[nodiscard]] bool Next(std::string_view& line) {
        for (;;) {
            const char* const start = m_buffer.data() + m_begin;
            const size_t window = std::min(m_end - m_begin, kMaxLine);
            const void* const feed = std::memchr(start, '\n', window);
            if (feed == nullptr && window < kMaxLine && !m_atEnd && Fill()) continue;
            const size_t length =
                feed == nullptr ? window
                                : static_cast<size_t>(static_cast<const char*>(feed) - start) + 1;
            line = {m_buffer.data() + m_begin, length};
            m_begin += length;
            m_position += static_cast<off_t>(length);
            return length > 0;
        }
    }
    // How many bytes the lines so far had.
    [[nodiscard]] off_t Position() const { return m_position; }
    // Whether Next ended on an error instead of the end of the file.
    [[nodiscard]] bool HasFailed() const { return m_error != 0; }
    // The errno of that; 0 when there was none.
    [[nodiscard]] int Error() const { return m_error; }

  private:
    // Reads more after what is there; false when there is no more.
    bool Fill() {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
        // Not until the buffer is full: the next line of a pipe is wanted when it is there.
        const ssize_t count =
            TEMP_FAILURE_RETRY(read(m_fd, m_buffer.data() + m_end, m_buffer.size() - m_end));
        if (count < 0) m_error = errno;
        m_atEnd = count <= 0;
        if (m_atEnd) return false;
        m_end += static_cast<size_t>(count);
        return true;
    }

    int m_fd;
    int m_error = 0;
    bool m_atEnd = false;  // of the file, or where it cannot be read on
    size_t m_begin = 0;    // of what is not taken yet
    size_t m_end = 0;
    off_t m_position = 0;
    std::array<char, kBufferSize> m_buffer;
};

using LineReader = BasicLineReader<size_t{32} * 1024>;
// For threads with little stack.
using SmallLineReader = BasicLineReader<4096>;
