// An array that grows at its end, for plain records and bytes. It is reallocated by the C library,
// which moves pages of large blocks instead of copying them. Not thread-safe.
#pragma once

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
    [[nodiscard]] size_t Bytes() const { return size_t{m_capacity} * sizeof(T); }

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
        m_capacity = std::max<uint32_t>(m_size, 1);
    }

  private:
    void Reserve(size_t count) {
        constexpr size_t kMost = std::numeric_limits<uint32_t>::max() - 1;
        if (count > kMost - m_size) throw std::bad_alloc();
        const size_t wanted = size_t{m_capacity} + m_capacity / 2 + 64;
        const size_t capacity = std::min(std::max(wanted, m_size + count), kMost);
        void* const grown = std::realloc(m_items, capacity * sizeof(T));
        if (grown == nullptr) throw std::bad_alloc();
        m_items = static_cast<T*>(grown);
        m_capacity = static_cast<uint32_t>(capacity);
    }
    void Swap(Pool& other) {
        std::swap(m_items, other.m_items);
        std::swap(m_size, other.m_size);
        std::swap(m_capacity, other.m_capacity);
    }

    T* m_items = nullptr;
    uint32_t m_size = 0;
    uint32_t m_capacity = 0;
};
