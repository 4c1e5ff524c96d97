#include "trace_reader/twins.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace {

// The log cuts a text at 1024 characters; the last of them may be a line feed that ends it.
constexpr size_t kKept = 1023;

uint64_t Mix(uint64_t hash, uint64_t value) {
    hash = (hash ^ value) * 0x9E3779B97F4A7C15U;
    return hash ^ hash >> 32;
}

size_t Bit(int64_t time) {
    return static_cast<size_t>(time) & 0xFFFF;
}

}  // namespace

uint64_t HashRecord(const TraceRecord& record) {
    std::string_view text = record.text.substr(0, kKept);
    uint64_t hash = Mix(static_cast<uint64_t>(record.time), record.thread);
    hash = Mix(hash, text.size());
    while (!text.empty()) {
        uint64_t word = 0;
        const size_t taken = std::min(text.size(), sizeof word);
        std::memcpy(&word, text.data(), taken);
        hash = Mix(hash, word);
        text.remove_prefix(taken);
    }
    return hash;
}

void TwinIndex::Add(TraceSource& log) {
    for (TraceRecord record; log.Next(record);) {
        m_entries.push_back({HashRecord(record), record.sequence, record.source, false, false, 0});
        m_times[Bit(record.time) / 64] |= uint64_t{1} << Bit(record.time) % 64;
    }
    log.Rewind();
}

void TwinIndex::Sort() {
    std::sort(m_entries.begin(), m_entries.end(), [](const Entry& a, const Entry& b) {
        return std::tie(a.hash, a.source, a.sequence) < std::tie(b.hash, b.source, b.sequence);
    });
}

std::vector<TwinIndex::Entry>::iterator TwinIndex::Find(uint64_t hash) {
    return std::lower_bound(m_entries.begin(), m_entries.end(), hash,
                            [](const Entry& entry, uint64_t value) { return entry.hash < value; });
}

TwinIndex::Entry* TwinIndex::FindTwin(const TraceRecord& record) {
    if ((m_times[Bit(record.time) / 64] >> Bit(record.time) % 64 & 1) == 0) return nullptr;
    const uint64_t hash = HashRecord(record);
    const auto first = Find(hash);
    if (first == m_entries.end() || first->hash != hash) return nullptr;
    // Pairs are made from the first to the last: those that are made need not be passed again.
    auto entry = first + first->pairs;
    while (entry != m_entries.end() && entry->hash == hash && entry->isPaired) ++entry;
    first->pairs = static_cast<uint32_t>(entry - first);
    return entry != m_entries.end() && entry->hash == hash ? &*entry : nullptr;
}

TwinIndex::Entry* TwinIndex::FindEntry(const TraceRecord& record) {
    const auto key = std::make_tuple(HashRecord(record), record.source, record.sequence);
    const auto entry = std::lower_bound(
        m_entries.begin(), m_entries.end(), key, [](const Entry& each, const auto& wanted) {
            return std::tie(each.hash, each.source, each.sequence) < wanted;
        });
    const bool isFound =
        entry != m_entries.end() && std::tie(entry->hash, entry->source, entry->sequence) == key;
    return isFound ? &*entry : nullptr;
}

bool RecentRecords::IsTwin(const TraceRecord& record, bool isOfLog) {
    const uint64_t hash = HashRecord(record);
    const auto [entry, isNew] = m_balance.try_emplace(hash, 0);
    const int step = isOfLog ? -1 : 1;
    const bool isTwin = entry->second * step < 0;
    entry->second += step;
    if (isNew) m_order.push_back(hash);
    if (m_order.size() > kMost) {
        m_balance.erase(m_order.front());
        m_order.pop_front();
    }
    return isTwin;
}
