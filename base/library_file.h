// A shared library as a file, read before the dynamic loader maps it: the loader believes what the
// program headers say, and a file that is shorter than that ends the process with SIGBUS.
//
// The daemon, the switch library and kemdctl all look with this. Any thread may call.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "kemd/module.h"

// A regular file, read at offsets. Not mapped: another process could cut it meanwhile.
class BinaryFile {
  public:
    // Nothing but a regular file is opened. When it is not open, errno says why.
    explicit BinaryFile(const char* path);
    [[nodiscard]] bool IsOpen() const { return m_file.IsOpen(); }

    [[nodiscard]] bool Holds(uint64_t offset, uint64_t size) const {
        return offset <= m_size && size <= m_size - offset;
    }
    // False when the file does not have all of it, or cannot be read.
    [[nodiscard]] bool Read(uint64_t offset, size_t size, void* to) const;

    // A table of records or, with bytes, a text.
    template <typename Record>
    [[nodiscard]] std::optional<std::vector<Record>> ReadTable(uint64_t offset,
                                                               uint64_t bytes) const {
        constexpr uint64_t kLargest = uint64_t{256} << 20;
        if (!Holds(offset, bytes) || bytes > kLargest) return std::nullopt;
        std::vector<Record> table(bytes / sizeof(Record));
        if (!Read(offset, table.size() * sizeof(Record), table.data())) return std::nullopt;
        return table;
    }
    [[nodiscard]] uint64_t Size() const { return m_size; }

  private:
    UniqueFd m_file;
    uint64_t m_size = 0;
};

struct LibraryFault {
    std::string text;             // what is wrong; empty: nothing that is looked at
    bool isOtherMachine = false;  // sound, but of another machine or word size
    bool harmsLoader = false;     // dlopen would end or hang the process: cut off, or a FIFO
};

// Whether the file is a shared library for this machine that is all there: its program headers,
// what they load and the dynamic section. Sections are not looked at, as the loader does not need
// them. Never waits.
LibraryFault LookAtLibrary(const char* path);

// The dynamic loader's text about a module that it did not load, with what to do about it.
std::string LoaderText(const char* text);
