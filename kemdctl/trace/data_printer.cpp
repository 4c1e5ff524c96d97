// Records for other programs: JSON, one object a line, and CSV.
#include <array>
#include <cstdio>
#include <string>
#include <string_view>

#include "base/json.h"
#include "kemdctl/trace/show_sink.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/record.h"

namespace {

std::string Thread(const TraceRecord& record) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%08X", record.thread);
    return text.data();
}

std::string Seconds(int64_t milliseconds) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3f", static_cast<double>(milliseconds) / 1000);
    return text.data();
}

// --raw also shows what is not a record.
const char* KindName(RecordKind kind) {
    switch (kind) {
        case RecordKind::kRecord:
            return "record";
        case RecordKind::kHeader:
            return "header";
        case RecordKind::kBegin:
            return "begin";
        case RecordKind::kWrap:
            return "wrap";
        case RecordKind::kTrailerLine:
            return "trailer";
        case RecordKind::kFill:
            return "fill";
        case RecordKind::kFragment:
            return "fragment";
        case RecordKind::kOther:
            break;
    }
    return "other";
}

class JsonPrinter : public Printer {
  public:
    explicit JsonPrinter(Output& output) : m_output(output) {}

    void Begin(const TraceMerge& merge) override { m_merge = &merge; }

    void Print(const TraceRecord& record, const Delta* delta) override {
        std::string& to = m_output.Text();
        to += std::string("{\"time\":\"") + FormatTime(record.time).data() + "\",\"thread\":\"" +
              Thread(record) + "\"";
        if (record.residentKb >= 0) to += ",\"residentKb\":" + std::to_string(record.residentKb);
        to += ",\"tag\":";
        AppendJson(to, record.tag);
        to += ",\"text\":";
        AppendJson(to, record.text);
        to += ",\"file\":";
        AppendJson(to, m_merge->Sources()[record.source]->Path());
        if (delta != nullptr && *delta) to += ",\"delta\":" + Seconds(**delta);
        if (record.kind != RecordKind::kRecord) {
            to += std::string(",\"kind\":\"") + KindName(record.kind) + "\"";
        }
        to += "}\n";
        m_output.EndRecord();
    }

  private:
    Output& m_output;
    const TraceMerge* m_merge = nullptr;
};

// As RFC 4180 has it.
class CsvPrinter : public Printer {
  public:
    CsvPrinter(bool showsDelta, Output& output) : m_output(output), m_showsDelta(showsDelta) {}

    void Begin(const TraceMerge& merge) override {
        m_merge = &merge;
        m_output.Text() += "time,thread,residentKb,tag,text,file";
        m_output.Text() += m_showsDelta ? ",delta\r\n" : "\r\n";
    }

    void Print(const TraceRecord& record, const Delta* delta) override {
        std::string& to = m_output.Text();
        to += std::string(FormatTime(record.time).data()) + "," + Thread(record) + ",";
        if (record.residentKb >= 0) to += std::to_string(record.residentKb);
        for (const std::string_view field :
             {record.tag, record.text,
              std::string_view(m_merge->Sources()[record.source]->Path())}) {
            to += ',';
            PutField(field);
        }
        if (delta != nullptr) to += "," + (*delta ? Seconds(**delta) : "");
        to += "\r\n";
        m_output.EndRecord();
    }

  private:
    void PutField(std::string_view field) {
        const std::string shown = m_output.IsForTerminal() ? Printable(field) : std::string(field);
        if (shown.find_first_of(",\"\r\n") == shown.npos) {
            m_output.Text() += shown;
            return;
        }
        m_output.Text() += '"';
        for (const char c : shown) {
            if (c == '"') m_output.Text() += '"';
            m_output.Text() += c;
        }
        m_output.Text() += '"';
    }

    Output& m_output;
    bool m_showsDelta;
    const TraceMerge* m_merge = nullptr;
};

}  // namespace

std::unique_ptr<Printer> MakeJsonPrinter(Output& output) {
    return std::make_unique<JsonPrinter>(output);
}

std::unique_ptr<Printer> MakeCsvPrinter(bool showsDelta, Output& output) {
    return std::make_unique<CsvPrinter>(showsDelta, output);
}
