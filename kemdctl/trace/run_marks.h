// The records by which the trace shows how a run of the daemon goes: start-up, the calls into the
// switch library, what becomes of the modules, the end.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "trace_reader/record.h"

struct RunMark {
    enum class Kind : uint8_t { kRunBegin, kInitialised, kCallBegin, kCallEnd, kExit, kFatal };
    Kind kind;
    std::string_view name;  // of the call: "load modules"; lives for ever
};
// Nothing for all other records.
[[nodiscard]] std::optional<RunMark> ParseRunMark(const TraceRecord& record);

// A phase of a run: the start-up, or a call.
struct RunSpan {
    std::string_view name;
    int64_t begin = 0;
    int64_t end = 0;
    bool isOpen = false;  // its end is not in the trace: `end` is the last record of its run
};

// Makes spans of marks. Memory is bounded: what is beyond the first thousands is dropped.
class RunSpans {
  public:
    // Every record, in order.
    void Add(const TraceRecord& record);
    // Closes what is open.
    void Finish();
    [[nodiscard]] const std::vector<RunSpan>& All() const { return m_spans; }

  private:
    void Begin(std::string_view name, int64_t time);
    void End(std::string_view name, int64_t time, bool isOpen);

    std::vector<RunSpan> m_open;
    std::vector<RunSpan> m_spans;
    int64_t m_lastTime = 0;
};

// Views into the record.
struct ModuleNote {
    std::string_view name;
    std::string_view state;
};
// Nothing for all other records.
[[nodiscard]] std::optional<ModuleNote> ParseModuleNote(const TraceRecord& record);
