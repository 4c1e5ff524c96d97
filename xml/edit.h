// Changes of a document; what they refuse would not be XML any more. These return an errno number,
// and throw std::bad_alloc with the document as it was.
#pragma once

#include <string_view>

#include "xml/tree.h"

// Whether all characters are UTF-8 and XML allows them.
bool IsXmlText(std::string_view text);
// Whether it can be the name of an element: one that the parser would accept.
bool IsXmlName(std::string_view name);

class XmlEditor {
  public:
    explicit XmlEditor(KemdXmlDocument& document) : m_document(document) {}

    [[nodiscard]] int Add(uint32_t parent, uint32_t before, uint32_t kind, std::string_view name,
                          std::string_view text, KemdXmlNode& node);
    // Null data: removes it.
    [[nodiscard]] int SetAttribute(uint32_t element, std::string_view name, std::string_view value);
    [[nodiscard]] int SetText(KemdXmlNode node, std::string_view text);
    [[nodiscard]] int Rename(uint32_t element, std::string_view name);
    [[nodiscard]] int Remove(KemdXmlNode node);

  private:
    [[nodiscard]] bool MayAdd(uint32_t parent, uint32_t before, uint32_t kind) const;
    [[nodiscard]] bool ResolveElement(uint32_t element);
    [[nodiscard]] bool HasBefore(uint32_t first, uint32_t at) const;
    [[nodiscard]] bool ResolveAll(uint32_t element);
    [[nodiscard]] bool MayDeclare(uint32_t name, std::string_view value);
    [[nodiscard]] uint32_t FindAttribute(uint32_t element, uint32_t name, uint32_t& last) const;
    void LinkAttribute(uint32_t element, uint32_t last, uint32_t next);

    KemdXmlDocument& m_document;
};
