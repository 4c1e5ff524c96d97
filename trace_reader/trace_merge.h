// Several trace files as one stream of records, in the order of time. A record never moves before
// another one of its own file, also where the clock went back. A message that stands in a log and
// in a ring is given once, in its place in the ring. Not for several threads.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "trace_reader/trace_source.h"

class TraceMerge {
  public:
    // Also what is not a record; for a reader that follows, see Advance. Before Add.
    void ShowAll(bool showAll) { m_showsAll = showAll; }
    void Follow() { m_follows = true; }

    // Adds a file; the same one only once. Also one that cannot be read or, for a reader that
    // follows, that is not there yet.
    void Add(const std::string& path);

    // Begins again with the first record; of each file leaves out what TraceSource::Select does.
    void Select(int64_t since, int64_t until, uint64_t last = UINT64_MAX);
    // False: of some file there may be records before the one that was given last, which Select
    // left out for being more than `last`.
    [[nodiscard]] bool IsComplete() const;
    [[nodiscard]] bool IsShortened() const;

    // False at the end. The views of a record are valid until the next call.
    [[nodiscard]] bool Next(TraceRecord& record);

    // Several at once, when nothing of other files comes between them: otherwise false, and Next
    // goes on.
    [[nodiscard]] bool NextBlock(RecordBlock& run);

    // What was written since the last look; Next then gives it. False: nothing.
    [[nodiscard]] bool Advance();

    // The files, by TraceRecord::source.
    [[nodiscard]] const std::vector<std::unique_ptr<TraceSource>>& Sources() const {
        return m_sources;
    }

  private:
    struct Ahead {
        KeptRecord record;
        bool isDuplicate = false;
    };
    struct Input {
        TraceRecord head;
        bool isThere = false;
        bool hasBegun = false;    // a record was given
        bool isBack = false;      // the head's time is before that of an earlier record
        bool isPaired = false;    // of a ring: the logs were asked
        int64_t key = INT64_MIN;  // the highest time so far
        // Of a log: its next records up to the first with another time than the head.
        std::deque<Ahead> ahead;
        size_t goFirst = 0;  // so many of them come before the rings' records of their time
    };

    void Begin();
    void Prepare(const std::vector<size_t>& sources);
    void Load(size_t number);
    void LoadAhead(size_t number);
    [[nodiscard]] bool IsLog(size_t number) const { return m_sources[number]->IsLog(); }
    [[nodiscard]] bool MustWait(size_t number) const;
    [[nodiscard]] size_t Pick() const;
    void Pair(size_t ring);
    void PairFirst(size_t ring, Input& log);
    [[nodiscard]] bool WasShown(const TraceRecord& record, bool isOfLog);

    bool m_showsAll = false;
    bool m_follows = false;
    bool m_hasBegun = false;
    std::vector<std::unique_ptr<TraceSource>> m_sources;
    std::vector<Input> m_inputs;
    std::vector<size_t> m_order;  // start-up rings, run-time rings, logs
    size_t m_last = SIZE_MAX;     // whose head was given
    // While following, the last records by their hashes: shown of rings less shown of logs.
    std::unordered_map<uint64_t, int> m_balance;
    std::deque<uint64_t> m_recent;
};
