// An array that grows at its end, for plain records and bytes. It is moved by its pages instead of
// being copied once it is large. Not thread-safe.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

// Bytes that grow: of the C library while they are few, later mapped, so that no block of theirs is
// left over in the heap when they move.
class GrowingMemory {
  public:
    GrowingMemory() = default;
    GrowingMemory(const GrowingMemory&) = delete;
    GrowingMemory& operator=(const GrowingMemory&) = delete;
    ~GrowingMemory();

    [[nodiscard]] void* Data() const { return m_data; }
    // Throws std::bad_alloc and is as it was then.
    void Resize(size_t bytes);
    // Asks for the pages from byte `start` on together, which is faster. How far they are there
    // now.
    [[nodiscard]] size_t Populate(size_t start) const;
    void Swap(GrowingMemory& other) noexcept {
        std::swap(m_data, other.m_data);
        std::swap(m_bytes, other.m_bytes);
    }

  private:
    [[nodiscard]] bool IsMapped() const;
    void Map(size_t bytes);

    void* m_data = nullptr;
    size_t m_bytes = 0;
};

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
    ~Pool() = default;

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
    // Takes back the last ones.
    void Drop(size_t count) { m_size -= static_cast<uint32_t>(count); }
    // Gives back what is not used.
    void Shrink() { Resize(std::max<uint32_t>(m_size, 1)); }

  private:
    void Resize(uint32_t total) {
        m_memory.Resize(total * sizeof(T));
        m_items = static_cast<T*>(m_memory.Data());
        m_total = m_capacity = total;
    }
    // Rare: inlined it would slow down those who call Grow.
    [[gnu::noinline]] void Reserve(size_t count) {
        constexpr size_t kMost = std::numeric_limits<uint32_t>::max() - 1;
        if (count > kMost - m_size) throw std::bad_alloc();
        const size_t needed = m_size + count;
        if (needed > m_total) {
            const size_t wanted = size_t{m_total} + m_total / 2 + 64;
            Resize(static_cast<uint32_t>(std::min(std::max(wanted, needed), kMost)));
        }
        const size_t there = m_memory.Populate(m_size * sizeof(T)) / sizeof(T);
        m_capacity = static_cast<uint32_t>(std::clamp<size_t>(there, needed, m_total));
    }
    void Swap(Pool& other) noexcept {
        m_memory.Swap(other.m_memory);
        std::swap(m_items, other.m_items);
        std::swap(m_size, other.m_size);
        std::swap(m_capacity, other.m_capacity);
        std::swap(m_total, other.m_total);
    }

    GrowingMemory m_memory;
    T* m_items = nullptr;
    uint32_t m_size = 0;
    uint32_t m_capacity = 0;  // room whose pages are there
    uint32_t m_total = 0;
};
