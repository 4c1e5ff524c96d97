// kemd/xml.h. Texts that a caller passes may be those of the document, which move when it grows, so
// they are copied before a change.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/answer.h"
#include "base/output_file.h"
#include "kemd/xml.h"
#include "xml/code_pages.h"
#include "xml/edit.h"
#include "xml/parser.h"
#include "xml/path.h"
#include "xml/tree.h"
#include "xml/writer.h"

struct KemdXmlFound {
    std::vector<KemdXmlNode> nodes;
};

namespace {

std::string Copy(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}

template <typename Change>
int Changed(KemdXmlDocument* document, const Change& change) {
    if (document == nullptr) return EINVAL;
    return Guarded([&] { return change(XmlEditor(*document)); });
}

int GiveEncoding(const CodePage& page, KemdEncoding* encoding) {
    uint32_t aliases = 0;
    while (!AliasAt(page, aliases).empty()) ++aliases;
    Encoding found;
    const uint32_t isSupported = FindEncoding(page.name, found) == 0 ? 1 : 0;
    return StoreRecord(KemdEncoding{0, page.number, page.name, aliases, isSupported}, encoding);
}

XmlWriteOptions Options(const KemdXmlWriteOptions* options) {
    XmlWriteOptions wanted;
    if (options == nullptr) return wanted;
    wanted.form = options->form;
    wanted.flags = options->flags;
    wanted.indent = options->indent;
    if (options->encoding != nullptr) wanted.encoding = options->encoding;
    // Not in the first version of the structure.
    const size_t needed =
        offsetof(KemdXmlWriteOptions, inclusivePrefixes) + sizeof options->inclusivePrefixes;
    if (options->size >= needed && options->inclusivePrefixes != nullptr) {
        wanted.inclusivePrefixes = options->inclusivePrefixes;
    }
    return wanted;
}

// umask(2) could only be asked by changing it for all threads.
mode_t Umask() {
    constexpr std::string_view kLabel = "\nUmask:";
    constexpr mode_t kUsual = 022;
    const auto status = ReadTextFile("/proc/self/status");
    const size_t at = status ? status->find(kLabel) : std::string::npos;
    if (at == std::string::npos) return kUsual;
    return static_cast<mode_t>(std::strtoul(status->c_str() + at + kLabel.size(), nullptr, 8));
}

bool IsGood(const KemdXmlDocument* document, KemdXmlNode node) {
    return document != nullptr && document->Has(node);
}

}  // namespace

int KemdXmlParserOpen(KemdXmlParser** parser) {
    if (parser == nullptr) return EINVAL;
    *parser = nullptr;
    return Guarded([&] {
        *parser = new KemdXmlParser;
        return 0;
    });
}

void KemdXmlParserClose(KemdXmlParser* parser) {
    delete parser;
}

int KemdXmlParserSetLimit(KemdXmlParser* parser, uint32_t limit, uint64_t value) {
    return parser == nullptr ? EINVAL : parser->SetLimit(limit, value);
}

int KemdXmlParserSetEncoding(KemdXmlParser* parser, const char* encoding) {
    if (parser == nullptr) return EINVAL;
    return Guarded([&] { return parser->SetEncoding(encoding); });
}

int KemdXmlParserFeed(KemdXmlParser* parser, const void* bytes, size_t size) {
    if (parser == nullptr || (bytes == nullptr && size > 0)) return EINVAL;
    return Guarded([&] { return parser->Feed({static_cast<const char*>(bytes), size}); });
}

// The document that `make` makes; the parser is then ready for another one.
template <typename Make>
static int Made(KemdXmlParser* parser, KemdXmlDocument** document, const Make& make) {
    *document = nullptr;
    const int result = Guarded([&] {
        std::unique_ptr<KemdXmlDocument> made;
        const int error = make(made);
        *document = made.release();
        return error;
    });
    parser->Reset();
    return result;
}

int KemdXmlParserFinish(KemdXmlParser* parser, KemdXmlDocument** document) {
    if (parser == nullptr || document == nullptr) return EINVAL;
    return Made(parser, document, [&](auto& made) { return parser->Finish(made); });
}

int KemdXmlParserParse(KemdXmlParser* parser, const void* bytes, size_t size,
                       KemdXmlDocument** document) {
    if (parser == nullptr || document == nullptr || (bytes == nullptr && size > 0)) return EINVAL;
    const std::string_view text(static_cast<const char*>(bytes), size);
    return Made(parser, document, [&](auto& made) { return parser->Parse(text, made); });
}

int KemdXmlParserReadFile(KemdXmlParser* parser, const char* path, KemdXmlDocument** document) {
    if (parser == nullptr || document == nullptr || path == nullptr) return EINVAL;
    return Made(parser, document, [&](auto& made) { return parser->ReadFile(path, made); });
}

int KemdXmlParse(const void* bytes, size_t size, KemdXmlDocument** document) {
    KemdXmlParser* parser = nullptr;
    const int result = KemdXmlParserOpen(&parser);
    if (result != 0) return result;
    const std::unique_ptr<KemdXmlParser> owner(parser);
    return KemdXmlParserParse(parser, bytes, size, document);
}

