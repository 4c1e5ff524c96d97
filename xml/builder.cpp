#include "xml/builder.h"

#include <algorithm>

namespace {

constexpr uint64_t kMostNodes = 0x7FFFFFF0;
constexpr uint32_t kNameBits = 0x0FFFFFFF;
constexpr uint32_t kMostNames = kNameBits - 8;

[[noreturn]] void RefuseNames(std::string text) {
    throw XmlRefusal{KEMD_XML_CAUSE_NAMESPACE, std::move(text)};
}

std::string Quoted(std::string_view name) {
    return "\"" + std::string(name) + "\"";
}

}  // namespace

void RefuseLimit(const XmlLimits& limits, uint32_t limit) {
    const std::string value = std::to_string(limits[limit]);
    std::string text;
    switch (limit) {
        case KEMD_XML_LIMIT_SIZE:
            text = "the document has more than " + value + " bytes";
            break;
        case KEMD_XML_LIMIT_DEPTH:
            text = "more than " + value + " elements are within each other";
            break;
        case KEMD_XML_LIMIT_NODES:
            text = "the document has more than " + value + " nodes";
            break;
        case KEMD_XML_LIMIT_ATTRIBUTES:
            text = "an element has more than " + value + " attributes";
            break;
        case KEMD_XML_LIMIT_NAME:
            text = "a name has more than " + value + " bytes";
            break;
        default:
            text = "entities and defaults add more than " + value + " bytes to the document";
    }
    throw XmlRefusal{KEMD_XML_CAUSE_LIMIT, text, limit};
}

XmlBuilder::KnownName XmlBuilder::Known(uint64_t key, std::string_view name) {
    const uint32_t number = Name(name);
    const StringTable& strings = m_document.strings;
    const bool isPlain = strings.IsQualifiedName(number) && strings.Prefix(number) == 0 &&
                         number != m_document.xmlnsName;
    return {key, number, static_cast<uint32_t>(name.size()) & 0x7FFFFFFFU, isPlain ? 1U : 0U};
}

// Most names are short, and the same again and again.
XmlBuilder::KnownName XmlBuilder::ElementName(const char* name) {
    uint64_t word = 0;
    size_t size = 0;
    for (; size < sizeof word && name[size] != '\0'; ++size) {
        word |= uint64_t{static_cast<unsigned char>(name[size])} << 8 * size;
    }
    if (name[size] != '\0') return Known(0, name);
    KnownName& known = m_elementNames[word * 0x9E3779B97F4A7C15U >> 58];
    if (known.key != word) known = Known(word, {name, size});
    return known;
}

// expat has each name of an attribute in one place for as long as it lives.
const XmlBuilder::KnownName& XmlBuilder::AttributeName(const char* name) {
    const auto key = reinterpret_cast<uintptr_t>(name);
    KnownName& known = m_attributeNames[key % m_attributeNames.size()];
    if (known.key != key) known = Known(key, name);
    return known;
}

void XmlBuilder::CheckElementName(uint32_t name) const {
    const StringTable& strings = m_document.strings;
    if (strings.IsQualifiedName(name) && strings.Prefix(name) != m_document.xmlnsName) return;
    RefuseNames("the element " + Quoted(strings.View(name)) + " is no name with one prefix");
}

uint32_t XmlBuilder::Name(std::string_view name) {
    if (const uint32_t known = m_document.strings.Find(name); known != 0) return known;
    const uint64_t most = m_limits[KEMD_XML_LIMIT_NAME];
    if (most != 0 && name.size() > most) RefuseLimit(m_limits, KEMD_XML_LIMIT_NAME);
    if (m_document.strings.Size() >= kMostNames) RefuseLimit(m_limits, KEMD_XML_LIMIT_NODES);
    return m_document.strings.Add(name);
}

void XmlBuilder::Count() {
    const uint64_t most = m_limits[KEMD_XML_LIMIT_NODES];
    const uint64_t count = uint64_t{m_document.nodes.Size()} + m_document.attributes.Size();
    if ((most != 0 && count > most + 2) || count > kMostNodes) {
        RefuseLimit(m_limits, KEMD_XML_LIMIT_NODES);
    }
}

uint32_t XmlBuilder::Resolve(uint32_t name) const {
    const uint32_t prefix = m_document.strings.Prefix(name);
    if (prefix == m_document.xmlPrefix) return m_document.xmlUri;
    const uint32_t uri = prefix < m_uris.size() ? m_uris[prefix] : 0;
    if (uri == 0 && prefix != 0) {
        RefuseNames("the prefix " + Quoted(m_document.strings.View(prefix)) + " is not declared");
    }
    return uri;
}

