#include "xml/writer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "base/utf8.h"

namespace {

constexpr size_t kFlushed = size_t{64} << 10;

// What replaces a byte; empty: itself.
using Replacements = std::array<std::string_view, 256>;

constexpr Replacements MakeReplacements(XmlOutput::Kind kind) {
    Replacements table{};
    table['&'] = "&amp;";
    table['<'] = "&lt;";
    const bool isValue =
        kind == XmlOutput::Kind::kValue || kind == XmlOutput::Kind::kCanonicalValue;
    if (kind != XmlOutput::Kind::kCanonicalValue) table['>'] = "&gt;";
    table['\r'] = "&#xD;";
    if (isValue) {
        table['"'] = "&quot;";
        table['\t'] = "&#x9;";
        table['\n'] = "&#xA;";
    }
    return table;
}

constexpr std::array<Replacements, 4> kReplacements = {
    MakeReplacements(XmlOutput::Kind::kText), MakeReplacements(XmlOutput::Kind::kValue),
    MakeReplacements(XmlOutput::Kind::kCanonicalText),
    MakeReplacements(XmlOutput::Kind::kCanonicalValue)};

bool IsBlank(std::string_view text) {
    return text.find_first_not_of(" \t\r\n") == text.npos;
}

// The forms that are not canonical.
class PlainWriter {
  public:
    PlainWriter(const KemdXmlDocument& document, uint32_t top, const XmlWriteOptions& options,
                XmlOutput& output)
        : m_document(document), m_top(top), m_options(options), m_output(output) {}

    void Write() {
        if (m_top == KEMD_XML_DOCUMENT_NODE) WriteStart();
        WalkXml(
            m_document, m_top, [this](uint32_t node) { return Enter(node); },
            [this](uint32_t node) { Leave(node); });
    }

  private:
    struct Level {
        bool isKept;  // as it is: nothing is added or left out
    };

    void WriteStart() {
        const auto& facts = m_document.facts;
        if ((m_options.flags & KEMD_XML_NO_DECLARATION) == 0) {
            m_output.Put("<?xml version=\"" + facts.version + "\" encoding=\"" +
                         m_options.encoding + "\"");
            if (facts.standalone >= 0) {
                m_output.Put(facts.standalone != 0 ? " standalone=\"yes\"" : " standalone=\"no\"");
            }
            m_output.Put("?>\n");
        }
    }

    // The document type stands where it was as far as the root element is concerned.
    void WriteType() {
        if (m_document.facts.documentType.empty()) return;
        m_output.Put(m_document.facts.documentType);
        m_output.Put("\n");
    }

    void NewLine() {
        if (m_options.form != KEMD_XML_PRETTY) return;
        m_output.Put("\n" + std::string(m_levels.size() * m_options.indent, ' '));
    }

    // Whether an element's content must stay as it is.
    [[nodiscard]] bool IsKept(uint32_t element) const {
        if (m_options.form != KEMD_XML_PRETTY || (!m_levels.empty() && m_levels.back().isKept)) {
            return true;
        }
        for (uint32_t at = m_document.FirstAttribute(element); at != 0; at = m_document.Next(at)) {
            const bool isSpace = m_document.strings.View(m_document.NameNumber(at)) == "xml:space";
            if (isSpace && m_document.Text(at) == "preserve") return true;
        }
        bool hasOther = false;
        for (uint32_t child = m_document.First(element); child != 0;
             child = m_document.At(child).next) {
            const uint32_t kind = m_document.At(child).kind;
            if (kind == KEMD_XML_CDATA) return true;
            if (kind == KEMD_XML_TEXT && !IsBlank(m_document.Text(child))) return true;
            hasOther = hasOther || kind != KEMD_XML_TEXT;
        }
        return !hasOther;
    }

    void WriteTag(uint32_t element) {
        m_output.Put("<");
        m_output.Put(m_document.strings.View(m_document.At(element).name));
        const bool isDeclared =
            m_top == KEMD_XML_DOCUMENT_NODE && !m_document.facts.documentType.empty();
        for (uint32_t at = m_document.FirstAttribute(element); at != 0; at = m_document.Next(at)) {
            if (isDeclared && m_document.AttributeAt(at).isDefault != 0) continue;
            WriteAttribute(m_document.strings.View(m_document.NameNumber(at)), m_document.Text(at));
        }
        // A part of a document takes along what is declared around it.
        if (element == m_top) WriteInherited(element);
        m_output.Put(m_document.First(element) == 0 ? "/>" : ">");
    }
    void WriteAttribute(std::string_view name, std::string_view value) {
        m_output.Put(" ");
        m_output.Put(name);
        m_output.Put("=\"");
        m_output.PutText(value, XmlOutput::Kind::kValue);
        m_output.Put("\"");
    }
    void WriteInherited(uint32_t element) {
        std::vector<uint32_t> done;
        for (uint32_t each = element; each > KEMD_XML_DOCUMENT_NODE;
             each = m_document.At(each).parent) {
            for (uint32_t at = m_document.FirstAttribute(each); at != 0; at = m_document.Next(at)) {
                const uint32_t name = m_document.NameNumber(at);
                const bool isKnown = std::find(done.begin(), done.end(), name) != done.end();
                if (isKnown || m_document.AttributeAt(at).isNamespace == 0) continue;
                done.push_back(name);
                if (each == element) continue;
                WriteAttribute(m_document.strings.View(name), m_document.Text(at));
            }
        }
    }

