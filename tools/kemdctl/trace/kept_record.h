// A record that outlives the reader's buffer.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "trace_reader/record.h"

class KeptRecord {
  public:
    // Uses the memory of the record that was kept before.
    void Keep(const TraceRecord& record) {
        m_record = record;
        m_line.assign(record.line);
        m_tag = OffsetOf(record.tag);
        m_text = OffsetOf(record.text);
    }
    // Its views are valid until the next Keep.
    [[nodiscard]] TraceRecord Get() const {
        TraceRecord record = m_record;
        record.line = m_line;
        record.tag = record.line.substr(m_tag, m_record.tag.size());
        record.text = record.line.substr(m_text, m_record.text.size());
        return record;
    }

  private:
    // Views into the line, whose old bytes m_record still points to.
    [[nodiscard]] size_t OffsetOf(std::string_view part) const {
        return part.empty() ? 0 : static_cast<size_t>(part.data() - m_record.line.data());
    }

    std::string m_line;
    TraceRecord m_record;
    size_t m_tag = 0;
    size_t m_text = 0;
};
