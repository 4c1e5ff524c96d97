// Shared by the fuzz targets: the entry point, requirements, and files in memory, so that a target
// may run outside the tests' private root.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

inline void Require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "fuzz: %s\n", what);
    std::abort();
}

class MemoryFile {
  public:
    MemoryFile() { Require(m_fd >= 0, "memfd_create"); }
    ~MemoryFile() { close(m_fd); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    // Positioned at the start of the file.
    [[nodiscard]] int Descriptor() const {
        Require(lseek(m_fd, 0, SEEK_SET) == 0, "lseek");
        return m_fd;
    }
    [[nodiscard]] const char* Path() const { return m_path.c_str(); }
    void Fill(std::string_view text) const {
        const auto size = static_cast<ssize_t>(text.size());
        Require(ftruncate(m_fd, 0) == 0 && pwrite(m_fd, text.data(), text.size(), 0) == size,
                "filling a file");
    }
    [[nodiscard]] std::string Text() const {
        std::ostringstream text;
        text << std::ifstream(m_path, std::ios::binary).rdbuf();
        return text.str();
    }

  private:
    int m_fd = memfd_create("fuzz", MFD_CLOEXEC);
    std::string m_path = "/proc/self/fd/" + std::to_string(m_fd);
};

// Removes the text up to the mark, and the mark, and returns the text.
inline std::string TakeField(std::string_view& text, char mark) {
    const std::string field(text.substr(0, text.find(mark)));
    text.remove_prefix(std::min(field.size() + 1, text.size()));
    return field;
}
