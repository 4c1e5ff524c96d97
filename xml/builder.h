// Builds a document from the events of a parser: resolves name spaces and keeps the limits that can
// be kept event by event.
//
// All throw XmlRefusal, and std::bad_alloc.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "xml/tag.h"
#include "xml/tree.h"

// Why a document is refused.
struct XmlRefusal {
    uint32_t cause = KEMD_XML_CAUSE_SYNTAX;
    std::string text;
    uint32_t limit = 0;
};

// By KEMD_XML_LIMIT_.
using XmlLimits = std::array<uint64_t, 6>;
inline constexpr XmlLimits kXmlLimits = {uint64_t{256} << 20, 1000, uint64_t{1} << 24, 4096, 1024,
                                         uint64_t{1} << 20};

[[noreturn]] void RefuseLimit(const XmlLimits& limits, uint32_t limit);

class XmlBuilder {
  public:
    XmlBuilder(KemdXmlDocument& document, const XmlLimits& limits)
        : m_document(document), m_limits(limits) {}

    // `names` is as expat has it: name, value, ..., null. The first `specified` attributes are
    // those of the tag, which is null when there are none; the others are defaults.
    void Start(const char* name, const char* const* names, uint32_t place, XmlTag* tag,
               size_t specified);
    void End();
    // Whether the next text begins a node, which then needs a place.
    [[nodiscard]] bool BeginsText() const { return m_text == 0; }
    void Text(std::string_view text, uint32_t place);
    void StartCdata(uint32_t place);
    void EndText();
    // A comment, or an instruction with its target.
    void Other(uint32_t kind, std::string_view name, std::string_view text, uint32_t place);

    // Bytes of all names and texts so far: more than the document has only because of entities and
    // defaults.
    [[nodiscard]] uint64_t Delivered() const { return m_delivered; }
    // Where the element that is open began, and its name; empty outside of the root element.
    [[nodiscard]] XmlPlace OpenPlace() const { return m_document.Place(m_open); }
    [[nodiscard]] std::string_view OpenName() const {
        return m_document.strings.View(m_document.At(m_open).name);
    }

  private:
    struct Undo {
        uint32_t depth;
        uint32_t prefix;
        uint32_t uri;
    };

    // What is asked of the name of each element and attribute.
    struct KnownName {
        uint64_t key;  // an element's: its bytes; an attribute's: where expat has it
        uint32_t number;
        uint32_t length : 31;
        uint32_t isPlain : 1;  // has no prefix and declares nothing
    };

    uint32_t Name(std::string_view name);
    KnownName Known(uint64_t key, std::string_view name);
    KnownName ElementName(const char* name);
    const KnownName& AttributeName(const char* name);
    void CheckElementName(uint32_t name) const;
    void Count();
    void AddAttributes(const char* const* names, uint32_t place, XmlTag& tag, size_t specified);
    uint32_t AddShortText(const char* text, size_t length);
    void Declare(KemdXmlDocument::Attribute& attribute);
    void ResolveAttributes();
    [[nodiscard]] uint32_t Resolve(uint32_t name) const;
    uint32_t AddNode(uint32_t kind, uint32_t name, uint32_t place);
    uint32_t BeginText(uint32_t kind, uint32_t place);

    KemdXmlDocument& m_document;
    const XmlLimits& m_limits;
    uint32_t m_open = KEMD_XML_DOCUMENT_NODE;
    uint32_t m_depth = 0;
    uint32_t m_text = 0;  // the text or CDATA section that grows
    uint64_t m_delivered = 0;
    std::vector<uint32_t> m_uris{0};  // by number of a prefix, in scope now; 0: not declared
    std::vector<Undo> m_undo;         // what is in scope again after an element
    // Attributes of the element whose names are not plain, and keys to find duplicates among them.
    std::vector<uint32_t> m_notPlain;
    std::vector<uint64_t> m_keys;
    std::array<KnownName, 64> m_elementNames{};
    std::array<KnownName, 256> m_attributeNames{};
};
