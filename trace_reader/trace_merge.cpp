#include "trace_reader/trace_merge.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace {

constexpr size_t kNone = SIZE_MAX;

// The log cuts a text at 1024 characters; the last of them may be a line feed that ends it.
std::string_view KeptText(const TraceRecord& record) {
    return record.text.substr(0, trace_text::kTextLimit - 1);
}

// Of records of the same time: whether one stands for the other.
bool IsSame(const TraceRecord& a, const TraceRecord& b) {
    return a.thread == b.thread && a.tag == b.tag && KeptText(a) == KeptText(b);
}

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

void TraceMerge::Select(int64_t since, int64_t until, uint64_t last) {
    for (const auto& source : m_sources) source->Select(since, until, last);
    m_hasBegun = false;
    m_last = kNone;
}

bool TraceMerge::IsShortened() const {
    return std::any_of(m_sources.begin(), m_sources.end(),
                       [](const auto& source) { return source->IsShortened(); });
}

bool TraceMerge::IsComplete() const {
    for (size_t i = 0; i < m_inputs.size(); ++i) {
        if (m_sources[i]->IsShortened() && !m_inputs[i].hasBegun) return false;
    }
    return true;
}

// Rings before logs: of the two records of a message theirs is the whole one.
void TraceMerge::Begin() {
    m_hasBegun = true;
    m_inputs.assign(m_sources.size(), Input());
    m_order.clear();
    for (size_t i = 0; i < m_sources.size(); ++i) m_order.push_back(i);
    Prepare(m_order);
}

void TraceMerge::Prepare(const std::vector<size_t>& sources) {
    for (const size_t i : sources) Load(i);
    std::stable_sort(m_order.begin(), m_order.end(),
                     [this](size_t a, size_t b) { return IsLog(a) < IsLog(b); });
}

void TraceMerge::Load(size_t number) {
    Input& input = m_inputs[number];
    if (IsLog(number) && m_sources.size() > 1) {
        LoadAhead(number);
    } else {
        input.isThere = m_sources[number]->Next(input.head);
    }
    input.isPaired = false;
    if (!input.isThere || input.head.kind != RecordKind::kRecord) return;
    input.isBack = input.head.time < input.key;
    input.key = std::max(input.key, input.head.time);
}

void TraceMerge::LoadAhead(size_t number) {
    Input& input = m_inputs[number];
    auto& ahead = input.ahead;
    if (input.isThere) ahead.pop_front();
    if (input.goFirst > 0) --input.goFirst;
    while (!ahead.empty() && ahead.front().isDuplicate) {
        ahead.pop_front();
        if (input.goFirst > 0) --input.goFirst;
    }
    TraceRecord next;
    const auto isSameTime = [&ahead] {
        return ahead.empty() || ahead.back().record.Get().time == ahead.front().record.Get().time;
    };
    while (isSameTime() && m_sources[number]->Next(next)) ahead.emplace_back().record.Keep(next);
    input.isThere = !ahead.empty();
    if (input.isThere) input.head = ahead.front().record.Get();
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
        if (input.goFirst > 0) return i;
        size_t& to = MustWait(i) ? waiting : best;
        if (to == kNone || input.key < m_inputs[to].key) to = i;
    }
    return best != kNone ? best : waiting;
}

// Looks for the same message in the logs: a ring has what a log has of its time. What stands before
// the message there comes first.
void TraceMerge::Pair(size_t ring) {
    Input& input = m_inputs[ring];
    input.isPaired = true;
    if (input.head.kind != RecordKind::kRecord) return;
    for (size_t number = 0; number < m_inputs.size(); ++number) {
        Input& log = m_inputs[number];
        if (!IsLog(number) || !log.isThere || log.head.time != input.head.time) continue;
        if (!input.hasBegun) PairFirst(ring, log);
        for (size_t i = 0; i < log.ahead.size(); ++i) {
            const TraceRecord record = log.ahead[i].record.Get();
            if (log.ahead[i].isDuplicate || record.time != input.head.time) continue;
            if (record.kind != RecordKind::kRecord || !IsSame(record, input.head)) continue;
            log.ahead[i].isDuplicate = true;
            log.goFirst = std::max(log.goFirst, i);
            if (i == 0) Load(number);
            break;
        }
    }
}

