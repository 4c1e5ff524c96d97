// One open trace file, plain or compressed. It is read and never mapped: a file that another
// process makes shorter meanwhile just ends earlier.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

class TraceFile {
  public:
    // The largest ring there can be. A compressed file is unpacked into memory up to this size.
    static constexpr uint64_t kLimit = uint64_t{1} << 31;
    static constexpr uint64_t npos = UINT64_MAX;  // NOLINT(readability-identifier-naming)

    // False when nothing of it can be read; Error says why. Of a damaged compressed file there is
    // what could be unpacked, and Error says so.
    [[nodiscard]] bool Open(const std::string& path);
    // For a copy: an empty file in memory. False when there is no memory.
    [[nodiscard]] bool OpenMemory();

    [[nodiscard]] bool IsOpen() const { return m_fd.IsOpen(); }
    [[nodiscard]] bool IsCompressed() const { return m_isCompressed; }
    [[nodiscard]] const std::string& Path() const { return m_path; }
    // As it is now.
    [[nodiscard]] uint64_t Size() const;
    // Whether the name now leads to another file or to none.
    [[nodiscard]] bool IsReplaced() const;
    // Whether both are the same file.
    [[nodiscard]] bool IsSame(const struct stat& other) const;

    // The first failure of opening, unpacking or reading, in a few words; empty when there was
    // none.
    [[nodiscard]] const std::string& Error() const { return m_error; }
    // Whether the last failed read failed at this offset: the file does not end there.
    [[nodiscard]] bool FailedAt(uint64_t offset) const { return m_failedAt == offset; }

    // Reads up to `length` bytes from an offset; fewer only where the file ends or cannot be read.
    [[nodiscard]] size_t Read(uint64_t offset, char* to, size_t length) const;
    [[nodiscard]] std::string Read(uint64_t offset, size_t length) const;
    // False when there is no memory.
    [[nodiscard]] bool Write(uint64_t offset, std::string_view bytes);
    // Returns when a write that another process had begun is whole.
    void AwaitWrite() const;

    // The first occurrence of a text that lies within the range; the last one. npos: none.
    [[nodiscard]] uint64_t Find(std::string_view text, uint64_t begin, uint64_t end) const;
    [[nodiscard]] uint64_t FindLast(std::string_view text, uint64_t begin, uint64_t end) const;
    // After the next line feed; `end` when there is none.
    [[nodiscard]] uint64_t FindLineEnd(uint64_t begin, uint64_t end) const;
    // Where the line begins that this place is in.
    [[nodiscard]] uint64_t FindLineStart(uint64_t place) const;

  private:
    void NoteFailure(uint64_t offset, int error) const;
    void Unpack();
    [[nodiscard]] uint64_t UnpackedLimit(int packed) const;

    std::string m_path;
    UniqueFd m_fd;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    bool m_isCompressed = false;
    mutable std::string m_error;
    mutable uint64_t m_failedAt = npos;
};
