// kemd/xml.h for C++: owners of its handles, and results as values. Header only, so that modules
// built with kemd use it as well. May throw std::bad_alloc.
#pragma once

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kemd/xml.h"

class XmlDocument {
  public:
    // An empty owner, until Parse or ReadFile.
    XmlDocument() = default;
    explicit XmlDocument(KemdXmlDocument* document) : m_document(document) {}
    explicit operator bool() const { return m_document != nullptr; }
    [[nodiscard]] KemdXmlDocument* Get() const { return m_document.get(); }

    [[nodiscard]] KemdXmlNode Root() const { return KemdXmlRoot(Get()); }
    [[nodiscard]] std::string Content(KemdXmlNode node) const {
        size_t size = 0;
        if (KemdXmlContent(Get(), node, nullptr, &size) != ERANGE) return {};
        std::string content(size, '\0');
        if (KemdXmlContent(Get(), node, content.data(), &size) != 0) return {};
        content.resize(size - 1);
        return content;
    }
    // The value of an attribute; nothing when it is not there.
    [[nodiscard]] std::optional<std::string_view> Attribute(KemdXmlNode element,
                                                            const char* name) const {
        const KemdXmlNode found = KemdXmlFindAttribute(Get(), element, name);
        if (found == KEMD_XML_NONE) return std::nullopt;
        return KemdXmlText(Get(), found);
    }
    // Nothing, and `position`, when it is no path.
    [[nodiscard]] std::optional<std::vector<KemdXmlNode>> Find(
        const char* path, KemdXmlNode context = KEMD_XML_DOCUMENT_NODE,
        const char* const* nameSpaces = nullptr, size_t* position = nullptr) const {
        KemdXmlFound* found = nullptr;
        if (KemdXmlFind(Get(), context, path, nameSpaces, &found, position) != 0) {
            return std::nullopt;
        }
        const std::unique_ptr<KemdXmlFound, Closer> owner(found);
        std::vector<KemdXmlNode> nodes(KemdXmlFoundCount(found));
        for (size_t i = 0; i < nodes.size(); ++i) nodes[i] = KemdXmlFoundAt(found, i);
        return nodes;
    }
    [[nodiscard]] KemdXmlInfo Info() const {
        KemdXmlInfo info{};
        info.size = sizeof info;
        (void)KemdXmlGetInfo(Get(), &info);
        return info;
    }
    // `write` takes a std::string_view and returns an errno number.
    template <typename Write>
    [[nodiscard]] int WriteTo(const Write& write, const KemdXmlWriteOptions* options = nullptr,
                              KemdXmlNode node = KEMD_XML_DOCUMENT_NODE) const {
        const KemdXmlSink sink = [](void* user, const char* bytes, size_t size) {
            return (*static_cast<const Write*>(user))(std::string_view(bytes, size));
        };
        return KemdXmlWrite(Get(), node, options, sink, const_cast<Write*>(&write));
    }
    // The result in `error`.
    [[nodiscard]] std::string Written(const KemdXmlWriteOptions* options = nullptr,
                                      KemdXmlNode node = KEMD_XML_DOCUMENT_NODE,
                                      int* error = nullptr) const {
        std::string text;
        const int result = WriteTo(
            [&text](std::string_view piece) {
                text += piece;
                return 0;
            },
            options, node);
        if (error != nullptr) *error = result;
        return text;
    }

    struct Closer {
        void operator()(KemdXmlDocument* document) const { KemdXmlRelease(document); }
        void operator()(KemdXmlParser* parser) const { KemdXmlParserClose(parser); }
        void operator()(KemdXmlFound* found) const { KemdXmlFoundRelease(found); }
    };

  private:
    std::unique_ptr<KemdXmlDocument, Closer> m_document;
};

class XmlReader {
  public:
    XmlReader() {
        KemdXmlParser* parser = nullptr;
        if (KemdXmlParserOpen(&parser) != 0) throw std::bad_alloc();
        m_parser.reset(parser);
    }
    [[nodiscard]] KemdXmlParser* Get() const { return m_parser.get(); }
    // An errno number each; `document` is empty after an error.
    [[nodiscard]] int Parse(std::string_view text, XmlDocument& document) {
        KemdXmlDocument* made = nullptr;
        const int error = KemdXmlParserParse(Get(), text.data(), text.size(), &made);
        document = XmlDocument(made);
        return error;
    }
    [[nodiscard]] int ReadFile(const char* path, XmlDocument& document) {
        KemdXmlDocument* made = nullptr;
        const int error = KemdXmlParserReadFile(Get(), path, &made);
        document = XmlDocument(made);
        return error;
    }
    [[nodiscard]] KemdXmlError Error() const {
        KemdXmlError error{};
        error.size = sizeof error;
        (void)KemdXmlParserError(Get(), &error);
        return error;
    }

  private:
    std::unique_ptr<KemdXmlParser, XmlDocument::Closer> m_parser;
};
