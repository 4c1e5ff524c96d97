#include "xml/tree.h"

#include <algorithm>

KemdXmlDocument::KemdXmlDocument()
    : xmlPrefix(strings.Add("xml")),
      xmlUri(strings.Add("http://www.w3.org/XML/1998/namespace")),
      xmlnsName(strings.Add("xmlns")),
      xmlnsUri(strings.Add("http://www.w3.org/2000/xmlns/")) {
    nodes.Add({});  // KEMD_XML_NONE
    nodes.Add({});  // KEMD_XML_DOCUMENT_NODE
    attributes.Add({});
}

bool KemdXmlDocument::Has(KemdXmlNode node) const {
    const uint32_t index = node & ~kAttributeBit;
    if (index == 0) return false;
    return IsAttribute(node) ? index < attributes.Size() : index < nodes.Size();
}

uint32_t KemdXmlDocument::Kind(KemdXmlNode node) const {
    if (!IsAttribute(node)) return nodes[node].kind;
    return AttributeAt(node).isNamespace != 0 ? KEMD_XML_NAMESPACE : KEMD_XML_ATTRIBUTE;
}

uint32_t KemdXmlDocument::NameNumber(KemdXmlNode node) const {
    return IsAttribute(node) ? AttributeAt(node).name : nodes[node].name;
}

uint32_t KemdXmlDocument::UriNumber(KemdXmlNode node) const {
    return IsAttribute(node) ? AttributeAt(node).uri : nodes[node].uri;
}

std::string_view KemdXmlDocument::Text(KemdXmlNode node) const {
    if (IsAttribute(node)) {
        const Attribute& attribute = AttributeAt(node);
        return {characters.Data() + attribute.text, attribute.length};
    }
    const Node& each = nodes[node];
    if (each.kind == KEMD_XML_ELEMENT || each.kind == KEMD_XML_DOCUMENT) return "";
    return {characters.Data() + each.text, each.length};
}

XmlPlace KemdXmlDocument::PlaceOf(uint32_t character) const {
    if (character == 0) return {};
    const uint32_t* const end = lines.Data() + lines.Size();
    const uint32_t* const next = std::upper_bound(lines.Data(), end, character);
    const uint32_t first = next == lines.Data() ? 1 : next[-1];
    return {static_cast<uint32_t>(next - lines.Data()) + 1, character - first + 1};
}

KemdXmlNode KemdXmlDocument::Parent(KemdXmlNode node) const {
    return IsAttribute(node) ? AttributeAt(node).owner : nodes[node].parent;
}

KemdXmlNode KemdXmlDocument::Next(KemdXmlNode node) const {
    if (!IsAttribute(node)) return nodes[node].next;
    const uint32_t next = AttributeAt(node).next;
    return next == 0 ? KEMD_XML_NONE : next | kAttributeBit;
}

KemdXmlNode KemdXmlDocument::Previous(KemdXmlNode node) const {
    const KemdXmlNode parent = Parent(node);
    KemdXmlNode each = IsAttribute(node) ? FirstAttribute(parent) : First(parent);
    KemdXmlNode previous = KEMD_XML_NONE;
    for (; each != node && each != KEMD_XML_NONE; each = Next(each)) previous = each;
    return each == node ? previous : KEMD_XML_NONE;
}

KemdXmlNode KemdXmlDocument::First(KemdXmlNode node) const {
    if (IsAttribute(node)) return KEMD_XML_NONE;
    const Node& each = nodes[node];
    return each.kind == KEMD_XML_ELEMENT || each.kind == KEMD_XML_DOCUMENT ? each.first
                                                                           : KEMD_XML_NONE;
}

KemdXmlNode KemdXmlDocument::FirstAttribute(KemdXmlNode node) const {
    if (IsAttribute(node) || nodes[node].attributes == 0) return KEMD_XML_NONE;
    return nodes[node].attributes | kAttributeBit;
}

KemdXmlNode KemdXmlDocument::Root() const {
    KemdXmlNode node = First(KEMD_XML_DOCUMENT_NODE);
    while (node != KEMD_XML_NONE && nodes[node].kind != KEMD_XML_ELEMENT) node = nodes[node].next;
    return node;
}

uint32_t KemdXmlDocument::Following(uint32_t node, uint32_t top, bool skip) const {
    if (const uint32_t child = skip ? KEMD_XML_NONE : First(node); child != KEMD_XML_NONE) {
        return child;
    }
    while (node != top && nodes[node].next == KEMD_XML_NONE) node = nodes[node].parent;
    return node == top ? KEMD_XML_NONE : nodes[node].next;
}

uint32_t KemdXmlDocument::DeclaredPrefix(const Attribute& declaration) const {
    if (declaration.name == xmlnsName) return 0;
    return strings.Find(strings.Local(declaration.name));
}

uint32_t KemdXmlDocument::UriOf(uint32_t prefix, uint32_t element) const {
    if (prefix == xmlPrefix) return xmlUri;
    for (; element > KEMD_XML_DOCUMENT_NODE; element = nodes[element].parent) {
        for (uint32_t at = nodes[element].attributes; at != 0; at = attributes[at].next) {
            const Attribute& each = attributes[at];
            if (each.isNamespace == 0 || DeclaredPrefix(each) != prefix) continue;
            return strings.Find({characters.Data() + each.text, each.length});
        }
    }
    return 0;
}

std::string KemdXmlDocument::Content(KemdXmlNode node) const {
    if (First(node) == KEMD_XML_NONE) return std::string(Text(node));
    std::string content;
    for (uint32_t each = Following(node, node); each != 0; each = Following(each, node)) {
        const uint32_t kind = nodes[each].kind;
        if (kind == KEMD_XML_TEXT || kind == KEMD_XML_CDATA) content += Text(each);
    }
    return content;
}

size_t KemdXmlDocument::Bytes() const {
    return characters.Bytes() + strings.Bytes() + nodes.Bytes() + attributes.Bytes() +
           lines.Bytes() + facts.documentType.capacity();
}

uint32_t KemdXmlDocument::Append(uint32_t parent, uint32_t before, const Node& node) {
    const uint32_t previous = before == 0 ? nodes[parent].last : Previous(before);
    const uint32_t index = nodes.Add(node);
    nodes[index].parent = parent;
    nodes[index].next = before;
    (previous == 0 ? nodes[parent].first : nodes[previous].next) = index;
    if (before == 0) nodes[parent].last = index;
    return index;
}

uint32_t KemdXmlDocument::AddText(std::string_view text) {
    if (text.empty()) return 0;
    char* const room = characters.Grow(text.size() + 1);
    std::memcpy(room, text.data(), text.size());
    room[text.size()] = '\0';
    return static_cast<uint32_t>(room - characters.Data());
}

void KemdXmlDocument::Unlink(uint32_t node) {
    const uint32_t previous = Previous(node);
    const Node& gone = nodes[node];
    Node& parent = nodes[gone.parent];
    (previous == 0 ? parent.first : nodes[previous].next) = gone.next;
    if (gone.next == 0) parent.last = previous;
}
