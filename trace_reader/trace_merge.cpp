#include "trace_reader/trace_merge.h"

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
    for (size_t i = 0; i < m_sources.size(); ++i) m_order.push_back(i);
    Prepare(m_order);
}

void TraceMerge::Prepare(const std::vector<size_t>& sources) {
    std::stable_sort(m_order.begin(), m_order.end(),
                     [this](size_t a, size_t b) { return IsLog(a) < IsLog(b); });
    const bool hasRing = std::any_of(sources.begin(), sources.end(), [this](size_t i) {
        return m_sources[i]->Facts().kind == FileKind::kRingFile;
    });
    m_twins = {};
    m_hasTwins = false;
    for (const size_t i : sources) {
        if (!hasRing || !IsLog(i)) continue;
        m_twins.Add(*m_sources[i]);
        m_hasTwins = true;
    }
    m_twins.Sort();
    for (const size_t i : sources) {
        m_inputs[i].drainTo = 0;
        Load(i);
    }
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
    const bool isTwin = m_follows && m_recent.IsTwin(head, IsLog(number));
    if (!IsLog(number) || !m_hasTwins) return !isTwin;
    TwinIndex::Entry* const entry = m_twins.FindEntry(head);
    const bool isPaired = entry != nullptr && entry->isPaired;
    if (entry != nullptr && isTwin) entry->isPaired = true;
    if (entry != nullptr) entry->isShown = !entry->isPaired;
    return !isPaired && !isTwin;
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
            if (!isNew && m_follows) (void)m_recent.IsTwin(input.head, false);
            if (!isNew) Load(number);
            continue;  // a log may come first
        }
        m_last = number;
        if (!IsShown(number)) continue;
        record = input.head;
        return true;
    }
}

// Up to where records of this file certainly come next, and have no twin in a log.
RunLimit TraceMerge::FindLimit(size_t number) const {
    RunLimit limit;
    limit.begin = m_inputs[number].key;
    if (m_hasTwins) limit.apart = m_twins.Times();
    for (size_t other = 0; other < m_inputs.size(); ++other) {
        const Input& input = m_inputs[other];
        if (other == number || !input.isThere) continue;
        const bool goesFirst = MustWait(number) || input.head.sequence < input.drainTo;
        limit.end = std::min(limit.end, goesFirst ? INT64_MIN : input.key);
    }
    return limit;
}

bool TraceMerge::NextRun(TraceRun& run) {
    // The first record of a file waits in its input.
    if (!m_hasBegun || m_follows || m_last == kNone) return false;
    if (m_sources.size() == 1) return m_sources[0]->NextRun(run);
    RunLimit limit = FindLimit(m_last);
    if (!m_sources[m_last]->NextRun(run, &limit)) return false;
    m_inputs[m_last].key = limit.begin;
    return true;
}

// A message goes into the ring first, and the ring of the run comes after that of the start: looked
// for the other way round, what one file shows of a moment the next one has, too.
bool TraceMerge::Advance() {
    std::vector<size_t> more;
    for (auto i = m_order.rbegin(); i != m_order.rend(); ++i) {
        if (m_sources[*i]->Advance()) more.push_back(*i);
    }
    if (!more.empty()) Prepare(more);
    return !more.empty();
}
