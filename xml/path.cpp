#include "xml/path.h"

#include <algorithm>
#include <charconv>

namespace {

bool IsNameByte(char c) {
    const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c & 0x80) != 0;
    return isLetter || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
}

// Each once, in the order of the document.
void Order(const KemdXmlDocument& document, std::vector<KemdXmlNode>& nodes) {
    std::vector<bool> isNode(document.nodes.Size()), isAttribute(document.attributes.Size());
    for (const KemdXmlNode node : nodes) {
        const bool is = KemdXmlDocument::IsAttribute(node);
        (is ? isAttribute : isNode)[node & ~KemdXmlDocument::kAttributeBit] = true;
    }
    nodes.clear();
    for (uint32_t node = KEMD_XML_DOCUMENT_NODE; node != 0;
         node = document.Following(node, KEMD_XML_DOCUMENT_NODE)) {
        if (isNode[node]) nodes.push_back(node);
        for (uint32_t at = document.FirstAttribute(node); at != 0; at = document.Next(at)) {
            if (isAttribute[at & ~KemdXmlDocument::kAttributeBit]) nodes.push_back(at);
        }
    }
}

}  // namespace

class XmlPath::Parser {
  public:
    Parser(const KemdXmlDocument& document, KemdXmlNode context, std::string_view text,
           const char* const* nameSpaces)
        : m_document(document), m_context(context), m_text(text), m_nameSpaces(nameSpaces) {}

    // False: Position is where it is no path.
    bool Parse(XmlPath& path) {
        path.m_isAbsolute = m_text.starts_with('/');
        if (m_text == "/") return true;
        bool isDeep = Take("//");
        if (!isDeep && path.m_isAbsolute) ++m_at;
        for (;;) {
            Step step;
            if (!ParseStep(step)) return false;
            if (isDeep) {
                if (step.axis == Axis::kSelf || step.axis == Axis::kParent) return false;
                step.axis = Axis::kDescendant;
            }
            path.m_steps.push_back(std::move(step));
            if (m_at == m_text.size()) return true;
            isDeep = Take("//");
            if (!isDeep && !Take("/")) return false;
        }
    }
    [[nodiscard]] size_t Position() const { return m_at; }

  private:
    bool Take(std::string_view token) {
        if (!m_text.substr(m_at).starts_with(token)) return false;
        m_at += token.size();
        return true;
    }
    void SkipBlanks() {
        while (m_at < m_text.size() && (m_text[m_at] == ' ' || m_text[m_at] == '\t')) ++m_at;
    }
    std::string_view TakeName() {
        const size_t start = m_at;
        while (m_at < m_text.size() && IsNameByte(m_text[m_at])) ++m_at;
        const std::string_view name = m_text.substr(start, m_at - start);
        const bool isBad = !name.empty() &&
                           (name[0] == '-' || name[0] == '.' || (name[0] >= '0' && name[0] <= '9'));
        if (isBad) m_at = start;
        return isBad ? std::string_view{} : name;
    }

    // The name space of a prefix. False: unknown.
    bool Resolve(std::string_view prefix, std::string& uri) const {
        for (const char* const* each = m_nameSpaces; each != nullptr && *each != nullptr;
             each += 2) {
            if (prefix == each[0] && each[1] != nullptr) uri = each[1];
            if (each[1] == nullptr) break;
        }
        if (!uri.empty() || m_nameSpaces != nullptr) return !uri.empty();
        uint32_t element =
            KemdXmlDocument::IsAttribute(m_context) ? m_document.Parent(m_context) : m_context;
        if (element == KEMD_XML_DOCUMENT_NODE) element = m_document.Root();
        const uint32_t number = m_document.strings.Find(prefix);
        if (number != 0) uri = m_document.strings.View(m_document.UriOf(number, element));
        return !uri.empty();
    }

