// Names and URIs of a document, each once: equal texts have equal numbers. Number 0 is the empty
// text. The texts are in the document's pool of characters.
#pragma once

#include <cstdint>
#include <string_view>

#include "xml/pool.h"

class StringTable {
  public:
    explicit StringTable(Pool<char>& characters);

    // Throws std::bad_alloc.
    uint32_t Add(std::string_view text);
    // 0 also when it is not there.
    [[nodiscard]] uint32_t Find(std::string_view text) const;

    [[nodiscard]] const char* Text(uint32_t number) const {
        return m_characters.Data() + m_entries[number].text;
    }
    [[nodiscard]] std::string_view View(uint32_t number) const {
        return {Text(number), m_entries[number].length};
    }
    // Of a name "p:a": the number of "p", 0: none; where "a" begins.
    [[nodiscard]] uint32_t Prefix(uint32_t number) const { return m_entries[number].prefix; }
    [[nodiscard]] uint32_t LocalStart(uint32_t number) const { return m_entries[number].local; }
    [[nodiscard]] std::string_view Local(uint32_t number) const {
        return View(number).substr(LocalStart(number));
    }
    // Whether it is a name with at most one colon, and that between two names. The characters are
    // those of a name already.
    [[nodiscard]] bool IsQualifiedName(uint32_t number) const {
        return m_entries[number].isQualified != 0;
    }
    [[nodiscard]] uint32_t Size() const { return m_entries.Size(); }
    [[nodiscard]] size_t Bytes() const { return m_entries.Bytes() + m_slots.Bytes(); }

  private:
    struct Entry {
        uint32_t text;
        uint32_t length;
        uint32_t hash;
        uint32_t prefix;
        uint32_t local : 31;
        uint32_t isQualified : 1;
    };

    [[nodiscard]] uint32_t Hash(std::string_view text) const;
    [[nodiscard]] uint32_t Slot(std::string_view text, uint32_t hash) const;
    void Rehash();

    Pool<char>& m_characters;
    Pool<Entry> m_entries;
    Pool<uint32_t> m_slots;  // numbers by hash; 0: free
    uint64_t m_seed;         // so that nobody can choose names that collide
};
