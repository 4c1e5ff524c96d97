#include "tools/trace_reader/trace_merge.h"

#include <algorithm>
#include <utility>

namespace {

constexpr size_t kNone = SIZE_MAX;

}  // namespace

void TraceMerge::Add(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0) {
        for (const auto& source : m_sources) {
            if (source->IsOpen() && source->File().IsSame(status)) return;
        }
    }
    auto source = std::make_unique<TraceSource>(path, static_cast<uint16_t>(m_sources.size()));
    source->ShowAll(m_showsAll);
    if (m_follows) source->Follow();
    (void)source->Open();
    m_sources.push_back(std::move(source));
}

bool TraceMerge::IsLog(size_t number) const {
    return m_sources[number]->Facts().kind == FileKind::kLogFile;
}

void TraceMerge::SeekTime(int64_t time) {
    for (const auto& source : m_sources) source->SeekTime(time);
}

// Rings before logs: of the two records of a message theirs is the whole one.
void TraceMerge::Begin() {
    m_hasBegun = true;
    m_inputs.resize(m_sources.size());
    bool hasRing = false;
    for (size_t i = 0; i < m_sources.size(); ++i) {
        m_order.push_back(i);
        hasRing = hasRing || m_sources[i]->Facts().kind == FileKind::kRingFile;
    }
    std::stable_sort(m_order.begin(), m_order.end(),
                     [this](size_t a, size_t b) { return IsLog(a) < IsLog(b); });
    for (const size_t i : m_order) {
        if (hasRing && IsLog(i)) m_twins.Add(*m_sources[i]);
        m_hasTwins = m_hasTwins || (hasRing && IsLog(i));
    }
    m_twins.Sort();
    for (const size_t i : m_order) Load(i);
}

void TraceMerge::Load(size_t number) {
    Input& input = m_inputs[number];
    input.isThere = m_sources[number]->Next(input.head);
    input.isPaired = false;
    if (!input.isThere) return;
    input.isBack = input.head.time < input.key;
    input.key = std::max(input.key, input.head.time);
}

// Whether a head has to stay for something that certainly comes before it.
bool TraceMerge::MustWait(size_t number) const {
    const SourceFacts& facts = m_sources[number]->Facts();
    for (size_t other = 0; other < m_inputs.size(); ++other) {
        if (other == number || !m_inputs[other].isThere || IsLog(other)) continue;
        // Where the clock went back the time says little: the ring shows where a message belongs.
        if (IsLog(number) && m_inputs[number].isBack) return true;
        // One process has one ring after the other.
        const SourceFacts& its = m_sources[other]->Facts();
        const bool isSame = !IsLog(number) && facts.writer != 0 && facts.writer == its.writer;
        if (isSame && its.size > facts.size) return true;
    }
    return false;
}

size_t TraceMerge::Pick() const {
    if (m_sources.size() == 1) return m_inputs[0].isThere ? 0 : kNone;
    size_t best = kNone, waiting = kNone;
    for (const size_t i : m_order) {
        const Input& input = m_inputs[i];
        if (!input.isThere) continue;
        if (input.head.sequence < input.drainTo) return i;
        size_t& to = MustWait(i) ? waiting : best;
        if (to == kNone || input.key < m_inputs[to].key) to = i;
    }
    return best != kNone ? best : waiting;
}

// Looks for the same message in a log. What stands in front of it there comes first. False: it was
// given already.
bool TraceMerge::PairRing(size_t number) {
    Input& input = m_inputs[number];
    TwinIndex::Entry* const twin = m_twins.FindTwin(input.head);
    input.isPaired = true;
    if (twin == nullptr) return true;
    twin->isPaired = true;
    if (twin->isShown) return false;
    Input& log = m_inputs[twin->source];
    log.drainTo = std::max(log.drainTo, twin->sequence);
    return true;
}

bool TraceMerge::IsShown(size_t number) {
    if (!m_hasTwins && !m_follows) return true;
    const TraceRecord& head = m_inputs[number].head;
    if (head.kind != RecordKind::kRecord) return true;
    if (IsLog(number) && m_hasTwins) {
        TwinIndex::Entry* const entry = m_twins.FindEntry(head);
        if (entry != nullptr && entry->isPaired) return false;
        if (entry != nullptr) entry->isShown = true;
    }
    return !m_follows || !m_recent.IsTwin(head, IsLog(number));
}

bool TraceMerge::Next(TraceRecord& record) {
    if (!m_hasBegun) Begin();
    for (;;) {
        if (m_last != kNone) Load(std::exchange(m_last, kNone));
        const size_t number = Pick();
        if (number == kNone) return false;
        Input& input = m_inputs[number];
        if (m_hasTwins && !IsLog(number) && !input.isPaired) {
            const bool isNew = PairRing(number);
            if (!isNew) Load(number);
            continue;  // a log may come first
        }
        m_last = number;
        if (!IsShown(number)) continue;
        record = input.head;
        return true;
    }
}

bool TraceMerge::NextRun(TraceRun& run) {
    // The first record of a file waits in its input.
    const bool isSingle = m_hasBegun && !m_follows && m_sources.size() == 1 && m_last == 0;
    return isSingle && m_sources[0]->NextRun(run);
}

bool TraceMerge::Advance() {
    bool isMore = false;
    m_hasTwins = false;  // from now on the recent records tell
    for (const size_t i : m_order) {
        if (!m_sources[i]->Advance()) continue;
        m_inputs[i].drainTo = 0;
        Load(i);
        isMore = true;
    }
    return isMore;
}
