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

// Most names are short, and the same again and again.
uint32_t XmlBuilder::ElementName(const char* name) {
    uint64_t word = 0;
    size_t size = 0;
    for (; size < sizeof word && name[size] != '\0'; ++size) {
        word |= uint64_t{static_cast<unsigned char>(name[size])} << 8 * size;
    }
    if (name[size] != '\0') return Name(name);
    ShortName& known = m_short[word * 0x9E3779B97F4A7C15U >> 58];
    if (known.word != word) known = {word, Name({name, size})};
    return known.number;
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

// expat has each name of an attribute in one place for as long as it lives.
uint32_t XmlBuilder::AttributeName(const char* name) {
    KnownName& known = m_known[reinterpret_cast<uintptr_t>(name) / 8 % m_known.size()];
    if (known.text != name) known = {name, Name(name)};
    return known.number;
}

void XmlBuilder::AddAttributes(uint32_t element, const char* const* names, uint32_t place,
                               const std::vector<uint32_t>& places) {
    const uint64_t most = m_limits[KEMD_XML_LIMIT_ATTRIBUTES];
    uint32_t last = 0;
    for (size_t i = 0; names[2 * i] != nullptr; ++i) {
        if (most != 0 && i >= most) RefuseLimit(m_limits, KEMD_XML_LIMIT_ATTRIBUTES);
        const std::string_view value = names[2 * i + 1];
        KemdXmlDocument::Attribute attribute{};
        attribute.name = AttributeName(names[2 * i]) & kNameBits;
        attribute.owner = element;
        attribute.length = static_cast<uint32_t>(value.size());
        attribute.text = m_document.AddText(value);
        attribute.isDefault = i < places.size() ? 0 : 1;
        attribute.place = i < places.size() ? places[i] : place;
        m_delivered += m_document.strings.View(attribute.name).size() + value.size();
        const bool isDeclaration =
            attribute.name == m_document.xmlnsName ||
            m_document.strings.Prefix(attribute.name) == m_document.xmlnsName;
        if (isDeclaration) Declare(attribute);
        const uint32_t index = m_document.attributes.Add(attribute);
        (last == 0 ? m_document.nodes[element].attributes : m_document.attributes[last].next) =
            index;
        last = index;
    }
}

void XmlBuilder::ResolveAttributes(uint32_t first) {
    StringTable& strings = m_document.strings;
    m_prefixed.clear();
    for (uint32_t at = first; at != 0; at = m_document.attributes[at].next) {
        KemdXmlDocument::Attribute& each = m_document.attributes[at];
        if (!strings.IsQualifiedName(each.name)) {
            RefuseNames("the attribute " + Quoted(strings.View(each.name)) +
                        " is no name with one prefix");
        }
        if (each.isNamespace != 0) {
            each.uri = m_document.xmlnsUri;
        } else if (strings.Prefix(each.name) != 0) {
            each.uri = Resolve(each.name);
            m_prefixed.push_back(at);
        }
    }
    if (m_prefixed.size() < 2) return;
    m_keys.clear();
    for (const uint32_t at : m_prefixed) {
        const KemdXmlDocument::Attribute& each = m_document.attributes[at];
        m_keys.push_back(uint64_t{each.uri} << 32 |
                         strings.Add(std::string(strings.Local(each.name))));
    }
    std::sort(m_keys.begin(), m_keys.end());
    const auto twice = std::adjacent_find(m_keys.begin(), m_keys.end());
    if (twice == m_keys.end()) return;
    RefuseNames("the attribute " + Quoted(strings.View(static_cast<uint32_t>(*twice))) + " of " +
                Quoted(strings.View(static_cast<uint32_t>(*twice >> 32))) + " is there twice");
}

void XmlBuilder::Start(const char* name, const char* const* names, uint32_t place,
                       const std::vector<uint32_t>& places) {
    EndText();
    const uint64_t deepest = m_limits[KEMD_XML_LIMIT_DEPTH];
    if (++m_depth > deepest && deepest != 0) RefuseLimit(m_limits, KEMD_XML_LIMIT_DEPTH);
    m_document.facts.depth = std::max(m_document.facts.depth, m_depth);
    const StringTable& strings = m_document.strings;
    const uint32_t number = ElementName(name);
    m_delivered += strings.View(number).size();
    const uint32_t prefix = strings.Prefix(number);
    if (!strings.IsQualifiedName(number) || prefix == m_document.xmlnsName) {
        RefuseNames("the element " + Quoted(name) + " is no name with one prefix");
    }
    m_open = AddNode(KEMD_XML_ELEMENT, number, place);
    if (names[0] != nullptr) {
        AddAttributes(m_open, names, place, places);
        ResolveAttributes(m_document.At(m_open).attributes);
    }
    Count();
    m_document.nodes[m_open].uri = Resolve(number);
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
    KemdXmlDocument::Node& node = *m_document.nodes.Grow(1);
    node = {};
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
    m_document.characters.Append(text.data(), text.size());
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
