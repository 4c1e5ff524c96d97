#include "modules/performance/module_series.h"

#include <algorithm>

void ModuleSeries::Take() {
    for (;;) {
        m_values.resize(m_values.capacity());
        const size_t count = KemdSeriesValues(m_values.data(), m_values.size());
        if (count <= m_values.size()) return m_values.resize(count);
        m_values.reserve(count + 16);
    }
}

bool ModuleSeries::IsSame() const {
    return std::equal(
        m_values.begin(), m_values.end(), m_known.begin(), m_known.end(),
        [](const KemdSeriesValue& value, const Known& known) { return value.id == known.id; });
}

void ModuleSeries::RemoveGone(SeriesTable& table) {
    std::set<uint64_t> there;
    for (const KemdSeriesValue& value : m_values) there.insert(value.id);
    std::erase_if(m_places, [&](const auto& place) {
        if (there.contains(place.first)) return false;
        table.Remove(place.second.index);
        m_names.erase(place.second.name);
        return true;
    });
    std::erase_if(m_refused, [&](uint64_t id) { return !there.contains(id); });
}

void ModuleSeries::AddNew(SeriesTable& table, uint64_t id) {
    if (m_places.contains(id) || m_refused.contains(id)) return;
    KemdSeriesInfo found{};
    found.size = sizeof found;
    // One that does not exist twice in a module can do so in the memory of an isolated one.
    const bool isThere = KemdSeriesDescribe(id, &found) == 0;
    SeriesInfo info;
    if (isThere) {
        info.name = found.name;
        info.labels = found.labels;
        info.unit = found.unit;
        info.help = found.help;
        info.kind = found.kind == KEMD_SERIES_COUNTER ? SeriesKind::kCounter : SeriesKind::kGauge;
        info.isReal = found.kind == KEMD_SERIES_REAL_GAUGE;
    }
    const std::string name = SeriesId(info);
    if (!isThere || !m_names.insert(name).second) {
        m_refused.insert(id);
        return;
    }
    m_places[id] = {table.Add(std::move(info)), found.module, name};
}

void ModuleSeries::TakeUp(SeriesTable& table) {
    m_known.clear();  // without memory this is done again at the next sample
    RemoveGone(table);
    for (const KemdSeriesValue& value : m_values) AddNew(table, value.id);
    for (const KemdSeriesValue& value : m_values) m_known.push_back({value.id, Find(value.id)});
}

const ModuleSeries::Place* ModuleSeries::Find(uint64_t id) const {
    const auto place = m_places.find(id);
    return place != m_places.end() ? &place->second : nullptr;
}

bool ModuleSeries::MayTakeUp(int64_t monotonic) {
    constexpr int64_t kEvery = 10'000'000'000;
    constexpr int64_t kMostAtOnce = 20;
    const int64_t refilled = (monotonic - m_since) / kEvery;
    m_changes = std::max<int64_t>(m_changes - refilled, 0);
    m_since += refilled * kEvery;
    return m_changes < kMostAtOnce && ++m_changes > 0;
}

void ModuleSeries::Sample(SeriesTable& table, int64_t monotonic) {
    Take();
    bool isSame = IsSame();
    if (!isSame && MayTakeUp(monotonic)) {
        TakeUp(table);
        isSame = true;
    } else if (!isSame) {
        for (const auto& [id, place] : m_places) table.Clear(place.index);
    }
    m_dead.clear();
    for (size_t i = 0; i < m_values.size(); ++i) {
        const KemdSeriesValue& value = m_values[i];
        const Place* const place = isSame ? m_known[i].place : Find(value.id);
        if (place == nullptr) continue;
        if ((value.flags & KEMD_SERIES_DEAD) == 0) {
            table.Set(place->index, value.bits);
            continue;
        }
        table.Clear(place->index);
        m_dead.insert(place->module);
    }
}
