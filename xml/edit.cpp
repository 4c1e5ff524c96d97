#include "xml/edit.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>

#include "base/utf8.h"
#include "xml/run.h"  // expat

namespace {

bool IsXmlCharacter(uint32_t character) {
    if (character < 0x20) return character == '\t' || character == '\n' || character == '\r';
    return character != 0xFFFE && character != 0xFFFF;
}

bool IsAsciiName(std::string_view name) {
    const auto isStart = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
    };
    return !name.empty() && isStart(name[0]) &&
           std::all_of(name.begin(), name.end(), [isStart](char c) {
               return isStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
           });
}

bool IsContent(uint32_t kind, std::string_view text) {
    if (!IsXmlText(text)) return false;
    if (kind == KEMD_XML_COMMENT) {
        return text.find("--") == text.npos && !text.ends_with('-');
    }
    if (kind != KEMD_XML_INSTRUCTION) return true;
    // Blanks before it would be gone when it is read again.
    return text.find("?>") == text.npos && (text.empty() || text.find_first_of(" \t\r\n") != 0);
}

bool IsReservedTarget(std::string_view name) {
    return name.size() == 3 && (name[0] | 0x20) == 'x' && (name[1] | 0x20) == 'm' &&
           (name[2] | 0x20) == 'l';
}

}  // namespace

bool IsXmlText(std::string_view text) {
    for (size_t at = 0; at < text.size();) {
        const size_t length = Utf8Length(text.substr(at));
        if (length == 0 || !IsXmlCharacter(CodePoint(text.substr(at, length)))) return false;
        at += length;
    }
    return true;
}

bool IsXmlName(std::string_view name) {
    if (IsAsciiName(name)) return true;
    if (name.find_first_of(" \t\r\n/<>=\"'&") != name.npos || !IsXmlText(name)) return false;
    // The table of the characters of names is in expat.
    const std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> parser(
        XML_ParserCreate("UTF-8"), &XML_ParserFree);
    if (parser == nullptr) throw std::bad_alloc();
    const std::string text = "<" + std::string(name) + "/>";
    return XML_Parse(parser.get(), text.data(), static_cast<int>(text.size()), 1) == XML_STATUS_OK;
}

// An element's and its attributes' name spaces, by what is declared around them. False: a prefix is
// not declared, or an attribute is there twice.
bool XmlEditor::ResolveElement(uint32_t element) {
    const StringTable& strings = m_document.strings;
    const uint32_t prefix = strings.Prefix(m_document.At(element).name);
    m_document.nodes[element].uri = m_document.UriOf(prefix, element);
    if (prefix != 0 && m_document.At(element).uri == 0) return false;
    const uint32_t first = m_document.At(element).attributes;
    for (uint32_t at = first; at != 0; at = m_document.attributes[at].next) {
        KemdXmlDocument::Attribute& each = m_document.attributes[at];
        const uint32_t itsPrefix = strings.Prefix(each.name);
        if (each.isNamespace != 0 || itsPrefix == 0) continue;
        each.uri = m_document.UriOf(itsPrefix, element);
        if (each.uri == 0) return false;
        if (HasBefore(first, at)) return false;
    }
    return true;
}

// Whether an attribute between the first one and this one has its expanded name.
bool XmlEditor::HasBefore(uint32_t first, uint32_t at) const {
    const KemdXmlDocument::Attribute& each = m_document.attributes[at];
    const std::string_view local = m_document.strings.Local(each.name);
    for (uint32_t other = first; other != at; other = m_document.attributes[other].next) {
        const KemdXmlDocument::Attribute& before = m_document.attributes[other];
        if (before.uri == each.uri && m_document.strings.Local(before.name) == local) return true;
    }
    return false;
}

bool XmlEditor::ResolveAll(uint32_t element) {
    bool isGood = true;
    for (uint32_t each = element; each != 0; each = m_document.Following(each, element)) {
        if (m_document.At(each).kind == KEMD_XML_ELEMENT) isGood = ResolveElement(each) && isGood;
    }
    return isGood;
}