    bool ParseTest(Test& test) {
        for (const auto& [token, kind] : {std::pair{"text()", Kind::kText},
                                          {"comment()", Kind::kComment},
                                          {"node()", Kind::kNode}}) {
            test.kind = kind;
            if (Take(token)) return true;
        }
        test.kind = Kind::kName;
        const size_t start = m_at;
        const bool isStar = Take("*");
        std::string_view name = isStar ? "*" : TakeName();
        if (name.empty()) return false;
        test.isAnyUri = isStar;
        if (Take(":")) {
            const std::string_view prefix = name;
            if (!isStar && !Resolve(prefix, test.uri)) {
                m_at = start;
                return false;
            }
            name = Take("*") ? "*" : TakeName();
            if (name.empty()) return false;
        }
        test.isAnyLocal = name == "*";
        test.local = name;
        // A function or an axis of XPath.
        return m_at == m_text.size() || (m_text[m_at] != '(' && m_text[m_at] != ':');
    }

    bool ParseStep(Step& step) {
        if (Take("..")) {
            step.axis = Axis::kParent;
            step.test.kind = Kind::kNode;
            return true;
        }
        if (Take(".")) {
            step.axis = Axis::kSelf;
            step.test.kind = Kind::kNode;
            return true;
        }
        step.isAttribute = Take("@");
        if (step.isAttribute) step.axis = Axis::kAttribute;
        if (!ParseTest(step.test)) return false;
        while (Take("[")) {
            Predicate predicate{};
            SkipBlanks();
            if (!ParsePredicate(predicate)) return false;
            SkipBlanks();
            if (!Take("]")) return false;
            step.predicates.push_back(std::move(predicate));
        }
        return true;
    }

    bool ParsePredicate(Predicate& predicate) {
        using What = Predicate::What;
        const std::string_view rest = m_text.substr(m_at);
        const auto [end, error] =
            std::from_chars(rest.data(), rest.data() + rest.size(), predicate.position);
        if (end != rest.data()) {
            if (error != std::errc() || predicate.position == 0) return false;
            m_at += static_cast<size_t>(end - rest.data());
            predicate.what = What::kPosition;
            return true;
        }
        if (Take("last()")) {
            predicate.what = What::kLast;
            return true;
        }
        if (Take("@")) {
            predicate.what = What::kAttribute;
            if (!ParseTest(predicate.test)) return false;
        } else if (Take(".")) {
            predicate.what = What::kSelf;
        } else {
            predicate.what = What::kChild;
            if (!ParseTest(predicate.test)) return false;
        }
        SkipBlanks();
        predicate.isEqual = !Take("!=");
        predicate.isCompared = !predicate.isEqual || Take("=");
        if (!predicate.isCompared) return predicate.what != What::kSelf;
        SkipBlanks();
        const char quote = m_at < m_text.size() ? m_text[m_at] : '\0';
        if (quote != '\'' && quote != '"') return false;
        const size_t close = m_text.find(quote, m_at + 1);
        if (close == m_text.npos) return false;
        predicate.value = m_text.substr(m_at + 1, close - m_at - 1);
        m_at = close + 1;
        return true;
    }

    const KemdXmlDocument& m_document;
    const KemdXmlNode m_context;
    const std::string_view m_text;
    const char* const* m_nameSpaces;
    size_t m_at = 0;
};

std::optional<size_t> XmlPath::Parse(const KemdXmlDocument& document, KemdXmlNode context,
                                     std::string_view path, const char* const* nameSpaces) {
    m_steps.clear();
    Parser parser(document, context, path, nameSpaces);
    if (parser.Parse(*this)) return std::nullopt;
    return parser.Position();
}

bool XmlPath::Matches(const KemdXmlDocument& document, KemdXmlNode node, const Test& test) {
    const uint32_t kind = document.Kind(node);
    switch (test.kind) {
        case Kind::kText:
            return kind == KEMD_XML_TEXT || kind == KEMD_XML_CDATA;
        case Kind::kComment:
            return kind == KEMD_XML_COMMENT;
        case Kind::kNode:
            return kind != KEMD_XML_NAMESPACE;
        case Kind::kName:
            break;
    }
    if (kind != KEMD_XML_ELEMENT && kind != KEMD_XML_ATTRIBUTE) return false;
    return (test.isAnyLocal || document.strings.Local(document.NameNumber(node)) == test.local) &&
           (test.isAnyUri || document.strings.View(document.UriNumber(node)) == test.uri);
}

