// An array that grows at its end, for plain records and bytes. It is reallocated by the C library,
// which moves pages of large blocks instead of copying them. Not thread-safe.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

template <typename T>
class Pool {
    static_assert(std::is_trivially_copyable_v<T>);

  public:
    Pool() = default;
    Pool(Pool&& other) noexcept { Swap(other); }
    Pool& operator=(Pool&& other) noexcept {
        Swap(other);
        return *this;
    }
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;
    ~Pool() { std::free(m_items); }

    [[nodiscard]] uint32_t Size() const { return m_size; }
    [[nodiscard]] T& operator[](uint32_t index) { return m_items[index]; }
    [[nodiscard]] const T& operator[](uint32_t index) const { return m_items[index]; }
    [[nodiscard]] T* Data() { return m_items; }
    [[nodiscard]] const T* Data() const { return m_items; }
    [[nodiscard]] size_t Bytes() const { return size_t{m_total} * sizeof(T); }

    // Room for `count` more at the end, which the caller fills. Throws std::bad_alloc, also where
    // an index would need more than 32 bits.
    T* Grow(size_t count) {
        if (count > m_capacity - m_size) Reserve(count);
        T* const room = m_items + m_size;
        m_size += static_cast<uint32_t>(count);
        return room;
    }
    uint32_t Add(const T& item) {
        *Grow(1) = item;
        return m_size - 1;
    }
    void Append(const T* items, size_t count) {
        if (count > 0) std::memcpy(Grow(count), items, count * sizeof(T));
    }
    void Cut(uint32_t size) { m_size = size; }
    // Gives back what is not used.
    void Shrink() {
        void* const fitting = std::realloc(m_items, std::max<size_t>(m_size, 1) * sizeof(T));
        if (fitting == nullptr) return;
        m_items = static_cast<T*>(fitting);
        m_capacity = m_total = std::max<uint32_t>(m_size, 1);
    }

  private:
    // Pages that are asked for together take half of the time.
    void Populate() {
        constexpr size_t kBytes = size_t{1} << 20, kPage = 4096;
        if (m_total * sizeof(T) < 4 * kBytes) {
            m_capacity = m_total;
            return;
        }
        const size_t more = kBytes / sizeof(T);
        const size_t wanted = m_total - m_size > more ? m_size + more : m_total;
        m_capacity = static_cast<uint32_t>(wanted);
        const auto start = reinterpret_cast<uintptr_t>(m_items + m_size) / kPage * kPage;
        const auto end = reinterpret_cast<uintptr_t>(m_items + m_capacity) / kPage * kPage;
        if (end > start) {
            (void)madvise(reinterpret_cast<void*>(start), end - start, MADV_POPULATE_WRITE);
        }
    }
    void Reserve(size_t count) {
        if (count <= m_total - m_size && count * sizeof(T) < (size_t{1} << 19)) return Populate();
        constexpr size_t kMost = std::numeric_limits<uint32_t>::max() - 1;
        if (count > kMost - m_size) throw std::bad_alloc();
        const size_t wanted = size_t{m_total} + m_total / 2 + 64;
        const size_t capacity = std::min(std::max(wanted, m_size + count), kMost);
        void* const grown = std::realloc(m_items, capacity * sizeof(T));
        if (grown == nullptr) throw std::bad_alloc();
        m_items = static_cast<T*>(grown);
        m_total = static_cast<uint32_t>(capacity);
        m_capacity = m_total;
        if (count * sizeof(T) < (size_t{1} << 19)) Populate();
    }
    void Swap(Pool& other) {
        std::swap(m_items, other.m_items);
        std::swap(m_size, other.m_size);
        std::swap(m_capacity, other.m_capacity);
        std::swap(m_total, other.m_total);
    }

    T* m_items = nullptr;
    uint32_t m_size = 0;
    uint32_t m_capacity = 0;  // room whose pages are there
    uint32_t m_total = 0;
};
