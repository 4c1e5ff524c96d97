// What becomes of the chosen records: shown, counted, exported. A sink serves one call of the
// command.
#pragma once

#include "trace_reader/record.h"
#include "trace_reader/trace_merge.h"

class RecordSink {
  public:
    virtual ~RecordSink() = default;
    // Before the first record. `merge` outlives the sink; its Sources() name the files.
    virtual void Begin(const TraceMerge& /*merge*/) {}
    // One record, in order. Its views are valid during the call.
    virtual void Take(const TraceRecord& record) = 0;
    // After the last one. False: an error, which was reported.
    [[nodiscard]] virtual bool Finish() { return true; }
};
