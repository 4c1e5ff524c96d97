// The tag of an element as the document has it. It is walked along with the attributes that expat
// reports, for their places, which expat does not have, and because short values are copied from
// here in a few instructions.
#pragma once

#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/text.h"
#include "xml/places.h"

class XmlTag {
  public:
    // As much can be read and copied where a short value begins.
    static constexpr size_t kShort = 16;

    // `tag` begins at byte `index` and is empty when the element is in an entity. Nothing can be
    // read from `readable` on. `hasTokens`: expat drops blanks of some values.
    XmlTag(std::string_view tag, uint64_t index, XmlPlaces& places, const char* readable,
           bool hasTokens)
        : m_begin(tag.data()),
          m_at(tag.data()),
          m_end(tag.data() + tag.size()),
          m_index(index),
          m_places(places) {
        const bool hasShort = !hasTokens && readable - m_begin > static_cast<long>(kShort);
        m_shortEnd = hasShort ? readable - kShort : m_begin;
        while (m_at < m_end && !IsSpace(*m_at) && *m_at != '/' && *m_at != '>') ++m_at;
    }

    // Goes to the next attribute, whose name has `length` bytes; its place.
    [[nodiscard]] uint32_t Next(size_t length) {
        while (m_at < m_end && IsSpace(*m_at)) ++m_at;
        const auto start = static_cast<uint64_t>(m_at - m_begin);
        m_at += std::min(length, static_cast<size_t>(m_end - m_at));
        while (m_at < m_end && *m_at != '"' && *m_at != '\'') ++m_at;
        return m_places.At(m_index + start);
    }
    // Reads its value; null unless it is short and expat reports it as it stands.
    [[nodiscard]] const char* ShortValue(uint32_t& length) {
        if (m_at >= m_end) return nullptr;
        const char quote = *m_at++;
        const char* const value = m_at;
        if (value < m_shortEnd) {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(value));
            const auto equal = [bytes](__m128i to) { return _mm_cmpeq_epi8(bytes, to); };
            const auto quotes =
                static_cast<unsigned>(_mm_movemask_epi8(equal(_mm_set1_epi8(quote))));
            // References and line ends are replaced.
            const __m128i controls = equal(_mm_min_epu8(bytes, _mm_set1_epi8(' ' - 1)));
            const auto replaced = static_cast<unsigned>(
                _mm_movemask_epi8(_mm_or_si128(controls, equal(_mm_set1_epi8('&')))));
            if (quotes != 0 && (replaced & (quotes - 1) & ~quotes) == 0) {
                length = static_cast<uint32_t>(std::countr_zero(quotes));
                m_at += length + 1;
                return value;
            }
        }
        const void* const end = std::memchr(m_at, quote, static_cast<size_t>(m_end - m_at));
        m_at = end == nullptr ? m_end : static_cast<const char*>(end) + 1;
        return nullptr;
    }

  private:
    const char* m_begin;
    const char* m_at;
    const char* m_end;
    const char* m_shortEnd;  // a short value begins before it
    uint64_t m_index;
    XmlPlaces& m_places;
};