bool XmlEditor::MayAdd(uint32_t parent, uint32_t before, uint32_t kind) const {
    const bool isPlace =
        m_document.Has(parent) && !KemdXmlDocument::IsAttribute(parent) &&
        (before == 0 || (m_document.Has(before) && !KemdXmlDocument::IsAttribute(before) &&
                         m_document.At(before).parent == parent));
    if (!isPlace || kind < KEMD_XML_ELEMENT || kind > KEMD_XML_INSTRUCTION) return false;
    const bool isOutside = m_document.Kind(parent) == KEMD_XML_DOCUMENT;
    if (!isOutside) return m_document.Kind(parent) == KEMD_XML_ELEMENT;
    return kind == KEMD_XML_COMMENT || kind == KEMD_XML_INSTRUCTION ||
           (kind == KEMD_XML_ELEMENT && m_document.Root() == KEMD_XML_NONE);
}

int XmlEditor::Add(uint32_t parent, uint32_t before, uint32_t kind, std::string_view name,
                   std::string_view text, KemdXmlNode& node) {
    const bool hasName = kind == KEMD_XML_ELEMENT || kind == KEMD_XML_INSTRUCTION;
    if (!MayAdd(parent, before, kind) || (hasName && !IsXmlName(name)) || !IsContent(kind, text) ||
        (kind == KEMD_XML_ELEMENT && !text.empty())) {
        return EINVAL;
    }
    if (kind == KEMD_XML_INSTRUCTION && (IsReservedTarget(name) || name.find(':') != name.npos)) {
        return EINVAL;
    }
    KemdXmlDocument::Node added{};
    added.kind = kind & 0xF;
    added.name = m_document.strings.Add(hasName ? name : "") & 0x0FFFFFFF;
    if (kind == KEMD_XML_ELEMENT) {
        const uint32_t prefix = m_document.strings.Prefix(added.name);
        added.uri = m_document.UriOf(prefix, parent);
        if (!m_document.strings.IsQualifiedName(added.name) || (prefix != 0 && added.uri == 0)) {
            return EINVAL;
        }
    } else {
        added.text = m_document.AddText(text);
        added.length = static_cast<uint32_t>(text.size());
    }
    node = m_document.Append(parent, before, added);
    return 0;
}

uint32_t XmlEditor::FindAttribute(uint32_t element, uint32_t name, uint32_t& last) const {
    last = 0;
    uint32_t at = m_document.At(element).attributes;
    while (at != 0 && m_document.attributes[at].name != name) {
        last = at;
        at = m_document.attributes[at].next;
    }
    return at;
}

void XmlEditor::LinkAttribute(uint32_t element, uint32_t last, uint32_t next) {
    (last == 0 ? m_document.nodes[element].attributes : m_document.attributes[last].next) = next;
}

bool XmlEditor::MayDeclare(uint32_t name, std::string_view value) {
    const std::string_view local =
        name == m_document.xmlnsName ? "" : m_document.strings.Local(name);
    if (local == "xml" || local == "xmlns" || (value.empty() && !local.empty())) return false;
    return value != m_document.strings.View(m_document.xmlUri) &&
           value != m_document.strings.View(m_document.xmlnsUri);
}

