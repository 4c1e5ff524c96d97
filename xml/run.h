// One document on its way into a tree: its encoding is found, it is converted to UTF-8, expat
// parses it, the builder makes the tree. expat looks for the end of a tag, a name or a comment
// before it reports any of it; what it waits for is looked at here, so that the limits hold then as
// well.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// expat.h declares the limits of expansion only so; Debian's expat is built with it.
#define XML_DTD
#include <expat.h>

#include "xml/builder.h"
#include "xml/encoding.h"
#include "xml/places.h"
#include "xml/tree.h"

// Which byte of the document a byte of its UTF-8 comes from. Keeps what the parser may still
// complain about.
class XmlOrigin {
  public:
    void Begin(const Encoding& encoding, uint64_t source) {
        m_encoding = encoding;
        m_kept = source;
    }
    // Conversion goes on here: byte `utf8` comes from byte `source`, where `bytes` begin.
    void Mark(uint64_t utf8, uint64_t source) { m_marks.push_back({utf8, source}); }
    void Keep(std::string_view bytes) { m_bytes += bytes; }
    // Nothing before this byte of UTF-8 will be asked for.
    void Forget(uint64_t utf8);
    [[nodiscard]] uint64_t Source(uint64_t utf8) const;

  private:
    struct Pair {
        uint64_t utf8;
        uint64_t source;
    };
    Encoding m_encoding;
    std::deque<Pair> m_marks;
    std::string m_bytes;
    uint64_t m_kept = 0;  // which byte of the document m_bytes begin with
};

class XmlRun;

// What expat calls while a document is read: events.cpp.
struct XmlEvents {
    static void Register(XmlRun& run, XML_Parser parser);

  private:
    struct Handlers;
};

class XmlRun {
  public:
    // Throws std::bad_alloc.
    XmlRun(const XmlLimits& limits, const Encoding* wanted, KemdXmlError& error);
    XmlRun(const XmlRun&) = delete;
    XmlRun& operator=(const XmlRun&) = delete;
    ~XmlRun();

    // Before the first byte, when the length of the document is known: it is parsed faster then.
    void Expect(uint64_t bytes) { m_expected = bytes; }
    // An errno number, EBADMSG when the document is refused. May throw std::bad_alloc.
    [[nodiscard]] int Feed(std::string_view bytes);
    [[nodiscard]] int Finish(std::unique_ptr<KemdXmlDocument>& document);

  private:
    friend struct XmlEvents;  // expat's handlers

    // Begins with the head; `later` bytes of what was fed follow it.
    [[nodiscard]] int Open(bool isAll, size_t later);
    [[nodiscard]] int Decode(std::string_view bytes, bool isLast);
    [[nodiscard]] int Room();
    [[nodiscard]] int Parse(bool isLast);
    // Look at what expat waits for the rest of. Throw XmlRefusal.
    void CheckPending(std::string_view pending) const;
    void CheckTag(std::string_view tag) const;
    void CheckExpansion() {
        const uint64_t most = m_limits[KEMD_XML_LIMIT_EXPANSION];
        if (most != 0 && m_builder.Delivered() > m_parsed + most) CheckExpansionHere();
    }
    void CheckExpansionHere();
    // Called while expat parses: what it has parsed of a large buffer is given back.
    void Release(uint64_t index) {
        constexpr uint64_t kStep = uint64_t{2} << 20;
        m_parsed = index;
        if (index >= m_released + kStep) ReleaseTo(index);
    }
    void ReleaseTo(uint64_t index);
    // How many bytes of UTF-8 expat shall have next; `pending`: what it has not parsed.
    [[nodiscard]] size_t NextRoom(uint64_t pending);

    // The bytes from expat's place on, and before it as far as they are there.
    [[nodiscard]] std::string_view Context(size_t& offset) const;
    [[nodiscard]] uint64_t Index() const {
        const XML_Index index = XML_GetCurrentByteIndex(m_parser.get());
        return index < 0 ? 0 : static_cast<uint64_t>(index);
    }
    [[nodiscard]] uint32_t PlaceHere() { return m_places.At(Index()); }
    int Refuse(const XmlRefusal& refusal, uint64_t index, bool isAtEnd);
    int RefuseByExpat();
    void Excerpt(std::string_view context, size_t offset);

    const XmlLimits& m_limits;
    const Encoding* m_wanted;
    KemdXmlError& m_error;
    std::unique_ptr<KemdXmlDocument> m_document;
    XmlBuilder m_builder;
    struct ParserFree {
        void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
    };
    std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree> m_parser;

    std::string m_head;  // until the encoding is known
    bool m_isOpen = false;
    int m_result = 0;  // of the first refusal
    Decoder m_decoder;
    XmlOrigin m_origin;
    uint64_t m_source = 0;  // bytes of the document so far
    std::string m_rest;     // the begin of a character

    char* m_room = nullptr;  // expat's buffer
    size_t m_roomSize = 0;
    size_t m_filled = 0;
    uint64_t m_fed = 0;       // bytes of UTF-8 that expat has
    uint64_t m_expected = 0;  // bytes of the document
    bool m_isLarge = false;   // the buffer is for all that is expected
    char* m_kept = nullptr;   // of a large buffer that is parsed: what is not given back
    char* m_keptEnd = nullptr;
    uint64_t m_parsed = 0;             // at least
    uint64_t m_released = 0;           // looked at for that
    std::vector<uint64_t> m_openTags;  // where they begin
    XmlPlaces m_places;

    // Of the document type.
    std::string m_prolog;       // what expat had before this piece, up to the root element
    std::string_view m_toRoot;  // and with this piece
    bool m_hasRoot = false;
    bool m_isInType = false;
    bool m_mayLeaveOut = false;  // expat leaves unknown references out of values
    size_t m_documentType = 0;   // where it begins in the prolog, or later
    size_t m_nested = 0;         // entities that refer to others
    // Their texts; empty once the references in it are checked.
    std::unordered_map<std::string, std::string_view> m_entities;
    std::vector<std::string_view> m_parameterEntities;
    std::unordered_map<std::string, uint32_t> m_attributeCounts;
};
