#include "xml/string_table.h"

#include <sys/random.h>

// Whether a name may begin with this, of the characters that a name may consist of. Beyond ASCII
// few may not: the middle dot, combining characters and two ties.
static bool MayBegin(std::string_view name) {
    const auto byte = [name](size_t at) {
        return at < name.size() ? static_cast<unsigned char>(name[at]) : 0U;
    };
    const unsigned first = byte(0);
    if (first < 0x80) return !((first >= '0' && first <= '9') || first == '-' || first == '.');
    if (first == 0xC2) return byte(1) != 0xB7;
    if (first == 0xCC) return false;
    if (first == 0xCD) return byte(1) >= 0xB0;
    return !(first == 0xE2 && byte(1) == 0x80 && byte(2) == 0xBF) &&
           !(first == 0xE2 && byte(1) == 0x81 && byte(2) == 0x80);
}

StringTable::StringTable(Pool<char>& characters) : m_characters(characters) {
    if (getrandom(&m_seed, sizeof m_seed, GRND_NONBLOCK) != sizeof m_seed) {
        m_seed = reinterpret_cast<uintptr_t>(this) * 0x9E3779B97F4A7C15U;
    }
    if (characters.Size() == 0) characters.Add('\0');
    m_entries.Add({0, 0, 0, 0, 0, 0});
    constexpr uint32_t kSlots = 64;
    std::memset(m_slots.Grow(kSlots), 0, kSlots * sizeof(uint32_t));
}

uint32_t StringTable::Hash(std::string_view text) const {
    __extension__ using Wide = unsigned __int128;
    uint64_t hash = m_seed ^ text.size();
    const auto mix = [&hash](uint64_t word) {
        const Wide product = static_cast<Wide>(hash ^ word) * 0x9FB21C651E98DF25U;
        hash = static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64) ^ (hash >> 7);
    };
    uint64_t word = 0;
    for (; text.size() >= sizeof word; text.remove_prefix(sizeof word)) {
        std::memcpy(&word, text.data(), sizeof word);
        mix(word);
    }
    word = 0;
    std::memcpy(&word, text.data(), text.size());
    mix(word);
    return static_cast<uint32_t>(hash ^ hash >> 32);
}

uint32_t StringTable::Slot(std::string_view text, uint32_t hash) const {
    const uint32_t mask = m_slots.Size() - 1;
    for (uint32_t slot = hash & mask;; slot = (slot + 1) & mask) {
        const uint32_t number = m_slots[slot];
        if (number == 0 || (m_entries[number].hash == hash && View(number) == text)) return slot;
    }
}

uint32_t StringTable::Find(std::string_view text) const {
    return text.empty() ? 0 : m_slots[Slot(text, Hash(text))];
}

uint32_t StringTable::Add(std::string_view text) {
    if (text.empty()) return 0;
    const uint32_t hash = Hash(text);
    uint32_t slot = Slot(text, hash);
    if (m_slots[slot] != 0) return m_slots[slot];

    const size_t colon = text.find(':');
    const bool hasPrefix = colon != text.npos && colon > 0 && colon + 1 < text.size();
    const uint32_t prefix = hasPrefix ? Add(text.substr(0, colon)) : 0;
    const std::string_view local = hasPrefix ? text.substr(colon + 1) : text;
    const bool isQualified = local.find(':') == local.npos && MayBegin(local);
    if (size_t{m_entries.Size()} * 2 >= m_slots.Size()) Rehash();
    slot = Slot(text, hash);
    const uint32_t start = m_characters.Size();
    char* const room = m_characters.Grow(text.size() + 1);
    text.copy(room, text.size());
    room[text.size()] = '\0';
    const auto localStart = static_cast<uint32_t>(text.size() - local.size());
    m_slots[slot] = m_entries.Add({start, static_cast<uint32_t>(text.size()), hash, prefix,
                                   localStart & 0x7FFFFFFFU, isQualified ? 1U : 0U});
    return m_slots[slot];
}

void StringTable::Rehash() {
    const size_t size = size_t{m_slots.Size()} * 2;
    Pool<uint32_t> slots;
    std::memset(slots.Grow(size), 0, size * sizeof(uint32_t));
    m_slots = std::move(slots);
    const uint32_t mask = m_slots.Size() - 1;
    for (uint32_t number = 1; number < m_entries.Size(); ++number) {
        uint32_t slot = m_entries[number].hash & mask;
        while (m_slots[slot] != 0) slot = (slot + 1) & mask;
        m_slots[slot] = number;
    }
}
