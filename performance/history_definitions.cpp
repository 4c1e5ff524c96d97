#include "performance/history_definitions.h"

#include <algorithm>
#include <functional>

namespace {

constexpr uint32_t kDefinitionMagic = 0x4645444b;  // "KDEF"

struct DefinitionHead {
    uint32_t magic = 0;
    uint32_t checksum = 0;  // of what comes after it, texts included
    uint32_t multiply = 1;
    uint32_t divide = 1;
    std::array<uint16_t, 4> lengths{};  // of name, labels, unit, help
    uint8_t kind = 0;
    uint8_t isReal = 0;
    uint16_t units = 0;
};
static_assert(sizeof(DefinitionHead) == 28);
constexpr size_t kMostDefinitionText =
    kMostDefinitionUnits * kDefinitionUnit - sizeof(DefinitionHead);

uint16_t TagOf(uint32_t checksum) {
    return static_cast<uint16_t>(checksum ^ checksum >> 16);
}

uint64_t Hash(const SeriesInfo& info) {
    uint64_t hash = static_cast<uint64_t>(info.kind) * 2 + (info.isReal ? 1 : 0);
    const auto mix = [&](uint64_t part) {
        hash = (hash ^ part) * 0x9e3779b97f4a7c15U;
        hash ^= hash >> 29;
    };
    mix(info.multiply);
    mix(info.divide);
    for (const auto* text : {&info.name, &info.labels, &info.unit}) {
        mix(std::hash<std::string>()(*text));
    }
    return hash;
}

// The bytes of a definition in whole units; the help is cut where there is no room. Empty when
// there is none for the names.
std::string Serialise(const SeriesInfo& info) {
    DefinitionHead head;
    head.magic = kDefinitionMagic;
    head.multiply = info.multiply;
    head.divide = info.divide;
    head.kind = static_cast<uint8_t>(info.kind);
    head.isReal = info.isReal ? 1 : 0;
    const size_t names = info.name.size() + info.labels.size() + info.unit.size();
    if (names > kMostDefinitionText) return "";
    const std::string help = info.help.substr(0, kMostDefinitionText - names);
    std::string text;
    size_t i = 0;
    for (const auto* part : {&info.name, &info.labels, &info.unit, &help}) {
        head.lengths[i++] = static_cast<uint16_t>(part->size());
        text += *part;
    }
    std::string bytes(sizeof head, '\0');
    bytes += text;
    bytes.resize((bytes.size() + kDefinitionUnit - 1) / kDefinitionUnit * kDefinitionUnit);
    head.units = static_cast<uint16_t>(bytes.size() / kDefinitionUnit);
    std::memcpy(bytes.data(), &head, sizeof head);
    constexpr size_t kFrom = 2 * sizeof(uint32_t);
    head.checksum = Crc32c(bytes.data() + kFrom, bytes.size() - kFrom);
    std::memcpy(bytes.data(), &head, sizeof head);
    return bytes;
}

}  // namespace

std::optional<Definition> ParseDefinition(std::span<const uint8_t> bytes) {
    DefinitionHead head;
    if (bytes.size() < sizeof head) return std::nullopt;
    std::memcpy(&head, bytes.data(), sizeof head);
    const size_t size = head.units * kDefinitionUnit;
    constexpr size_t kFrom = 2 * sizeof(uint32_t);
    if (head.magic != kDefinitionMagic || head.units == 0 || head.units > kMostDefinitionUnits ||
        size > bytes.size() || head.checksum != Crc32c(bytes.data() + kFrom, size - kFrom)) {
        return std::nullopt;
    }
    Definition definition;
    definition.units = head.units;
    definition.tag = TagOf(head.checksum);
    SeriesInfo& info = definition.info;
    info.kind = head.kind == 0 ? SeriesKind::kGauge : SeriesKind::kCounter;
    info.isReal = head.isReal != 0;
    info.multiply = head.multiply;
    info.divide = std::max(head.divide, 1U);
    size_t at = sizeof head;
    size_t i = 0;
    for (auto* text : {&info.name, &info.labels, &info.unit, &info.help}) {
        const size_t length = std::min<size_t>(head.lengths[i++], size - at);
        text->assign(reinterpret_cast<const char*>(bytes.data()) + at, length);
        at += length;
    }
    return definition;
}

