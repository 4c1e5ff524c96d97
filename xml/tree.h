// A document: records in arrays that refer to each other by index, and one array of characters that
// all texts are in. Nothing is allocated for a single node. See docs/xml.md for the layout.
//
// Reading needs no lock as long as nobody changes the document. Changes throw std::bad_alloc and
// have no other effect then.
#pragma once

#include <string>
#include <string_view>

#include "kemd/xml.h"
#include "xml/pool.h"
#include "xml/string_table.h"

// A place in the document as it was read; both from 1 on, 0: none.
struct XmlPlace {
    uint32_t line = 0;
    uint32_t column = 0;
};

struct KemdXmlDocument {
  public:
    // `place` is the number of the character, from 1 on; 0: none, as of what was added later.
    struct Node {
        uint32_t kind : 4;   // KEMD_XML_ELEMENT ...
        uint32_t name : 28;  // number of a text in the table
        uint32_t parent;
        uint32_t next;
        union {
            uint32_t first;  // child
            uint32_t text;   // where it begins in the characters
        };
        union {
            uint32_t last;
            uint32_t length;
        };
        uint32_t attributes;  // the first
        uint32_t uri;         // number of a text in the table
        uint32_t place;
    };
    struct Attribute {
        uint32_t isNamespace : 1;
        uint32_t isDefault : 1;  // from the document type
        uint32_t name : 28;
        uint32_t owner;
        uint32_t next;
        uint32_t uri;
        uint32_t text;
        uint32_t length;
        uint32_t place;
    };
    struct Facts {
        std::string encoding = "UTF-8";
        std::string declared;
        std::string version = "1.0";
        std::string documentType;
        uint32_t encodingFrom = KEMD_XML_FROM_DEFAULT;
        int standalone = -1;
        uint32_t depth = 0;
        uint64_t bytes = 0;
    };

    KemdXmlDocument();
    KemdXmlDocument(const KemdXmlDocument&) = delete;
    KemdXmlDocument& operator=(const KemdXmlDocument&) = delete;
    ~KemdXmlDocument() = default;

    // Handles: the index of a node, or of an attribute with the highest bit.
    static constexpr uint32_t kAttributeBit = 0x80000000U;
    static bool IsAttribute(KemdXmlNode node) { return (node & kAttributeBit) != 0; }
    // Whether it is a node or attribute of this document.
    [[nodiscard]] bool Has(KemdXmlNode node) const;
    [[nodiscard]] const Node& At(uint32_t node) const { return nodes[node]; }
    [[nodiscard]] const Attribute& AttributeAt(KemdXmlNode node) const {
        return attributes[node & ~kAttributeBit];
    }
    [[nodiscard]] uint32_t Kind(KemdXmlNode node) const;
    [[nodiscard]] uint32_t NameNumber(KemdXmlNode node) const;
    [[nodiscard]] uint32_t UriNumber(KemdXmlNode node) const;
    [[nodiscard]] std::string_view Text(KemdXmlNode node) const;
    [[nodiscard]] XmlPlace Place(KemdXmlNode node) const {
        return PlaceOf(IsAttribute(node) ? AttributeAt(node).place : nodes[node].place);
    }
    [[nodiscard]] XmlPlace PlaceOf(uint32_t character) const;
    [[nodiscard]] KemdXmlNode Parent(KemdXmlNode node) const;
    [[nodiscard]] KemdXmlNode Next(KemdXmlNode node) const;
    // Walks from the first one.
    [[nodiscard]] KemdXmlNode Previous(KemdXmlNode node) const;
    [[nodiscard]] KemdXmlNode First(KemdXmlNode node) const;
    [[nodiscard]] KemdXmlNode FirstAttribute(KemdXmlNode node) const;
    [[nodiscard]] KemdXmlNode Root() const;
    // After it in the order of the document; those within it first unless `skip`. KEMD_XML_NONE
    // after the last one within `top`.
    [[nodiscard]] uint32_t Following(uint32_t node, uint32_t top, bool skip = false) const;
    // The number of the URI that a prefix (a number; 0: none) stands for at an element; 0 for none.
    [[nodiscard]] uint32_t UriOf(uint32_t prefix, uint32_t element) const;
    // The text of an element, of all texts within it.
    [[nodiscard]] std::string Content(KemdXmlNode node) const;
    [[nodiscard]] size_t Bytes() const;

    // For the builder and the editor.
    uint32_t Append(uint32_t parent, uint32_t before, const Node& node);
    uint32_t AddText(std::string_view text);
    void Unlink(uint32_t node);
    // The number of the prefix that a declaration declares, 0 for "xmlns".
    [[nodiscard]] uint32_t DeclaredPrefix(const Attribute& declaration) const;

    Pool<char> characters;
    StringTable strings{characters};
    Pool<Node> nodes;
    Pool<Attribute> attributes;
    Pool<uint32_t> lines;  // the first character of each, from the second line on
    Facts facts;
    uint32_t xmlPrefix;
    uint32_t xmlUri;
    uint32_t xmlnsName;  // also the prefix
    uint32_t xmlnsUri;
};
