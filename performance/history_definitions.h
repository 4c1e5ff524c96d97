// The area with what each series is: name, labels, unit and so on, once in a file. A definition has
// a place, which blocks refer to, and a tag, by which a block finds out that another series has got
// the place. One thread uses an object.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "performance/history_format.h"

inline constexpr size_t kDefinitionUnit = 128;
inline constexpr size_t kMostDefinitionUnits = 16;

struct Definition {
    SeriesInfo info;
    uint32_t units = 0;  // of the area that it takes
    uint16_t tag = 0;
};

// The definition that begins with these bytes; none when there is no sound one.
std::optional<Definition> ParseDefinition(std::span<const uint8_t> bytes);
// Whether values of one can follow values of the other.
bool IsSameSeries(const SeriesInfo& a, const SeriesInfo& b);

class HistoryDefinitions {
  public:
    // Takes what the area has. Not the owner of it.
    explicit HistoryDefinitions(std::span<uint8_t> area);

    // The series' place; kNoSeries when its names do not fit.
    uint32_t Place(const SeriesInfo& info);
    [[nodiscard]] uint16_t Tag(uint32_t place) const { return m_entries[place].tag; }
    [[nodiscard]] bool IsThere(uint32_t place, uint16_t tag) const {
        return place < m_entries.size() && m_entries[place].units != 0 &&
               m_entries[place].tag == tag;
    }
    // That of `place`, when it is still the one with this tag.
    [[nodiscard]] std::optional<Definition> Find(uint32_t place, uint16_t tag) const;

    // A block of the log refers to the place.
    void Use(uint32_t place, uint16_t tag, uint32_t log, uint64_t sequence);
    // Blocks of the log before `oldest` are gone, `current` is being written.
    void SetBlocks(uint32_t log, uint64_t oldest, uint64_t current) {
        m_oldest[log] = oldest;
        m_current[log] = current;
    }

  private:
    struct Entry {
        uint32_t units = 0;  // 0: free, or inside another
        uint16_t tag = 0;
        uint64_t hash = 0;
        std::array<uint64_t, kLogs> used{};  // the newest block of each log
    };

    void Take(uint32_t place, const Definition& definition);
    void Free(uint32_t place);
    void FreeUnused();
    bool FreeOldest();
    [[nodiscard]] std::optional<uint32_t> Room(uint32_t units) const;

    std::span<uint8_t> m_area;
    std::vector<Entry> m_entries;  // by place, up to the last one in use
    std::unordered_map<uint64_t, uint32_t> m_places;
    std::array<uint64_t, kLogs> m_oldest{};
    std::array<uint64_t, kLogs> m_current{};
};
