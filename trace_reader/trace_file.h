// One open trace file, plain or compressed. It is read and never mapped: a file that another
// process makes shorter meanwhile just ends earlier.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "services/base/unique_fd.h"

class TraceFile {
  public:
    // The largest ring there can be. A compressed file is unpacked into memory up to this size.
    static constexpr uint64_t kLimit = uint64_t{1} << 31;

    // A problem in a few words, empty when all is well. With some (a damaged compressed file) what
    // could be read is there all the same.
    [[nodiscard]] std::string Open(const std::string& path);

    [[nodiscard]] bool IsOpen() const { return m_fd.IsOpen(); }
    [[nodiscard]] bool IsCompressed() const { return m_isCompressed; }
    [[nodiscard]] const std::string& Path() const { return m_path; }
    // As it is now.
    [[nodiscard]] uint64_t Size() const;
    // When it was last written through a descriptor, nanoseconds since the epoch.
    [[nodiscard]] int64_t Modified() const;
    // Whether the name now leads to another file or to none.
    [[nodiscard]] bool IsReplaced() const;
    // Whether both are the same file.
    [[nodiscard]] bool IsSame(const struct stat& other) const;

    // Reads up to `length` bytes from an offset; fewer only where the file ends.
    [[nodiscard]] size_t Read(uint64_t offset, char* to, size_t length) const;
    [[nodiscard]] std::string Read(uint64_t offset, size_t length) const;

    // For a copy: an empty file in memory, and bytes for it. False when there is no memory.
    [[nodiscard]] bool OpenMemory();
    [[nodiscard]] bool Write(uint64_t offset, std::string_view bytes);
    // Returns when a write that another process had begun is whole.
    void AwaitWrite() const;

    static constexpr uint64_t kNowhere = UINT64_MAX;
    // The first occurrence of a text that lies within the range.
    [[nodiscard]] uint64_t Find(std::string_view text, uint64_t begin, uint64_t end) const;
    // The last one.
    [[nodiscard]] uint64_t FindLast(std::string_view text, uint64_t begin, uint64_t end) const;

  private:
    std::string Unpack();

    std::string m_path;
    UniqueFd m_fd;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    bool m_isCompressed = false;
};