    bool Enter(uint32_t node) {
        const auto& each = m_document.At(node);
        const bool isIndented =
            !m_levels.empty() && !m_levels.back().isKept && each.kind != KEMD_XML_DOCUMENT;
        if (isIndented && each.kind == KEMD_XML_TEXT) return false;  // blanks
        if (isIndented) NewLine();
        switch (each.kind) {
            case KEMD_XML_ELEMENT:
                if (node == m_document.Root() && m_top == KEMD_XML_DOCUMENT_NODE) WriteType();
                WriteTag(node);
                m_levels.push_back({IsKept(node)});
                return true;
            case KEMD_XML_TEXT:
                m_output.PutText(m_document.Text(node), XmlOutput::Kind::kText);
                break;
            case KEMD_XML_CDATA:
                m_output.PutCdata(m_document.Text(node));
                break;
            case KEMD_XML_COMMENT:
                m_output.Put("<!--");
                m_output.Put(m_document.Text(node));
                m_output.Put("-->");
                break;
            case KEMD_XML_INSTRUCTION:
                m_output.Put("<?");
                m_output.Put(m_document.strings.View(each.name));
                if (each.length > 0) m_output.Put(" ");
                m_output.Put(m_document.Text(node));
                m_output.Put("?>");
                break;
            default:
                return true;
        }
        return false;
    }

    void Leave(uint32_t node) {
        const auto& each = m_document.At(node);
        if (each.kind == KEMD_XML_ELEMENT) {
            const bool isKept = m_levels.back().isKept;
            m_levels.pop_back();
            if (each.first != 0) {
                if (!isKept) NewLine();
                m_output.Put("</");
                m_output.Put(m_document.strings.View(each.name));
                m_output.Put(">");
            }
        }
        if (each.parent == KEMD_XML_DOCUMENT_NODE && m_top == KEMD_XML_DOCUMENT_NODE) {
            m_output.Put("\n");
        }
    }

    const KemdXmlDocument& m_document;
    const uint32_t m_top;
    const XmlWriteOptions& m_options;
    XmlOutput& m_output;
    std::vector<Level> m_levels;  // the open elements
};

}  // namespace

void XmlOutput::Flush() {
    if (m_error == 0 && !m_buffer.empty()) m_error = m_sink(m_buffer);
    m_buffer.clear();
}

void XmlOutput::Put(std::string_view markup) {
    if (m_isUtf8) {
        m_buffer += markup;
    } else if (m_error == 0 && m_encoder.Convert(markup, m_buffer) != markup.size()) {
        m_error = EILSEQ;
    }
    if (m_buffer.size() >= kFlushed) Flush();
}

// A character that the encoding lacks: a reference, between what ends a section and begins it
// again.
void XmlOutput::PutEncoded(std::string_view text, std::string_view before, std::string_view after) {
    while (m_error == 0 && !m_isUtf8) {
        text.remove_prefix(m_encoder.Convert(text, m_buffer));
        if (text.empty()) break;
        const size_t length = std::max<size_t>(Utf8Length(text), 1);
        char reference[16];
        std::snprintf(reference, sizeof reference, "&#x%X;", CodePoint(text.substr(0, length)));
        Put(before);
        Put(reference);
        Put(after);
        text.remove_prefix(length);
    }
    if (m_isUtf8) m_buffer += text;
    if (m_buffer.size() >= kFlushed) Flush();
}

void XmlOutput::PutText(std::string_view text, Kind kind) {
    const Replacements& table = kReplacements[static_cast<size_t>(kind)];
    size_t start = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        const std::string_view with = table[static_cast<unsigned char>(text[at])];
        if (with.empty()) continue;
        PutEncoded(text.substr(start, at - start), {}, {});
        Put(with);
        start = at + 1;
    }
    PutEncoded(text.substr(start), {}, {});
}

void XmlOutput::PutCdata(std::string_view text) {
    Put("<![CDATA[");
    size_t start = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        const bool isEnd = text[at] == ']' && text.substr(at, 3) == "]]>";
        // A carriage return would be read as a line feed.
        if (!isEnd && text[at] != '\r') continue;
        PutEncoded(text.substr(start, at - start), "]]>", "<![CDATA[");
        Put(isEnd ? "]]]]><![CDATA[>" : "]]>&#xD;<![CDATA[");
        if (isEnd) at += 2;
        start = at + 1;
    }
    PutEncoded(text.substr(start), "]]>", "<![CDATA[");
    Put("]]>");
}

int XmlOutput::Finish() {
    if (m_error == 0) m_encoder.End(m_buffer);
    Flush();
    return m_error;
}

int WriteXml(const KemdXmlDocument& document, uint32_t top, const XmlWriteOptions& options,
             const XmlSink& sink) {
    const bool isCanonical =
        options.form == KEMD_XML_CANONICAL || options.form == KEMD_XML_EXCLUSIVE;
    Encoding encoding;
    Encoder encoder;
    if (FindEncoding(options.encoding, encoding) != 0 || !encoder.Open(encoding)) return EINVAL;
    if (isCanonical && encoding.coding != Coding::kUtf8) return EINVAL;
    std::string begin;
    encoder.Begin(begin);
    if (!begin.empty()) {
        const int error = sink(begin);
        if (error != 0) return error;
    }
    XmlOutput output(sink, encoder, encoding.coding == Coding::kUtf8);
    if (isCanonical) {
        WriteCanonical(document, top, options, output);
    } else {
        XmlWriteOptions named = options;
        named.encoding = encoding.name;
        PlainWriter(document, top, named, output).Write();
    }
    return output.Finish();
}