void XmlBuilder::Declare(KemdXmlDocument::Attribute& attribute) {
    KemdXmlDocument& document = m_document;
    const std::string_view text(document.characters.Data() + attribute.text, attribute.length);
    if (text.size() > m_limits[KEMD_XML_LIMIT_NAME] && m_limits[KEMD_XML_LIMIT_NAME] != 0) {
        RefuseLimit(m_limits, KEMD_XML_LIMIT_NAME);
    }
    // The table's texts are in the pool that this one is in.
    const uint32_t uri = document.strings.Add(std::string(text));
    const uint32_t prefix =
        attribute.name == document.xmlnsName
            ? 0
            : document.strings.Add(std::string(document.strings.Local(attribute.name)));
    attribute.isNamespace = 1;
    if (prefix == document.xmlPrefix && uri == document.xmlUri) return;
    const bool isReserved = uri == document.xmlUri || uri == document.xmlnsUri;
    if (isReserved || prefix == document.xmlPrefix || prefix == document.xmlnsName) {
        RefuseNames("the prefixes \"xml\" and \"xmlns\" and their name spaces are fixed");
    }
    if (prefix != 0 && uri == 0) {
        RefuseNames("the prefix " + Quoted(document.strings.View(prefix)) +
                    " is declared without a name space");
    }
    if (prefix >= m_uris.size()) m_uris.resize(prefix + 1);
    m_undo.push_back({m_depth, prefix, m_uris[prefix]});
    m_uris[prefix] = uri;
}

// To copy always as much takes a few instructions.
uint32_t XmlBuilder::AddShortText(const char* text, size_t length) {
    if (length == 0) return 0;
    Pool<char>& characters = m_document.characters;
    const uint32_t start = characters.Size();
    char* const room = characters.Grow(XmlTag::kShort);
    std::memcpy(room, text, XmlTag::kShort);
    room[length] = '\0';
    characters.Drop(XmlTag::kShort - length - 1);
    return start;
}

void XmlBuilder::AddAttributes(const char* const* names, uint32_t place, XmlTag& tag,
                               size_t specified) {
    size_t count = 0;
    while (names[2 * count] != nullptr) ++count;
    const uint64_t most = m_limits[KEMD_XML_LIMIT_ATTRIBUTES];
    if (most != 0 && count > most) RefuseLimit(m_limits, KEMD_XML_LIMIT_ATTRIBUTES);
    const uint32_t first = m_document.attributes.Size();
    KemdXmlDocument::Attribute* const added = m_document.attributes.Grow(count);
    m_notPlain.clear();
    for (size_t i = 0; i < count; ++i) {
        const KnownName& name = AttributeName(names[2 * i]);
        if (name.isPlain == 0) m_notPlain.push_back(static_cast<uint32_t>(first + i));
        const bool isDefault = i >= specified;
        KemdXmlDocument::Attribute& attribute = added[i] = {};
        attribute.isDefault = isDefault ? 1 : 0;
        attribute.name = name.number & kNameBits;
        attribute.owner = m_open;
        attribute.next = i + 1 < count ? static_cast<uint32_t>(first + i + 1) : 0;
        attribute.place = isDefault ? place : tag.Next(name.length);
        uint32_t length = 0;
        if (const char* const text = isDefault ? nullptr : tag.ShortValue(length)) {
            attribute.text = AddShortText(text, length);
        } else {
            const std::string_view value = names[2 * i + 1];
            length = static_cast<uint32_t>(value.size());
            attribute.text = m_document.AddText(value);
        }
        attribute.length = length;
        m_delivered += name.length + length;
    }
    m_document.nodes[m_open].attributes = first;
    if (!m_notPlain.empty()) ResolveAttributes();
}