int KemdXmlParserError(const KemdXmlParser* parser, KemdXmlError* error) {
    return parser == nullptr ? EINVAL : StoreRecord(parser->Error(), error);
}

int KemdXmlCreate(const char* root, KemdXmlDocument** document) {
    if (root == nullptr || document == nullptr) return EINVAL;
    *document = nullptr;
    return Guarded([&] {
        auto made = std::make_unique<KemdXmlDocument>();
        KemdXmlNode node = 0;
        const int error =
            XmlEditor(*made).Add(KEMD_XML_DOCUMENT_NODE, 0, KEMD_XML_ELEMENT, root, {}, node);
        if (error == 0) *document = made.release();
        return error;
    });
}

void KemdXmlRelease(KemdXmlDocument* document) {
    delete document;
}

int KemdXmlGetInfo(const KemdXmlDocument* document, KemdXmlInfo* info) {
    if (document == nullptr) return EINVAL;
    const auto& facts = document->facts;
    return StoreRecord(
        KemdXmlInfo{0, facts.encodingFrom, facts.encoding.c_str(), facts.declared.c_str(),
                    facts.version.c_str(), facts.standalone, facts.depth, facts.bytes,
                    document->nodes.Size() - 2U, document->attributes.Size() - 1U,
                    document->Bytes(), facts.documentType.c_str()},
        info);
}

KemdXmlNode KemdXmlRoot(const KemdXmlDocument* document) {
    return document == nullptr ? KEMD_XML_NONE : document->Root();
}

KemdXmlNode KemdXmlParent(const KemdXmlDocument* document, KemdXmlNode node) {
    return IsGood(document, node) ? document->Parent(node) : KEMD_XML_NONE;
}

KemdXmlNode KemdXmlFirst(const KemdXmlDocument* document, KemdXmlNode node) {
    return IsGood(document, node) ? document->First(node) : KEMD_XML_NONE;
}

KemdXmlNode KemdXmlLast(const KemdXmlDocument* document, KemdXmlNode node) {
    if (!IsGood(document, node) || document->First(node) == KEMD_XML_NONE) return KEMD_XML_NONE;
    return document->At(node).last;
}

KemdXmlNode KemdXmlNext(const KemdXmlDocument* document, KemdXmlNode node) {
    return IsGood(document, node) ? document->Next(node) : KEMD_XML_NONE;
}

KemdXmlNode KemdXmlPrevious(const KemdXmlDocument* document, KemdXmlNode node) {
    return IsGood(document, node) ? document->Previous(node) : KEMD_XML_NONE;
}

KemdXmlNode KemdXmlFirstAttribute(const KemdXmlDocument* document, KemdXmlNode element) {
    return IsGood(document, element) ? document->FirstAttribute(element) : KEMD_XML_NONE;
}

KemdXmlNode KemdXmlFindAttribute(const KemdXmlDocument* document, KemdXmlNode element,
                                 const char* name) {
    if (!IsGood(document, element) || name == nullptr) return KEMD_XML_NONE;
    const uint32_t number = document->strings.Find(name);
    KemdXmlNode each = document->FirstAttribute(element);
    while (each != KEMD_XML_NONE && document->NameNumber(each) != number) {
        each = document->Next(each);
    }
    return each;
}

uint32_t KemdXmlKind(const KemdXmlDocument* document, KemdXmlNode node) {
    return IsGood(document, node) ? document->Kind(node) : KEMD_XML_DOCUMENT;
}

const char* KemdXmlName(const KemdXmlDocument* document, KemdXmlNode node) {
    return IsGood(document, node) ? document->strings.Text(document->NameNumber(node)) : "";
}

const char* KemdXmlLocalName(const KemdXmlDocument* document, KemdXmlNode node) {
    if (!IsGood(document, node)) return "";
    const uint32_t name = document->NameNumber(node);
    return document->strings.Text(name) + document->strings.LocalStart(name);
}

const char* KemdXmlNameSpace(const KemdXmlDocument* document, KemdXmlNode node) {
    return IsGood(document, node) ? document->strings.Text(document->UriNumber(node)) : "";
}

const char* KemdXmlText(const KemdXmlDocument* document, KemdXmlNode node) {
    return IsGood(document, node) ? document->Text(node).data() : "";
}

int KemdXmlContent(const KemdXmlDocument* document, KemdXmlNode node, char* out, size_t* size) {
    if (!IsGood(document, node)) return EINVAL;
    return Guarded([&] { return StoreText(document->Content(node), out, size); });
}

uint32_t KemdXmlLine(const KemdXmlDocument* document, KemdXmlNode node) {
    return IsGood(document, node) ? document->Place(node).line : 0;
}

uint32_t KemdXmlColumn(const KemdXmlDocument* document, KemdXmlNode node) {
    return IsGood(document, node) ? document->Place(node).column : 0;
}

