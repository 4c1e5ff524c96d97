// The forms in which records are shown.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "kemdctl/trace/options.h"
#include "kemdctl/trace/output.h"
#include "trace_reader/trace_merge.h"

class Printer {
  public:
    virtual ~Printer() = default;
    // In front of everything.
    virtual void Begin(const TraceMerge& /*merge*/) {}
    // `delta`: milliseconds since the record before, null when that is not to be shown. The first
    // record has none.
    using Delta = std::optional<int64_t>;
    virtual void Print(const TraceRecord& record, const Delta* delta) = 0;
    // Between the records on both sides of a gap of so many milliseconds.
    virtual void PrintGap(int64_t /*length*/) {}
};

// Of the form that is asked for. All outlive the printer.
[[nodiscard]] std::unique_ptr<Printer> MakePrinter(const TraceOptions& options, Output& output);
[[nodiscard]] std::unique_ptr<Printer> MakeTextPrinter(const TraceOptions& options, Output& output);
[[nodiscard]] std::unique_ptr<Printer> MakeJsonPrinter(Output& output);
[[nodiscard]] std::unique_ptr<Printer> MakeCsvPrinter(bool showsDelta, Output& output);
