// Canonical XML 1.0 and exclusive canonical XML 1.0: of a document or of an element with all that
// is in it.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "xml/writer.h"

namespace {

// Whether a name space begins with a scheme; of another one the canonical form would depend on
// where the document is.
bool IsAbsolute(std::string_view uri) {
    const size_t colon = uri.find(':');
    if (colon == uri.npos || colon == 0) return false;
    const std::string_view scheme = uri.substr(0, colon);
    return std::isalpha(static_cast<unsigned char>(scheme[0])) != 0 &&
           std::all_of(scheme.begin(), scheme.end(), [](unsigned char c) {
               return std::isalnum(c) != 0 || c == '+' || c == '-' || c == '.';
           });
}

class CanonicalWriter {
  public:
    CanonicalWriter(const KemdXmlDocument& document, uint32_t top, const XmlWriteOptions& options,
                    XmlOutput& output)
        : m_document(document),
          m_top(top),
          m_isExclusive(options.form == KEMD_XML_EXCLUSIVE),
          m_hasComments((options.flags & KEMD_XML_WITH_COMMENTS) != 0),
          m_output(output),
          m_rendered(document.strings.Size()) {
        SetInclusive(options.inclusivePrefixes);
    }

    void Write() {
        WalkXml(
            m_document, m_top, [this](uint32_t node) { return Enter(node); },
            [this](uint32_t node) { Leave(node); });
    }

  private:
    struct Declaration {
        uint32_t prefix;
        uint32_t uri;
    };
    struct Undo {
        uint32_t element;
        Declaration was;
    };

    // Prefixes that the document lacks change nothing.
    void SetInclusive(std::string_view prefixes) {
        while (!(prefixes = TrimStart(prefixes)).empty()) {
            const size_t end = std::min(prefixes.find_first_of(" \t\r\n"), prefixes.size());
            const std::string_view prefix = prefixes.substr(0, end);
            const uint32_t number = prefix == "#default" ? 0 : m_document.strings.Find(prefix);
            if (number != 0 || prefix == "#default") m_inclusive.push_back(number);
            prefixes.remove_prefix(end);
        }
    }
    [[nodiscard]] bool IsInclusive(uint32_t prefix) const {
        return !m_isExclusive ||
               std::find(m_inclusive.begin(), m_inclusive.end(), prefix) != m_inclusive.end();
    }

    void Want(uint32_t prefix, uint32_t uri) {
        if (prefix == m_document.xmlPrefix) return;
        const bool isKnown =
            std::any_of(m_declarations.begin(), m_declarations.end(),
                        [prefix](const Declaration& each) { return each.prefix == prefix; });
        if (!isKnown) m_declarations.push_back({prefix, uri});
    }
    void WantDeclared(uint32_t element) {
        for (uint32_t at = m_document.FirstAttribute(element); at != 0; at = m_document.Next(at)) {
            const auto& each = m_document.AttributeAt(at);
            if (each.isNamespace == 0) continue;
            const uint32_t prefix = m_document.DeclaredPrefix(each);
            if (!IsInclusive(prefix)) continue;
            Want(prefix, m_document.strings.Find(m_document.Text(at)));
        }
    }

    // What the element declares (inclusive), and what its names use (exclusive).
    void CollectDeclarations(uint32_t element) {
        m_declarations.clear();
        const StringTable& strings = m_document.strings;
        if (!m_isExclusive || !m_inclusive.empty()) {
            WantDeclared(element);
            for (uint32_t above = m_document.At(element).parent;
                 element == m_top && above > KEMD_XML_DOCUMENT_NODE;
                 above = m_document.At(above).parent) {
                WantDeclared(above);
            }
        }
        if (m_isExclusive) {
            Want(strings.Prefix(m_document.At(element).name), m_document.At(element).uri);
            for (const uint32_t at : m_attributes) {
                const uint32_t prefix = strings.Prefix(m_document.NameNumber(at));
                if (prefix != 0) Want(prefix, m_document.UriNumber(at));
            }
        }
        std::erase_if(m_declarations, [this](const Declaration& each) {
            return m_rendered[each.prefix] == each.uri;
        });
        std::sort(m_declarations.begin(), m_declarations.end(),
                  [&strings](const Declaration& a, const Declaration& b) {
                      return strings.View(a.prefix) < strings.View(b.prefix);
                  });
    }