// NOLINTNEXTLINE(readability-function-size): what a node is, and where
int KemdXmlAdd(KemdXmlDocument* document, KemdXmlNode parent, KemdXmlNode before, uint32_t kind,
               const char* name, const char* text, KemdXmlNode* node) {
    return Changed(document, [&](XmlEditor editor) {
        KemdXmlNode added = KEMD_XML_NONE;
        const int error = editor.Add(parent, before, kind, Copy(name), Copy(text), added);
        if (error == 0 && node != nullptr) *node = added;
        return error;
    });
}

int KemdXmlSetAttribute(KemdXmlDocument* document, KemdXmlNode element, const char* name,
                        const char* value) {
    return Changed(document, [&](XmlEditor editor) {
        const std::string text = Copy(value);
        return editor.SetAttribute(element, Copy(name),
                                   value == nullptr ? std::string_view{} : std::string_view(text));
    });
}

int KemdXmlSetText(KemdXmlDocument* document, KemdXmlNode node, const char* text) {
    return Changed(document, [&](XmlEditor editor) { return editor.SetText(node, Copy(text)); });
}

int KemdXmlRename(KemdXmlDocument* document, KemdXmlNode element, const char* name) {
    return Changed(document, [&](XmlEditor editor) { return editor.Rename(element, Copy(name)); });
}

int KemdXmlRemove(KemdXmlDocument* document, KemdXmlNode node) {
    return Changed(document, [&](XmlEditor editor) { return editor.Remove(node); });
}

int KemdXmlFind(const KemdXmlDocument* document, KemdXmlNode context, const char* path,
                const char* const* nameSpaces, KemdXmlFound** found, size_t* position) {
    if (!IsGood(document, context) || path == nullptr || found == nullptr) return EINVAL;
    *found = nullptr;
    return Guarded([&] {
        XmlPath parsed;
        const auto error = parsed.Parse(*document, context, path, nameSpaces);
        if (error && position != nullptr) *position = *error;
        if (error) return EINVAL;
        auto made = std::make_unique<KemdXmlFound>();
        made->nodes = parsed.Find(*document, context);
        *found = made.release();
        return 0;
    });
}

KemdXmlNode KemdXmlFoundAt(const KemdXmlFound* found, size_t position) {
    return position < KemdXmlFoundCount(found) ? found->nodes[position] : KEMD_XML_NONE;
}

size_t KemdXmlFoundCount(const KemdXmlFound* found) {
    return found == nullptr ? 0 : found->nodes.size();
}

void KemdXmlFoundRelease(KemdXmlFound* found) {
    delete found;
}

int KemdXmlWrite(const KemdXmlDocument* document, KemdXmlNode node,
                 const KemdXmlWriteOptions* options, KemdXmlSink sink, void* user) {
    const bool isTree = IsGood(document, node) && (document->Kind(node) == KEMD_XML_ELEMENT ||
                                                   document->Kind(node) == KEMD_XML_DOCUMENT);
    if (!isTree || sink == nullptr) return EINVAL;
    return Guarded([&] {
        return WriteXml(*document, node, Options(options), [&](std::string_view piece) {
            return sink(user, piece.data(), piece.size());
        });
    });
}

int KemdXmlWriteFile(const KemdXmlDocument* document, const KemdXmlWriteOptions* options,
                     const char* path) {
    if (document == nullptr || path == nullptr) return EINVAL;
    return Guarded([&] {
        // A link stays, and so do the permissions of what it leads to.
        struct stat status {};
        const bool isOld = stat(path, &status) == 0;
        const std::unique_ptr<char, decltype(&std::free)> real(
            isOld ? realpath(path, nullptr) : nullptr, &std::free);
        OutputFile file(real != nullptr ? real.get() : path,
                        isOld ? status.st_mode & 07777 : 0666 & ~Umask());
        if (!file.Open()) return errno;
        if (isOld) (void)!fchown(file.Get(), status.st_uid, status.st_gid);
        const int error =
            WriteXml(*document, KEMD_XML_DOCUMENT_NODE, Options(options),
                     [&](std::string_view piece) { return file.Write(piece) ? 0 : errno; });
        if (error != 0) return error;
        return file.Commit() ? 0 : errno;
    });
}

int KemdEncodingFind(const char* name, KemdEncoding* encoding) {
    const CodePage* const page = name == nullptr ? nullptr : FindCodePage(name);
    if (page == nullptr) return ENOENT;
    return Guarded([&] { return GiveEncoding(*page, encoding); });
}

int KemdEncodingFindCodePage(uint32_t codePage, KemdEncoding* encoding) {
    const CodePage* const page = FindCodePage(codePage);
    if (page == nullptr) return ENOENT;
    return Guarded([&] { return GiveEncoding(*page, encoding); });
}

int KemdEncodingAt(size_t position, KemdEncoding* encoding) {
    if (position >= CodePages().size()) return ENOENT;
    return Guarded([&] { return GiveEncoding(CodePages()[position], encoding); });
}

int KemdEncodingAlias(const char* name, size_t position, char* out, size_t* size) {
    const CodePage* const page = name == nullptr ? nullptr : FindCodePage(name);
    const std::string_view alias = page == nullptr ? std::string_view{} : AliasAt(*page, position);
    return alias.empty() ? ENOENT : StoreText(alias, out, size);
}
