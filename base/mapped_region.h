// The owner of one mapping of a file: unmaps it when it goes away.
#pragma once

#include <sys/mman.h>

#include <cstddef>

class MappedRegion {
  public:
    constexpr MappedRegion() = default;
    ~MappedRegion() { Unmap(); }
    MappedRegion(const MappedRegion&) = delete;
    MappedRegion& operator=(const MappedRegion&) = delete;

    // Maps `size` bytes of the file from its start, shared, readable and writable. Replaces what
    // was mapped before. False with errno when the system refuses.
    [[nodiscard]] bool MapShared(int fd, size_t size) {
        return Map(fd, 0, size, PROT_READ | PROT_WRITE);
    }
    // Only readable; `offset` is a multiple of the page size.
    [[nodiscard]] bool MapReadOnly(int fd, off_t offset, size_t size) {
        return Map(fd, offset, size, PROT_READ);
    }

    void Unmap() {
        if (m_data != nullptr) munmap(m_data, m_size);
        Forget();
    }

    // Gives the mapping up without unmapping it.
    void Forget() {
        m_data = nullptr;
        m_size = 0;
    }

    // Null while nothing is mapped.
    [[nodiscard]] char* Data() const { return m_data; }
    [[nodiscard]] size_t Size() const { return m_size; }

  private:
    bool Map(int fd, off_t offset, size_t size, int protection) {
        Unmap();
        void* address = mmap(nullptr, size, protection, MAP_SHARED, fd, offset);
        if (address == MAP_FAILED) return false;
        m_data = static_cast<char*>(address);
        m_size = size;
        return true;
    }

    char* m_data = nullptr;
    size_t m_size = 0;
};
