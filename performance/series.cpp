#include "performance/series.h"

#include <bit>

std::string SeriesId(const SeriesInfo& info) {
    return info.labels.empty() ? info.name : info.name + "{" + info.labels + "}";
}

std::string SeriesLabel(const std::string& name, const std::string& value) {
    std::string label = name + "=\"";
    for (const char letter : value) {
        if (letter == '\\' || letter == '"') label += '\\';
        if (letter == '\n') {
            label += "\\n";
        } else {
            label += letter;
        }
    }
    return label + "\"";
}

double SeriesNumber(const SeriesInfo& info, uint64_t bits) {
    if (info.isReal) return std::bit_cast<double>(bits);
    const double number = info.kind == SeriesKind::kCounter
                              ? static_cast<double>(bits)
                              : static_cast<double>(static_cast<int64_t>(bits));
    return number * info.multiply / info.divide;
}

SeriesTable::Index SeriesTable::Add(SeriesInfo info) {
    ++m_generation;
    if (!m_free.empty()) {
        const Index index = m_free.back();
        m_free.pop_back();
        m_infos[index] = std::move(info);
        m_states[index] = kAbsent;
        return index;
    }
    m_infos.push_back(std::move(info));
    m_values.push_back(0);
    m_states.push_back(kAbsent);
    return static_cast<Index>(m_infos.size() - 1);
}

void SeriesTable::Remove(Index index) {
    ++m_generation;
    m_states[index] = kFree;
    m_values[index] = 0;
    m_free.push_back(index);
}

void SeriesTable::SetReal(Index index, double value) {
    Set(index, std::bit_cast<uint64_t>(value));
}
