#include "kemdctl/ui/report.h"

#include <cmath>

#include "base/json.h"
#include "kemdctl/ui/text.h"

void ReportWriter::Text(std::string_view key, std::string_view text) {
    if (!m_asJson) return;
    Begin(key);
    AppendJson(m_value, text);
    Write(m_value);
    m_needsComma = true;
}

void ReportWriter::Put(std::string_view key, std::string_view json) {
    if (!m_asJson) return;
    Begin(key);
    m_value += json;
    Write(m_value);
    m_needsComma = true;
}

void ReportWriter::Members(std::string_view object) {
    const size_t begin = object.find('{') + 1;
    const size_t end = object.rfind('}');
    if (begin < end && end != object.npos) Put({}, object.substr(begin, end - begin));
}

void ReportWriter::Real(std::string_view key, double number) {
    if (!m_asJson) return;
    Put(key, std::isfinite(number) ? NumberText(number) : "null");
}

void ReportWriter::Begin(std::string_view key) {
    m_value = m_needsComma ? "," : "";
    if (key.empty()) return;
    AppendJson(m_value, key);
    m_value += ':';
    m_hasError = m_hasError || (m_open.size() == 1 && key == "error");
}

void ReportWriter::Open(std::string_view key, char bracket) {
    if (!m_asJson) return;
    Begin(key);
    m_value += bracket;
    m_open += bracket == '{' ? '}' : ']';
    Write(m_value);
    m_needsComma = false;
}

void ReportWriter::Close() {
    if (!m_asJson || m_open.size() <= 1) return;
    Write({&m_open.back(), 1});
    m_open.pop_back();
    m_needsComma = true;
}

void ReportWriter::Line(std::string_view text) {
    if (m_asJson) return;
    Write(text);
    Write("\n");
}

void ReportWriter::Field(std::string_view label, std::string_view text) {
    if (m_asJson) return;
    std::string line(label);
    line += ':';
    if (line.size() < m_column) line.resize(m_column, ' ');
    Line(line.append(text));
}

void ReportWriter::Finish(int exitCode) {
    if (!m_asJson) return;
    const bool isStated = !m_open.empty() || m_isStream;
    const bool hasFailed = exitCode == kError || (exitCode != kYes && !isStated);
    while (m_open.size() > 1) Close();
    if (hasFailed && !m_hasError && !Complaints().empty()) {
        const bool isMember = !m_open.empty() && m_open.front() == '}';
        if (!isMember) Open({}, '{');
        Text("error", Complaints());
        if (!isMember) Close();
    }
    if (m_open.empty()) return;
    Write(m_open);
    Write("\n");
}
