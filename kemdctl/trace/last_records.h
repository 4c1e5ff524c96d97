// Passes the last records on to another sink, once it is known which ones these are.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kemdctl/trace/sink.h"
#include "trace_reader/record.h"

class LastRecords : public RecordSink {
  public:
    // Without `limit` everything is passed on at once. `next` outlives this.
    LastRecords(RecordSink& next, std::optional<uint64_t> limit) : m_next(next), m_limit(limit) {}

    void Begin(const TraceMerge& merge) override { m_next.Begin(merge); }
    void Take(const TraceRecord& record) override;
    [[nodiscard]] uint64_t Kept() const { return m_kept.size(); }
    void Forget() {
        m_kept.clear();
        m_oldest = 0;
    }
    // Passes on what was kept, and from now on everything.
    void Release();
    [[nodiscard]] bool Finish() override {
        Release();
        return m_next.Finish();
    }
    [[nodiscard]] uint64_t Passed() const { return m_passed; }

  private:
    void Pass(const TraceRecord& record) {
        ++m_passed;
        m_next.Take(record);
    }

    RecordSink& m_next;
    std::optional<uint64_t> m_limit;
    std::vector<KeptRecord> m_kept;  // the oldest at m_oldest, and so on in a circle
    size_t m_oldest = 0;
    uint64_t m_passed = 0;
};
