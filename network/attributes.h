// Attributes of netlink messages, walked with checks: nothing is read beyond the bytes that were
// received, an attribute that claims more than there is ends the walk.
#pragma once

#include <linux/netlink.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <type_traits>

// The first bytes as a fixed header; nothing when there are too few.
template <typename T>
[[nodiscard]] std::optional<T> HeaderOf(std::string_view bytes) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (bytes.size() < sizeof(T)) return std::nullopt;
    T value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

// The bytes after a header, which netlink aligns to four.
[[nodiscard]] constexpr std::string_view AfterHeader(std::string_view bytes, size_t size) {
    const size_t aligned = NLMSG_ALIGN(size);
    return aligned < bytes.size() ? bytes.substr(aligned) : std::string_view();
}

struct Attribute {
    uint16_t type = 0;
    std::string_view bytes;

    // A number in the order of the machine, or of the network; nothing unless it has 1, 2, 4 or 8
    // bytes.
    [[nodiscard]] std::optional<uint64_t> Number() const {
        static_assert(std::endian::native == std::endian::little, "the first byte is the lowest");
        const size_t size = bytes.size();
        if (size != 1 && size != 2 && size != 4 && size != 8) return std::nullopt;
        uint64_t value = 0;
        std::memcpy(&value, bytes.data(), size);
        return value;
    }
    [[nodiscard]] std::optional<uint64_t> NetworkNumber() const {
        const auto value = Number();
        if (!value) return value;
        return __builtin_bswap64(*value) >> (64 - 8 * bytes.size());
    }
    // Up to its first NUL, whether or not it ends with one.
    [[nodiscard]] std::string_view Text() const { return bytes.substr(0, bytes.find('\0')); }
};

// for (const Attribute& attribute : Attributes(bytes))
class Attributes {
  public:
    class Iterator {
      public:
        Iterator() = default;
        explicit Iterator(std::string_view rest) : m_rest(rest) { Parse(); }
        const Attribute& operator*() const { return m_attribute; }
        Iterator& operator++() {
            m_rest.remove_prefix(m_length);
            Parse();
            return *this;
        }
        bool operator!=(const Iterator& other) const {
            return m_rest.size() != other.m_rest.size();
        }

      private:
        void Parse() {
            const auto header = HeaderOf<nlattr>(m_rest);
            if (!header || header->nla_len < sizeof(nlattr) || header->nla_len > m_rest.size()) {
                m_rest = {};
                return;
            }
            m_attribute.type = header->nla_type & NLA_TYPE_MASK;
            m_attribute.bytes = m_rest.substr(sizeof(nlattr), header->nla_len - sizeof(nlattr));
            const size_t aligned = NLA_ALIGN(header->nla_len);
            m_length = aligned < m_rest.size() ? aligned : m_rest.size();
        }
        std::string_view m_rest;
        Attribute m_attribute;
        size_t m_length = 0;
    };

    explicit Attributes(std::string_view bytes) : m_bytes(bytes) {}
    [[nodiscard]] Iterator begin() const { return Iterator(m_bytes); }
    [[nodiscard]] static Iterator end() { return {}; }

    // The first of the type; empty bytes when there is none.
    [[nodiscard]] Attribute Find(uint16_t type) const {
        for (const Attribute& attribute : *this) {
            if (attribute.type == type) return attribute;
        }
        return {};
    }

  private:
    std::string_view m_bytes;
};
