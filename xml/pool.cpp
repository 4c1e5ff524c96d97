#include "xml/pool.h"

#include <sys/mman.h>

#include <cstdlib>

namespace {

constexpr size_t kStep = size_t{2} << 20;  // a huge page
constexpr size_t kMapped = 2 * kStep;      // from this size on

// Huge pages: to get them takes a fraction of the time that the small ones take.
size_t InPages(size_t bytes) {
    return (bytes + kStep - 1) / kStep * kStep;
}

}  // namespace

bool GrowingMemory::IsMapped() const {
    return m_bytes >= kMapped;
}

GrowingMemory::~GrowingMemory() {
    if (IsMapped()) {
        (void)munmap(m_data, InPages(m_bytes));
    } else {
        std::free(m_data);
    }
}

void GrowingMemory::Map(size_t bytes) {
    const size_t size = InPages(bytes);
    void* const mapped = IsMapped() ? mremap(m_data, InPages(m_bytes), size, MREMAP_MAYMOVE)
                                    : mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) throw std::bad_alloc();
    if (!IsMapped()) {
        if (m_bytes > 0) std::memcpy(mapped, m_data, m_bytes);
        std::free(m_data);
    }
    (void)madvise(mapped, size, MADV_HUGEPAGE);
    m_data = mapped;
    m_bytes = bytes;
}

void GrowingMemory::Resize(size_t bytes) {
    if (bytes >= kMapped && bytes > m_bytes) return Map(bytes);
    if (bytes >= kMapped) {
        if (InPages(bytes) < InPages(m_bytes)) {
            (void)munmap(static_cast<char*>(m_data) + InPages(bytes),
                         InPages(m_bytes) - InPages(bytes));
        }
    } else if (IsMapped()) {
        void* const few = std::malloc(bytes);
        if (few == nullptr) throw std::bad_alloc();
        std::memcpy(few, m_data, bytes);
        (void)munmap(m_data, InPages(m_bytes));
        m_data = few;
    } else {
        void* const resized = std::realloc(m_data, bytes);
        if (resized == nullptr) throw std::bad_alloc();
        m_data = resized;
    }
    m_bytes = bytes;
}

size_t GrowingMemory::Populate(size_t start) const {
    if (!IsMapped()) return m_bytes;
    const size_t begin = start / kStep * kStep;
    const size_t end = std::min(begin + kStep, InPages(m_bytes));
    (void)madvise(static_cast<char*>(m_data) + begin, end - begin, MADV_POPULATE_WRITE);
    return std::min(end, m_bytes);
}