// Of a log's records of the time with which a ring begins, those that the ring does not have are
// older than it: all that come before the first one that it has.
void TraceMerge::PairFirst(size_t ring, Input& log) {
    const TraceRecord first = m_inputs[ring].head;
    const int64_t time = first.time;
    size_t older = log.ahead.size() - (log.ahead.back().record.Get().time != time ? 1 : 0);
    m_sources[ring]->Rewind();
    for (TraceRecord record; m_sources[ring]->Next(record) && record.time == time;) {
        for (size_t i = 0; i < older; ++i) {
            if (IsSame(log.ahead[i].record.Get(), record)) older = i;
        }
    }
    m_sources[ring]->Rewind();
    (void)m_sources[ring]->Next(m_inputs[ring].head);
    log.goFirst = std::max(log.goFirst, older);
}

// The same message of the other kind of file, at an earlier look.
bool TraceMerge::WasShown(const TraceRecord& record, bool isOfLog) {
    constexpr size_t kMost = 8192;
    const std::hash<std::string_view> hash;
    const uint64_t key =
        (hash(KeptText(record)) ^ static_cast<uint64_t>(record.time)) * 0x9E3779B97F4A7C15U ^
        record.thread;
    const auto [entry, isNew] = m_balance.try_emplace(key, 0);
    const int step = isOfLog ? -1 : 1;
    const bool wasShown = entry->second * step < 0;
    entry->second += step;
    if (isNew) m_recent.push_back(key);
    if (m_recent.size() > kMost) {
        m_balance.erase(m_recent.front());
        m_recent.pop_front();
    }
    return wasShown;
}

bool TraceMerge::Next(TraceRecord& record) {
    if (!m_hasBegun) Begin();
    for (;;) {
        if (m_last != kNone) Load(std::exchange(m_last, kNone));
        const size_t number = Pick();
        if (number == kNone) return false;
        Input& input = m_inputs[number];
        if (m_sources.size() > 1 && !IsLog(number) && !input.isPaired) {
            Pair(number);
            continue;  // a log may come first
        }
        m_last = number;
        input.hasBegun = true;
        if (IsLog(number) && !input.ahead.empty() && input.ahead.front().isDuplicate) continue;
        record = input.head;
        const bool isMessage = m_follows && record.kind == RecordKind::kRecord;
        if (!isMessage || !WasShown(record, IsLog(number))) return true;
    }
}

bool TraceMerge::NextBlock(RecordBlock& run) {
    // The first record of a file waits in its input.
    if (!m_hasBegun || m_follows || m_last == kNone) return false;
    int64_t before = INT64_MAX;
    for (size_t other = 0; other < m_inputs.size(); ++other) {
        const Input& input = m_inputs[other];
        if (other == m_last || !input.isThere) continue;
        if (MustWait(m_last) || input.goFirst > 0 || input.isBack) return false;
        before = std::min(before, input.key);
    }
    Input& input = m_inputs[m_last];
    if (input.key >= before || !m_sources[m_last]->NextBlock(run, before)) return false;
    input.key = std::max({input.key, run.firstTime, run.lastTime});
    return true;
}

// A message goes into the ring first, and the ring of the run comes after that of the start: looked
// for the other way round, what one file shows of a moment the next one has, too.
bool TraceMerge::Advance() {
    if (!m_hasBegun) Begin();
    std::vector<size_t> more;
    for (auto i = m_order.rbegin(); i != m_order.rend(); ++i) {
        if (m_sources[*i]->Advance()) more.push_back(*i);
    }
    if (!more.empty()) Prepare(more);
    return !more.empty();
}
