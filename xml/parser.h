// Reads documents one after another, with limits and an encoding that stay: see kemd/xml.h.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kemd/xml.h"
#include "xml/builder.h"
#include "xml/encoding.h"
#include "xml/tree.h"

class XmlRun;

struct KemdXmlParser {
  public:
    KemdXmlParser();
    KemdXmlParser(const KemdXmlParser&) = delete;
    KemdXmlParser& operator=(const KemdXmlParser&) = delete;
    ~KemdXmlParser();

    // These return an errno number and may throw std::bad_alloc.
    [[nodiscard]] int SetLimit(uint32_t limit, uint64_t value);
    [[nodiscard]] int SetEncoding(const char* name);
    [[nodiscard]] int Feed(std::string_view bytes);
    [[nodiscard]] int Finish(std::unique_ptr<KemdXmlDocument>& document);
    // A whole document, or the rest of one.
    [[nodiscard]] int Parse(std::string_view bytes, std::unique_ptr<KemdXmlDocument>& document);
    [[nodiscard]] int ReadFile(const char* path, std::unique_ptr<KemdXmlDocument>& document);
    [[nodiscard]] const KemdXmlError& Error() const { return m_error; }
    // Drops a document that was begun.
    void Reset();

  private:
    void Begin(uint64_t expected);

    XmlLimits m_limits = kXmlLimits;
    std::optional<Encoding> m_wanted;
    KemdXmlError m_error{};
    std::unique_ptr<XmlRun> m_run;  // null: between two documents
};