    void CollectAttributes(uint32_t element) {
        m_attributes.clear();
        for (uint32_t at = m_document.FirstAttribute(element); at != 0; at = m_document.Next(at)) {
            if (m_document.AttributeAt(at).isNamespace == 0) {
                m_attributes.push_back(at);
            } else if (!m_document.Text(at).empty() && !IsAbsolute(m_document.Text(at))) {
                m_output.Fail(EINVAL);
            }
        }
        if (element == m_top && !m_isExclusive) InheritXml(element);
        const StringTable& strings = m_document.strings;
        std::sort(m_attributes.begin(), m_attributes.end(), [&](uint32_t a, uint32_t b) {
            const auto& first = m_document.AttributeAt(a);
            const auto& second = m_document.AttributeAt(b);
            if (first.uri != second.uri) return strings.View(first.uri) < strings.View(second.uri);
            return strings.Local(first.name) < strings.Local(second.name);
        });
    }
    // Of a part of a document: the attributes xml:... that hold in it.
    void InheritXml(uint32_t element) {
        for (uint32_t above = m_document.At(element).parent; above > KEMD_XML_DOCUMENT_NODE;
             above = m_document.At(above).parent) {
            for (uint32_t at = m_document.FirstAttribute(above); at != 0;
                 at = m_document.Next(at)) {
                const auto& each = m_document.AttributeAt(at);
                const bool isXml = each.uri == m_document.xmlUri && each.isNamespace == 0;
                if (isXml && !HasAttribute(each.name)) m_attributes.push_back(at);
            }
        }
    }
    [[nodiscard]] bool HasAttribute(uint32_t name) const {
        return std::any_of(m_attributes.begin(), m_attributes.end(), [this, name](uint32_t each) {
            return m_document.NameNumber(each) == name;
        });
    }

    void Put(std::string_view name, std::string_view value) {
        m_output.Put(" ");
        m_output.Put(name);
        m_output.Put("=\"");
        m_output.PutText(value, XmlOutput::Kind::kCanonicalValue);
        m_output.Put("\"");
    }

    void WriteTag(uint32_t element) {
        const StringTable& strings = m_document.strings;
        m_output.Put("<");
        m_output.Put(strings.View(m_document.At(element).name));
        CollectAttributes(element);
        CollectDeclarations(element);
        for (const Declaration& each : m_declarations) {
            m_undo.push_back({element, {each.prefix, m_rendered[each.prefix]}});
            m_rendered[each.prefix] = each.uri;
            m_name = "xmlns";
            if (each.prefix != 0) m_name.append(":").append(strings.View(each.prefix));
            Put(m_name, strings.View(each.uri));
        }
        for (const uint32_t at : m_attributes) {
            Put(strings.View(m_document.NameNumber(at)), m_document.Text(at));
        }
        m_output.Put(">");
    }

    // What stands before and after the root element has lines of its own.
    void WriteOther(uint32_t node, std::string_view start, std::string_view end) {
        const auto& each = m_document.At(node);
        const bool isOutside = each.parent == KEMD_XML_DOCUMENT_NODE;
        if (isOutside && m_hasRoot) m_output.Put("\n");
        m_output.Put(start);
        m_output.Put(m_document.strings.View(each.name));
        if (each.name != 0 && each.length > 0) m_output.Put(" ");
        m_output.Put(m_document.Text(node));
        m_output.Put(end);
        if (isOutside && !m_hasRoot) m_output.Put("\n");
    }

    bool Enter(uint32_t node) {
        switch (m_document.At(node).kind) {
            case KEMD_XML_ELEMENT:
                m_hasRoot = true;
                WriteTag(node);
                return true;
            case KEMD_XML_TEXT:
            case KEMD_XML_CDATA:
                m_output.PutText(m_document.Text(node), XmlOutput::Kind::kCanonicalText);
                return false;
            case KEMD_XML_COMMENT:
                if (m_hasComments) WriteOther(node, "<!--", "-->");
                return false;
            case KEMD_XML_INSTRUCTION:
                WriteOther(node, "<?", "?>");
                return false;
            default:
                return true;
        }
    }

    void Leave(uint32_t node) {
        if (m_document.At(node).kind != KEMD_XML_ELEMENT) return;
        m_output.Put("</");
        m_output.Put(m_document.strings.View(m_document.At(node).name));
        m_output.Put(">");
        while (!m_undo.empty() && m_undo.back().element == node) {
            m_rendered[m_undo.back().was.prefix] = m_undo.back().was.uri;
            m_undo.pop_back();
        }
    }

    const KemdXmlDocument& m_document;
    const uint32_t m_top;
    const bool m_isExclusive;
    const bool m_hasComments;
    XmlOutput& m_output;
    std::vector<uint32_t> m_inclusive;  // prefixes, of the exclusive form
    bool m_hasRoot = false;
    std::vector<uint32_t> m_rendered;  // by prefix: what the output has declared
    std::vector<Undo> m_undo;
    // Of one element.
    std::vector<Declaration> m_declarations;
    std::vector<uint32_t> m_attributes;
    std::string m_name;
};

}  // namespace

void WriteCanonical(const KemdXmlDocument& document, uint32_t top, const XmlWriteOptions& options,
                    XmlOutput& output) {
    CanonicalWriter(document, top, options, output).Write();
}