bool IsSameSeries(const SeriesInfo& a, const SeriesInfo& b) {
    return a.kind == b.kind && a.isReal == b.isReal && a.multiply == b.multiply &&
           a.divide == b.divide && a.name == b.name && a.labels == b.labels && a.unit == b.unit;
}

HistoryDefinitions::HistoryDefinitions(std::span<uint8_t> area) : m_area(area) {
    const size_t units = area.size() / kDefinitionUnit;
    for (uint32_t place = 0; place < units; ++place) {
        const auto definition = ParseDefinition(m_area.subspan(place * kDefinitionUnit));
        if (!definition) continue;
        Take(place, *definition);
        place += definition->units - 1;
    }
}

void HistoryDefinitions::Take(uint32_t place, const Definition& definition) {
    if (m_entries.size() < place + definition.units) m_entries.resize(place + definition.units);
    Entry& entry = m_entries[place];
    entry = {definition.units, definition.tag, Hash(definition.info), {}};
    m_places[entry.hash] = place;
}

std::optional<Definition> HistoryDefinitions::Find(uint32_t place, uint16_t tag) const {
    if (!IsThere(place, tag)) return std::nullopt;
    return ParseDefinition(m_area.subspan(place * kDefinitionUnit));
}

void HistoryDefinitions::Use(uint32_t place, uint16_t tag, uint32_t log, uint64_t sequence) {
    if (!IsThere(place, tag)) return;
    m_entries[place].used[log] = std::max(m_entries[place].used[log], sequence);
}

uint32_t HistoryDefinitions::Place(const SeriesInfo& info) {
    const auto found = m_places.find(Hash(info));
    if (found != m_places.end()) {
        const auto there = Find(found->second, m_entries[found->second].tag);
        if (there && IsSameSeries(there->info, info)) return found->second;
    }
    const std::string bytes = Serialise(info);
    const auto units = static_cast<uint32_t>(bytes.size() / kDefinitionUnit);
    if (units == 0) return kNoSeries;
    auto room = Room(units);
    if (!room) {
        FreeUnused();
        room = Room(units);
    }
    while (!room && FreeOldest()) room = Room(units);
    if (!room) return kNoSeries;
    std::memcpy(m_area.data() + *room * kDefinitionUnit, bytes.data(), bytes.size());
    Take(*room, *ParseDefinition(m_area.subspan(*room * kDefinitionUnit)));
    // Until a block refers to it, nobody else gets the place.
    m_entries[*room].used[kSamples] = m_current[kSamples];
    return *room;
}

std::optional<uint32_t> HistoryDefinitions::Room(uint32_t units) const {
    const size_t most = m_area.size() / kDefinitionUnit;
    uint32_t from = 0;
    for (uint32_t place = 0; place < m_entries.size();) {
        const uint32_t used = m_entries[place].units;
        place += std::max(used, 1U);
        if (used > 0) from = place;
        if (place - from >= units) return from;
    }
    if (from + units <= most) return from;
    return std::nullopt;
}

void HistoryDefinitions::Free(uint32_t place) {
    const auto found = m_places.find(m_entries[place].hash);
    if (found != m_places.end() && found->second == place) m_places.erase(found);
    std::memset(m_area.data() + place * kDefinitionUnit, 0,
                m_entries[place].units * kDefinitionUnit);
    m_entries[place] = {};
}

void HistoryDefinitions::FreeUnused() {
    for (uint32_t place = 0; place < m_entries.size(); ++place) {
        const Entry& entry = m_entries[place];
        bool isUsed = entry.units == 0;
        for (uint32_t log = 0; log < kLogs; ++log) {
            isUsed = isUsed || (entry.used[log] != 0 && entry.used[log] >= m_oldest[log]);
        }
        if (!isUsed) Free(place);
    }
}

// All are in use: the one whose samples are the oldest makes way, and its minutes and hours with
// it.
bool HistoryDefinitions::FreeOldest() {
    const auto isOlder = [](const Entry& a, const Entry& b) {
        return (a.units != 0 && b.units == 0) ||
               (a.units != 0 && a.used[kSamples] < b.used[kSamples]);
    };
    const auto oldest = std::min_element(m_entries.begin(), m_entries.end(), isOlder);
    if (oldest == m_entries.end() || oldest->units == 0) return false;
    if (oldest->used[kSamples] == m_current[kSamples]) return false;
    Free(static_cast<uint32_t>(oldest - m_entries.begin()));
    return true;
}