bool XmlPath::Holds(const KemdXmlDocument& document, const Predicate& predicate, KemdXmlNode node,
                    size_t position, size_t count) {
    using What = Predicate::What;
    const auto compares = [&](KemdXmlNode other) {
        return !predicate.isCompared ||
               (document.Content(other) == predicate.value) == predicate.isEqual;
    };
    switch (predicate.what) {
        case What::kPosition:
            return position == predicate.position;
        case What::kLast:
            return position == count;
        case What::kSelf:
            return compares(node);
        default:
            break;
    }
    const bool isAttribute = predicate.what == What::kAttribute;
    KemdXmlNode each = isAttribute ? document.FirstAttribute(node) : document.First(node);
    while (each != 0 && !(Matches(document, each, predicate.test) && compares(each))) {
        each = document.Next(each);
    }
    return each != 0;
}

// What a step leads to from one node. The predicates count within these.
void XmlPath::Select(const KemdXmlDocument& document, const Step& step, KemdXmlNode from,
                     std::vector<KemdXmlNode>& out) {
    const size_t start = out.size();
    const auto add = [&](KemdXmlNode node) {
        if (node != KEMD_XML_NONE && Matches(document, node, step.test)) out.push_back(node);
    };
    if (step.axis == Axis::kSelf) {
        add(from);
    } else if (step.axis == Axis::kParent) {
        add(document.Parent(from));
    } else {
        KemdXmlNode each = step.isAttribute ? document.FirstAttribute(from) : document.First(from);
        for (; each != KEMD_XML_NONE; each = document.Next(each)) add(each);
    }
    for (const Predicate& predicate : step.predicates) {
        const size_t count = out.size() - start;
        size_t kept = start;
        for (size_t i = start; i < out.size(); ++i) {
            if (Holds(document, predicate, out[i], i - start + 1, count)) out[kept++] = out[i];
        }
        out.resize(kept);
    }
}

// Whether a node is `top` or within it.
static bool IsWithin(const KemdXmlDocument& document, uint32_t node, uint32_t top) {
    while (node != 0 && node != top) node = document.Parent(node);
    return node == top;
}

void XmlPath::SelectAll(const KemdXmlDocument& document, const Step& step, KemdXmlNode from,
                        std::vector<KemdXmlNode>& out) {
    if (step.axis != Axis::kDescendant) return Select(document, step, from, out);
    if (KemdXmlDocument::IsAttribute(from)) return;
    for (uint32_t node = from; node != 0; node = document.Following(node, from)) {
        Select(document, step, node, out);
    }
}

std::vector<KemdXmlNode> XmlPath::Find(const KemdXmlDocument& document, KemdXmlNode context) const {
    std::vector<KemdXmlNode> nodes = {m_isAbsolute ? KEMD_XML_DOCUMENT_NODE : context};
    std::vector<KemdXmlNode> next;
    bool isNested = false;  // some may be within others
    for (const Step& step : m_steps) {
        next.clear();
        uint32_t done = 0;
        for (const KemdXmlNode from : nodes) {
            // Those within one that was walked are done.
            const bool mayBeDone = isNested && done != 0 && step.axis == Axis::kDescendant;
            if (mayBeDone && IsWithin(document, from, done)) continue;
            if (!KemdXmlDocument::IsAttribute(from)) done = from;
            SelectAll(document, step, from, next);
        }
        isNested = isNested || step.axis == Axis::kDescendant;
        nodes.swap(next);
        if (isNested || step.axis == Axis::kParent) Order(document, nodes);
    }
    return nodes;
}
