// Messages stand in the log and in a ring: finds the one to the other, so that each is shown once.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <unordered_map>
#include <vector>

#include "trace_reader/record.h"
#include "trace_reader/trace_source.h"

// The same for both records of a message: time, thread and as much of the text as the log keeps.
[[nodiscard]] uint64_t HashRecord(const TraceRecord& record);

// All records of the logs.
class TwinIndex {
  public:
    struct Entry {
        uint64_t hash;
        uint64_t sequence;
        uint16_t source;
        bool isPaired;  // its twin was found
        bool isShown;
        uint32_t pairs;  // of the first one of those with its hash: so many of them are paired
    };

    // Reads a log to its end and rewinds it.
    void Add(TraceSource& log);
    // To be called behind the last Add.
    void Sort();

    // The times that records of the logs have, as in RunLimit::apart.
    [[nodiscard]] const uint64_t* Times() const { return m_times.data(); }
    // The first entry of a log that is not paired yet and is the twin of this record of a ring;
    // null when there is none.
    [[nodiscard]] Entry* FindTwin(const TraceRecord& record);
    // The entry of a record of a log; null when it came later.
    [[nodiscard]] Entry* FindEntry(const TraceRecord& record);

  private:
    [[nodiscard]] std::vector<Entry>::iterator Find(uint64_t hash);

    std::vector<Entry> m_entries;
    std::array<uint64_t, 1024> m_times{};  // a bit for each time that occurs: most do not
};

// The records that a reader who follows has shown of late and whose twin it has not met.
class RecentRecords {
  public:
    // Whether this is the twin of one that was shown; otherwise it is remembered.
    [[nodiscard]] bool IsTwin(const TraceRecord& record, bool isOfLog);

  private:
    static constexpr size_t kMost = 8192;

    std::unordered_map<uint64_t, int> m_balance;  // shown of rings less shown of logs
    std::deque<uint64_t> m_order;
};