void XmlBuilder::ResolveAttributes() {
    StringTable& strings = m_document.strings;
    for (const uint32_t at : m_notPlain) {
        KemdXmlDocument::Attribute& each = m_document.attributes[at];
        const bool isDeclaration =
            each.name == m_document.xmlnsName || strings.Prefix(each.name) == m_document.xmlnsName;
        if (isDeclaration) Declare(each);
    }
    m_keys.clear();
    for (const uint32_t at : m_notPlain) {
        KemdXmlDocument::Attribute& each = m_document.attributes[at];
        if (!strings.IsQualifiedName(each.name)) {
            RefuseNames("the attribute " + Quoted(strings.View(each.name)) +
                        " is no name with one prefix");
        }
        each.uri = each.isNamespace != 0 ? m_document.xmlnsUri : Resolve(each.name);
        if (each.isNamespace != 0 || m_notPlain.size() == 1) continue;
        m_keys.push_back(uint64_t{each.uri} << 32 |
                         strings.Add(std::string(strings.Local(each.name))));
    }
    std::sort(m_keys.begin(), m_keys.end());
    const auto twice = std::adjacent_find(m_keys.begin(), m_keys.end());
    if (twice == m_keys.end()) return;
    RefuseNames("the attribute " + Quoted(strings.View(static_cast<uint32_t>(*twice))) + " of " +
                Quoted(strings.View(static_cast<uint32_t>(*twice >> 32))) + " is there twice");
}

void XmlBuilder::Start(const char* name, const char* const* names, uint32_t place, XmlTag* tag,
                       size_t specified) {
    EndText();
    const uint64_t deepest = m_limits[KEMD_XML_LIMIT_DEPTH];
    if (++m_depth > deepest && deepest != 0) RefuseLimit(m_limits, KEMD_XML_LIMIT_DEPTH);
    m_document.facts.depth = std::max(m_document.facts.depth, m_depth);
    const KnownName known = ElementName(name);
    m_delivered += known.length;
    if (known.isPlain == 0) CheckElementName(known.number);
    m_open = AddNode(KEMD_XML_ELEMENT, known.number, place);
    if (tag != nullptr) AddAttributes(names, place, *tag, specified);
    Count();
    m_document.nodes[m_open].uri = known.isPlain != 0 ? m_uris[0] : Resolve(known.number);
}

void XmlBuilder::End() {
    EndText();
    m_open = m_document.At(m_open).parent;
    while (!m_undo.empty() && m_undo.back().depth == m_depth) {
        m_uris[m_undo.back().prefix] = m_undo.back().uri;
        m_undo.pop_back();
    }
    --m_depth;
}

// The last one in the element that is open.
uint32_t XmlBuilder::AddNode(uint32_t kind, uint32_t name, uint32_t place) {
    const uint32_t index = m_document.nodes.Size();
    KemdXmlDocument::Node& node = *m_document.nodes.Grow(1) = {};
    node.kind = kind & 0xF;
    node.name = name & kNameBits;
    node.parent = m_open;
    node.place = place;
    KemdXmlDocument::Node& parent = m_document.nodes[m_open];
    (parent.last == 0 ? parent.first : m_document.nodes[parent.last].next) = index;
    parent.last = index;
    return index;
}

uint32_t XmlBuilder::BeginText(uint32_t kind, uint32_t place) {
    Count();
    const uint32_t start = m_document.characters.Size();
    const uint32_t index = AddNode(kind, 0, place);
    m_document.nodes[index].text = start;
    return index;
}

void XmlBuilder::Text(std::string_view text, uint32_t place) {
    if (m_text == 0) m_text = BeginText(KEMD_XML_TEXT, place);
    // Often a line end.
    if (text.size() == 1) {
        m_document.characters.Add(text[0]);
    } else {
        m_document.characters.Append(text.data(), text.size());
    }
    m_delivered += text.size();
}

void XmlBuilder::StartCdata(uint32_t place) {
    EndText();
    m_text = BeginText(KEMD_XML_CDATA, place);
}

void XmlBuilder::EndText() {
    if (m_text == 0) return;
    KemdXmlDocument::Node& node = m_document.nodes[m_text];
    node.length = m_document.characters.Size() - node.text;
    m_document.characters.Add('\0');
    m_text = 0;
}

void XmlBuilder::Other(uint32_t kind, std::string_view name, std::string_view text,
                       uint32_t place) {
    EndText();
    Count();
    const uint32_t number = Name(name);
    const uint32_t start = m_document.AddText(text);
    m_delivered += name.size() + text.size();
    if (name.find(':') != name.npos) {
        RefuseNames("the instruction " + Quoted(name) + " has a colon in its name");
    }
    const uint32_t index = AddNode(kind, number, place);
    m_document.nodes[index].text = start;
    m_document.nodes[index].length = static_cast<uint32_t>(text.size());
}
