#include "kemdctl/trace/last_records.h"

#include <utility>

void LastRecords::Take(const TraceRecord& record) {
    if (!m_limit) {
        Pass(record);
    } else if (m_kept.size() < *m_limit) {
        m_kept.emplace_back().Keep(record);
    } else if (*m_limit > 0) {
        m_kept[m_oldest].Keep(record);
        m_oldest = (m_oldest + 1) % m_kept.size();
    }
}

void LastRecords::Release() {
    m_limit.reset();
    const std::vector<KeptRecord> kept = std::exchange(m_kept, {});
    for (size_t i = 0; i < kept.size(); ++i) Pass(kept[(m_oldest + i) % kept.size()].Get());
}