int XmlEditor::SetAttribute(uint32_t element, std::string_view name, std::string_view value) {
    const bool removes = value.data() == nullptr;
    if (!m_document.Has(element) || m_document.Kind(element) != KEMD_XML_ELEMENT ||
        !IsXmlName(name) || !IsXmlText(value)) {
        return EINVAL;
    }
    KemdXmlDocument::Attribute wanted{};
    wanted.name = m_document.strings.Add(name) & 0x0FFFFFFF;
    const uint32_t prefix = m_document.strings.Prefix(wanted.name);
    const bool declares = wanted.name == m_document.xmlnsName || prefix == m_document.xmlnsName;
    if (!m_document.strings.IsQualifiedName(wanted.name)) return EINVAL;
    if (declares && !removes && !MayDeclare(wanted.name, value)) return EINVAL;

    uint32_t last = 0;
    uint32_t at = FindAttribute(element, wanted.name, last);
    if (at == 0 && removes) return ENOENT;
    const KemdXmlDocument::Attribute old = m_document.attributes[at];
    wanted.isNamespace = declares ? 1 : 0;
    wanted.owner = element;
    wanted.next = old.next;
    wanted.place = old.place;
    wanted.uri = declares ? m_document.xmlnsUri : 0;
    if (declares) (void)m_document.strings.Add(value);
    if (declares && prefix != 0) {
        (void)m_document.strings.Add(std::string(m_document.strings.Local(wanted.name)));
    }
    wanted.text = m_document.AddText(value);
    wanted.length = static_cast<uint32_t>(value.size());
    const bool isNew = at == 0;
    if (isNew) {
        at = m_document.attributes.Add(wanted);
        LinkAttribute(element, last, at);
    } else if (removes) {
        LinkAttribute(element, last, old.next);
    } else {
        m_document.attributes[at] = wanted;
    }
    if (declares ? ResolveAll(element) : ResolveElement(element)) {
        if (removes) m_document.attributes[at].owner = KEMD_XML_NONE;
        return 0;
    }
    // As it was.
    if (!isNew) m_document.attributes[at] = old;
    LinkAttribute(element, last, isNew ? 0 : at);
    (void)(declares ? ResolveAll(element) : ResolveElement(element));
    return EINVAL;
}

int XmlEditor::SetText(KemdXmlNode node, std::string_view text) {
    if (!m_document.Has(node)) return EINVAL;
    const uint32_t kind = m_document.Kind(node);
    if (kind == KEMD_XML_ATTRIBUTE || kind == KEMD_XML_NAMESPACE) {
        const std::string name(m_document.strings.View(m_document.NameNumber(node)));
        return SetAttribute(m_document.Parent(node), name, text);
    }
    if (kind == KEMD_XML_DOCUMENT || !IsContent(kind, text)) return EINVAL;
    if (kind == KEMD_XML_ELEMENT) {
        uint32_t added = 0;
        const uint32_t first = m_document.First(node);
        if (!text.empty()) {
            const int error = Add(node, 0, KEMD_XML_TEXT, {}, text, added);
            if (error != 0) return error;
        }
        for (uint32_t each = first; each != added && each != 0;) {
            const uint32_t next = m_document.At(each).next;
            m_document.Unlink(each);
            m_document.nodes[each].parent = KEMD_XML_NONE;
            each = next;
        }
        return 0;
    }
    const uint32_t start = m_document.AddText(text);
    m_document.nodes[node].text = start;
    m_document.nodes[node].length = static_cast<uint32_t>(text.size());
    return 0;
}

int XmlEditor::Rename(uint32_t element, std::string_view name) {
    if (!m_document.Has(element) || m_document.Kind(element) != KEMD_XML_ELEMENT ||
        !IsXmlName(name)) {
        return EINVAL;
    }
    const uint32_t number = m_document.strings.Add(name) & 0x0FFFFFFF;
    const uint32_t prefix = m_document.strings.Prefix(number);
    const uint32_t uri = m_document.UriOf(prefix, element);
    if (!m_document.strings.IsQualifiedName(number) || (prefix != 0 && uri == 0)) return EINVAL;
    m_document.nodes[element].name = number;
    m_document.nodes[element].uri = uri;
    return 0;
}

int XmlEditor::Remove(KemdXmlNode node) {
    if (!m_document.Has(node) || node == KEMD_XML_DOCUMENT_NODE || node == m_document.Root()) {
        return EINVAL;
    }
    if (KemdXmlDocument::IsAttribute(node)) {
        const std::string name(m_document.strings.View(m_document.NameNumber(node)));
        return SetAttribute(m_document.Parent(node), name, {});
    }
    if (m_document.At(node).parent == KEMD_XML_NONE) return EINVAL;
    m_document.Unlink(node);
    m_document.nodes[node].parent = KEMD_XML_NONE;
    return 0;
}
