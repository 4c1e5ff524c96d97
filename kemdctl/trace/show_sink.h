// Shows records on standard output, in one of several forms, all of them or those around gaps.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "kemdctl/trace/options.h"
#include "kemdctl/trace/output.h"
#include "kemdctl/trace/sink.h"
#include "trace_reader/record.h"
#include "trace_reader/trace_merge.h"

class Printer {
  public:
    virtual ~Printer() = default;
    // Before everything else.
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

// Shows records on standard output, all of them or those around gaps.
class ShowSink : public RecordSink {
  public:
    // `options` outlive this.
    explicit ShowSink(const TraceOptions& options);

    void Begin(const TraceMerge& merge) override { m_printer->Begin(merge); }
    void Take(const TraceRecord& record) override;
    [[nodiscard]] bool Finish() override;

    // Whether records are shown as they are in the file, so that several may be taken at once.
    [[nodiscard]] bool TakesBlocks() const { return m_takesBlocks; }
    // Without the last line feed.
    void TakeBlock(std::string_view lines);
    // What came so far goes out.
    void Flush() { m_output.Flush(); }
    [[nodiscard]] bool IsClosed() const { return m_output.IsClosed(); }
    // Whether there was something to be shown.
    [[nodiscard]] bool HasShown() const { return m_hasShown; }

  private:
    void TakeForGaps(const TraceRecord& record, const Printer::Delta& delta);
    void Print(const TraceRecord& record, const Printer::Delta& delta);

    Output m_output;
    std::unique_ptr<Printer> m_printer;
    std::optional<int64_t> m_gap;
    bool m_showsDelta;
    bool m_takesBlocks;
    bool m_hasShown = false;
    std::optional<int64_t> m_lastTime;
    KeptRecord m_before;  // with --gaps: the record before, its delta, whether it was shown
    Printer::Delta m_deltaBefore;
    bool m_isBeforeShown = false;
};
