// Several trace files as one stream of records, in the order of time. A record never moves in front
// of another one of its own file, also where the clock went back. A message that stands in a log
// and in a ring is given once, in its place in the ring. Not for several threads.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "trace_reader/trace_source.h"
#include "trace_reader/twins.h"

class TraceMerge {
  public:
    // Everything that is no record too; for a reader that follows, see Advance. Before Add.
    void ShowAll(bool showAll) { m_showsAll = showAll; }
    void Follow() { m_follows = true; }

    // Adds a file; the same one only once. Also one that cannot be read or, for a reader that
    // follows, that is not there yet.
    void Add(const std::string& path);

    // Skips older records where that is cheap; as TraceSource::SeekTime. Before Next.
    void SeekTime(int64_t time);

    // False at the end. The views of a record are valid until the next call.
    [[nodiscard]] bool Next(TraceRecord& record);

    // Several at once, when nothing of other files comes between them: otherwise false, and Next
    // goes on.
    [[nodiscard]] bool NextRun(TraceRun& run);

    // What was written since the last look; Next then gives it. False: nothing.
    [[nodiscard]] bool Advance();

    // The files, by TraceRecord::source.
    [[nodiscard]] const std::vector<std::unique_ptr<TraceSource>>& Sources() const {
        return m_sources;
    }

  private:
    struct Input {
        TraceRecord head;
        bool isThere = false;
        bool isBack = false;      // its time is before that of a record in front of it
        bool isPaired = false;    // of a ring: the log was asked
        int64_t key = INT64_MIN;  // the highest time so far
        uint64_t drainTo = 0;     // of a log: what is in front of this goes first
    };

    void Begin();
    void Prepare(const std::vector<size_t>& sources);
    void Load(size_t number);
    [[nodiscard]] bool IsLog(size_t number) const;
    [[nodiscard]] bool MustWait(size_t number) const;
    [[nodiscard]] size_t Pick() const;
    [[nodiscard]] RunLimit FindLimit(size_t number) const;
    [[nodiscard]] bool IsShown(size_t number);
    [[nodiscard]] bool PairRing(size_t number);

    bool m_showsAll = false;
    bool m_follows = false;
    bool m_hasBegun = false;
    std::vector<std::unique_ptr<TraceSource>> m_sources;
    std::vector<Input> m_inputs;
    std::vector<size_t> m_order;  // start-up rings, run-time rings, logs
    size_t m_last = SIZE_MAX;     // whose head was given
    bool m_hasTwins = false;
    TwinIndex m_twins;
    RecentRecords m_recent;
};
