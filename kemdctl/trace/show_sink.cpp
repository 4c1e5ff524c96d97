#include "kemdctl/trace/show_sink.h"

std::unique_ptr<Printer> MakePrinter(const TraceOptions& options, Output& output) {
    switch (options.form) {
        case Form::kJson:
            return MakeJsonPrinter(output);
        case Form::kCsv:
            return MakeCsvPrinter(options.showsDelta || options.gap, output);
        case Form::kFull:
        case Form::kShort:
            break;
    }
    return MakeTextPrinter(options, output);
}

// Programs that read the records around gaps see by the delta where a gap is.
ShowSink::ShowSink(const TraceOptions& options)
    : m_output(options),
      m_printer(MakePrinter(options, m_output)),
      m_gap(options.gap),
      m_showsDelta(options.showsDelta ||
                   (options.gap && (options.form == Form::kJson || options.form == Form::kCsv))),
      m_takesBlocks(options.form == Form::kFull && !m_output.IsForTerminal() && !m_showsDelta &&
                    !m_gap) {}

void ShowSink::TakeBlock(std::string_view lines) {
    m_hasShown = true;
    m_output.PutBytes(lines);
    m_output.Text() += '\n';
}

void ShowSink::Print(const TraceRecord& record, const Printer::Delta& delta) {
    m_hasShown = true;
    m_printer->Print(record, m_showsDelta ? &delta : nullptr);
}

void ShowSink::Take(const TraceRecord& record) {
    Printer::Delta delta;
    if (m_lastTime) delta = record.time - *m_lastTime;
    m_lastTime = record.time;
    if (m_gap) {
        TakeForGaps(record, delta);
    } else {
        Print(record, delta);
    }
}

void ShowSink::TakeForGaps(const TraceRecord& record, const Printer::Delta& delta) {
    const bool isGap = delta && *delta > *m_gap;
    if (isGap) {
        if (!m_isBeforeShown) Print(m_before.Get(), m_deltaBefore);
        m_printer->PrintGap(*delta);
        Print(record, delta);
    }
    m_before.Keep(record);
    m_deltaBefore = delta;
    m_isBeforeShown = isGap;
}

bool ShowSink::Finish() {
    m_output.Flush();
    return true;
}
