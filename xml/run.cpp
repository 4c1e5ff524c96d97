#include "xml/run.h"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/utf8.h"

namespace {

constexpr size_t kPiece = size_t{64} << 10;
constexpr size_t kLargestPiece = size_t{64} << 20;
// What is copied before it is parsed. Where a "<" is in each block, no tag is longer than two.
constexpr size_t kBlock = size_t{32} << 10;
constexpr size_t kPage = 4096;
constexpr size_t kHugePage = size_t{2} << 20;

char* AlignDown(char* at, size_t to) {
    return at - reinterpret_cast<uintptr_t>(at) % to;
}

// Whole pages, of memory that is not looked at again. A huge page of which a part is given back
// would be taken apart and stay.
void Discard(char* from, char* to) {
    char* const begin = AlignDown(from + kHugePage - 1, kHugePage);
    char* const end = AlignDown(to, kHugePage);
    if (begin < end) (void)madvise(begin, static_cast<size_t>(end - begin), MADV_DONTNEED);
}

// What a refusal says about expat's errors whose own text does not help.
std::string TextOf(XML_Error error) {
    switch (error) {
        case XML_ERROR_NO_ELEMENTS:
            return "there is no root element";
        case XML_ERROR_UNCLOSED_TOKEN:
            return "this is not closed before the document ends";
        case XML_ERROR_JUNK_AFTER_DOC_ELEMENT:
            return "only comments and instructions may follow the root element";
        case XML_ERROR_UNDEFINED_ENTITY:
            return "this entity is not declared";
        case XML_ERROR_RECURSIVE_ENTITY_REF:
            return "this entity refers to itself";
        case XML_ERROR_BAD_CHAR_REF:
            return "this reference is to a character that XML forbids";
        case XML_ERROR_MISPLACED_XML_PI:
            return "an XML declaration must be at the very start of the document";
        case XML_ERROR_ATTRIBUTE_EXTERNAL_ENTITY_REF:
            return "a value refers to an external entity";
        default:
            return XML_ErrorString(error);
    }
}

uint32_t CauseOf(XML_Error error) {
    switch (error) {
        case XML_ERROR_UNDEFINED_ENTITY:
        case XML_ERROR_RECURSIVE_ENTITY_REF:
        case XML_ERROR_ATTRIBUTE_EXTERNAL_ENTITY_REF:
            return KEMD_XML_CAUSE_ENTITY;
        default:
            return KEMD_XML_CAUSE_SYNTAX;
    }
}

template <size_t N>
void Copy(std::string_view text, char (&out)[N]) {
    size_t length = std::min(text.size(), N - 1);
    // Not in the middle of a character.
    while (length < text.size() && length > 0 && (text[length] & 0xC0) == 0x80) --length;
    std::memcpy(out, text.data(), length);
    out[length] = '\0';
}

}  // namespace

void XmlOrigin::Forget(uint64_t utf8) {
    size_t gone = 0;
    while (m_marks.size() > 1 && m_marks[1].utf8 <= utf8) {
        gone = m_marks[1].source - m_kept;
        m_marks.pop_front();
    }
    m_bytes.erase(0, gone);
    m_kept += gone;
}

uint64_t XmlOrigin::Source(uint64_t utf8) const {
    if (m_marks.empty()) return m_kept + utf8;
    const auto after = std::find_if(m_marks.begin(), m_marks.end(),
                                    [utf8](const Pair& pair) { return pair.utf8 > utf8; });
    const Pair mark = after == m_marks.begin() ? m_marks.front() : *std::prev(after);
    Decoder decoder;
    if (m_encoding.hasState || utf8 <= mark.utf8 || !decoder.Open(m_encoding)) return mark.source;
    // Converted again as far as that byte.
    const size_t start = mark.source - m_kept;
    std::string out(utf8 - mark.utf8, '\0');
    size_t taken = 0, given = 0;
    const bool isOurs = m_encoding.coding != Coding::kLibrary;
    while (given < out.size()) {
        const size_t room = isOurs ? 4 : out.size() - given;
        char one[4];
        const Converted done = decoder.Convert(std::string_view(m_bytes).substr(start + taken),
                                               isOurs ? one : out.data() + given, room);
        if (done.taken == 0) break;
        taken += done.taken;
        given += done.given;
    }
    return mark.source + taken;
}

XmlRun::XmlRun(const XmlLimits& limits, const Encoding* wanted, KemdXmlError& error)
    : m_limits(limits),
      m_wanted(wanted),
      m_error(error),
      m_document(std::make_unique<KemdXmlDocument>()),
      m_builder(*m_document, limits),
      m_parser(XML_ParserCreate("UTF-8")),
      m_places(m_document->lines) {
    if (m_parser == nullptr) throw std::bad_alloc();
    m_error = {};
    XmlEvents::Register(*this, m_parser.get());
    const uint64_t expansion = m_limits[KEMD_XML_LIMIT_EXPANSION];
    // Also of entities that leave nothing in the tree.
    constexpr float kMostTimes = 3;
    XML_SetBillionLaughsAttackProtectionActivationThreshold(
        m_parser.get(), expansion == 0 ? ~0ULL : std::max<uint64_t>(expansion, 1));
    XML_SetBillionLaughsAttackProtectionMaximumAmplification(m_parser.get(), kMostTimes);
}

XmlRun::~XmlRun() = default;

int XmlRun::Open(bool isAll, size_t later) {
    Detection detection;
    if (!Detect(m_head, isAll, m_wanted, detection)) return 0;
    m_isOpen = true;
    auto& facts = m_document->facts;
    facts.encoding = detection.encoding.name;
    facts.encodingFrom = detection.from;
    facts.declared = detection.declared;
    const bool canDecode = detection.error.empty() && m_decoder.Open(detection.encoding);
    if (!canDecode && detection.error.empty()) {
        detection.error = "the C library does not convert " + detection.encoding.name;
    }
    if (!detection.error.empty()) {
        return Refuse({KEMD_XML_CAUSE_ENCODING, detection.error}, 0, false);
    }
    m_origin.Begin(detection.encoding, detection.mark);
    const std::string head = std::move(m_head);
    m_source -= later;
    const int result = Decode(std::string_view(head).substr(detection.mark), false);
    m_source += later;
    return result;
}

int XmlRun::Room() {
    if (m_room != nullptr && m_roomSize - m_filled >= 8) return 0;  // the longest character
    if (m_room != nullptr) {
        const int result = Parse(false);
        if (result != 0) return result;
    }
    m_roomSize = NextRoom(m_fed - std::min(Index(), m_fed));
    m_room = static_cast<char*>(XML_GetBuffer(m_parser.get(), static_cast<int>(m_roomSize)));
    if (m_room == nullptr) throw std::bad_alloc();
    m_places.SetRoom(m_room);
    if (m_isLarge) {  // its pages together, huge ones if possible: that is faster
        char* const begin = AlignDown(m_room + kPage - 1, kPage);
        char* const end = AlignDown(m_room + m_roomSize, kPage);
        (void)madvise(begin, static_cast<size_t>(end - begin), MADV_HUGEPAGE);
        (void)madvise(begin, static_cast<size_t>(end - begin), MADV_POPULATE_WRITE);
    }
    return 0;
}

size_t XmlRun::NextRoom(uint64_t pending) {
    // expat counts the lines of each piece but the last one, byte by byte, which can take as long
    // as it takes to parse it: so all that is left is one piece.
    const uint64_t left = m_expected - std::min(m_fed, m_expected);
    m_isLarge = left > kPiece && left < kLargestPiece && pending < kPiece &&
                m_decoder.Of().coding == Coding::kUtf8 && (m_hasRoot || m_prolog.empty());
    if (m_isLarge) return left + kBlock;
    // What it waits for is looked at from its start each time: as much again takes as long.
    return std::clamp<size_t>(pending, kPiece, kLargestPiece);
}

void XmlRun::ReleaseTo(uint64_t index) {
    m_released = index;
    if (m_kept == nullptr) return;
    (void)m_places.At(index);
    char* const end = m_keptEnd - (m_fed - index) - kBlock;
    // The end of a tag that is open is compared with its start, which expat has only there.
    constexpr uint64_t kLongestTag = 2 * kBlock;
    for (const uint64_t open : m_openTags) {
        char* const tag = m_keptEnd - (m_fed - std::min(open, index));
        if (tag >= end) break;
        Discard(m_kept, tag);
        m_kept = std::max(m_kept, tag + kLongestTag);
    }
    Discard(m_kept, end);
    m_kept = std::max(m_kept, AlignDown(end, kHugePage));
}

int XmlRun::Decode(std::string_view bytes, bool isLast) {
    const bool isUtf8 = m_decoder.Of().coding == Coding::kUtf8;
    if (!isUtf8) m_origin.Keep(bytes);
    std::string joined;
    if (!m_rest.empty()) {
        joined = m_rest + std::string(bytes);
        bytes = joined;
        m_rest.clear();
    }
    uint64_t source = m_source - bytes.size();
    while (!bytes.empty()) {
        if (const int result = Room(); result != 0) return result;
        if (!isUtf8) m_origin.Mark(m_fed + m_filled, source);
        const size_t free = m_roomSize - m_filled;
        const size_t room = m_decoder.Of().hasState ? 8 : std::min(free, kBlock);
        const Converted done = m_decoder.Convert(bytes, m_room + m_filled, room);
        const std::string_view block(m_room + m_filled, done.given);
        m_places.Scan(block.data(), block.size());
        m_filled += done.given;
        source += done.taken;
        bytes.remove_prefix(done.taken);
        const bool isCut = done.taken == 0 && !done.isBad;
        if (done.isBad || (isCut && isLast)) {
            // What comes before it may be wrong, too.
            if (const int result = Parse(false); result != 0) return result;
            return Refuse({KEMD_XML_CAUSE_ENCODING,
                           (done.isBad ? "these bytes are no character of "
                                       : "the document ends in the middle of a character of ") +
                               m_decoder.Of().name},
                          m_fed, true);
        }
        if (isCut) m_rest = bytes;
        if (isCut) return 0;
        if (m_isLarge && block.size() == kBlock && block.find('<') == block.npos) {
            if (const int result = Parse(false); result != 0) return result;
        }
    }
    return 0;
}

int XmlRun::Feed(std::string_view bytes) {
    if (m_result != 0) return m_result;
    m_source += bytes.size();
    const uint64_t most = m_limits[KEMD_XML_LIMIT_SIZE];
    const bool isTooLong = most != 0 && m_source > most;
    if (isTooLong) {
        bytes.remove_suffix(m_source - most);
        m_source = most;
    }
    int result = 0;
    if (m_isOpen) {
        result = Decode(bytes, false);
    } else {
        constexpr size_t kHead = 4096;
        const size_t taken = std::min(bytes.size(), kHead - std::min(m_head.size(), kHead));
        m_head += bytes.substr(0, taken);
        bytes.remove_prefix(taken);
        result = Open(bytes.size() > 0, bytes.size());
        if (result == 0 && m_isOpen) result = Decode(bytes, false);
    }
    if (result != 0 || !isTooLong) return result;
    if (m_isOpen) result = Parse(false);
    if (result != 0) return result;
    try {
        RefuseLimit(m_limits, KEMD_XML_LIMIT_SIZE);
    } catch (const XmlRefusal& refusal) {
        return Refuse(refusal, m_fed, true);
    }
}

int XmlRun::Finish(std::unique_ptr<KemdXmlDocument>& document) {
    if (m_result != 0) return m_result;
    int result = m_isOpen ? 0 : Open(true, 0);
    if (result == 0 && !m_rest.empty()) result = Decode({}, true);
    if (result != 0) return result;
    if (result = Room(); result != 0) return result;
    const size_t last = m_decoder.Flush(m_room + m_filled, m_roomSize - m_filled);
    m_places.Scan(m_room + m_filled, last);
    m_filled += last;
    if (result = Parse(true); result != 0) return result;
    m_document->facts.bytes = m_source;
    m_document->characters.Shrink();
    m_document->nodes.Shrink();
    m_document->attributes.Shrink();
    m_document->lines.Shrink();
    document = std::move(m_document);
    return 0;
}

std::string_view XmlRun::Context(size_t& offset) const {
    int start = 0, size = 0;
    const char* const bytes = XML_GetInputContext(m_parser.get(), &start, &size);
    offset = static_cast<size_t>(start);
    return bytes == nullptr ? std::string_view{}
                            : std::string_view(bytes, static_cast<size_t>(size));
}

int XmlRun::Parse(bool isLast) {
    const std::string_view piece(m_room, m_filled);
    if (!m_hasRoot) m_toRoot = m_prolog.empty() ? piece : m_prolog.append(piece);
    m_kept = m_isLarge ? m_room : nullptr;
    m_keptEnd = m_room + m_filled;
    m_parsed = m_released = m_fed;
    m_fed += m_filled;
    m_filled = 0;
    m_room = nullptr;
    const auto filled = static_cast<int>(piece.size());
    const XML_Status status = XML_ParseBuffer(m_parser.get(), filled, isLast ? 1 : 0);
    m_kept = nullptr;
    if (m_result != 0) return m_result;
    if (status == XML_STATUS_ERROR) return RefuseByExpat();
    if (m_hasRoot) m_prolog.clear();
    if (!m_hasRoot && m_prolog.empty()) m_prolog = piece;
    m_places.Finish();
    const uint64_t index = Index();
    if (m_decoder.Of().coding != Coding::kUtf8) m_origin.Forget(index);
    size_t offset = 0;
    const std::string_view context = Context(offset);
    if (isLast || m_fed - index < kPiece / 2 || offset > context.size()) return 0;
    try {
        CheckPending(context.substr(offset));
    } catch (const XmlRefusal& refusal) {
        return Refuse(refusal, index, false);
    }
    return 0;
}

void XmlRun::CheckTag(std::string_view tag) const {
    const uint64_t mostBytes = m_limits[KEMD_XML_LIMIT_NAME];
    const uint64_t mostAttributes = m_limits[KEMD_XML_LIMIT_ATTRIBUTES];
    uint64_t attributes = 0;
    size_t at = 1;
    while (at < tag.size()) {
        const size_t end = std::min(tag.find_first_of(" \t\r\n=\"'<>&", at), tag.size());
        if (mostBytes != 0 && end - at > mostBytes) RefuseLimit(m_limits, KEMD_XML_LIMIT_NAME);
        at = end;
        if (at < tag.size() && (tag[at] == '"' || tag[at] == '\'')) {
            ++attributes;
            at = std::min(tag.find(tag[at], at + 1), tag.size());
        }
        if (mostAttributes != 0 && attributes > mostAttributes) {
            RefuseLimit(m_limits, KEMD_XML_LIMIT_ATTRIBUTES);
        }
        ++at;
    }
}

void XmlRun::CheckPending(std::string_view pending) const {
    if (pending.starts_with("<!--") || pending.starts_with("<![")) return;
    if (pending.starts_with("<") && pending.size() > 1 && pending[1] != '?' && pending[1] != '!') {
        return CheckTag(pending);
    }
    // An instruction's target, a reference, or a word of a document type.
    const size_t start = std::min(pending.find_first_not_of("<?!&#%/"), pending.size());
    if (start < pending.size() && (pending[start] == '"' || pending[start] == '\'')) return;
    const size_t end = std::min(pending.find_first_of(" \t\r\n<>&;?[]", start), pending.size());
    const uint64_t most = m_limits[KEMD_XML_LIMIT_NAME];
    if (most != 0 && end - start > most) RefuseLimit(m_limits, KEMD_XML_LIMIT_NAME);
}

void XmlRun::CheckExpansionHere() {
    const uint64_t most = m_limits[KEMD_XML_LIMIT_EXPANSION];
    const auto size = static_cast<uint64_t>(XML_GetCurrentByteCount(m_parser.get()));
    if (m_builder.Delivered() > Index() + size + most) {
        RefuseLimit(m_limits, KEMD_XML_LIMIT_EXPANSION);
    }
}

// Up to 100 characters before the place and 60 after it, of one line.
void XmlRun::Excerpt(std::string_view context, size_t offset) {
    constexpr size_t kBefore = 240, kAfter = 120;
    const auto isEnd = [](char c) { return c == '\n' || c == '\r'; };
    size_t begin = offset;
    while (begin > 0 && offset - begin < kBefore && !isEnd(context[begin - 1])) --begin;
    while (begin < offset && (context[begin] & 0xC0) == 0x80) ++begin;
    size_t end = offset;
    while (end < context.size() && end - offset < kAfter && !isEnd(context[end])) ++end;
    while (end > offset && end < context.size() && (context[end] & 0xC0) == 0x80) --end;
    Copy(context.substr(begin, end - begin), m_error.excerpt);
    m_error.mark = static_cast<uint32_t>(std::count_if(context.begin() + static_cast<long>(begin),
                                                       context.begin() + static_cast<long>(offset),
                                                       [](char c) { return (c & 0xC0) != 0x80; }));
}

// `isAtEnd`: at the end of what expat has; it waits for more from its place on.
int XmlRun::Refuse(const XmlRefusal& refusal, uint64_t index, bool isAtEnd) {
    m_result = refusal.cause == KEMD_XML_CAUSE_SYSTEM ? ENOMEM : EBADMSG;
    m_error = {};
    m_error.cause = refusal.cause;
    m_error.limit = refusal.limit;
    Copy(refusal.text, m_error.text);
    size_t offset = 0;
    const std::string_view context = Context(offset);
    if (isAtEnd) offset += std::min<size_t>(m_fed - Index(), context.size() - offset);
    const XmlPlace place = m_document->PlaceOf(m_places.At(isAtEnd ? m_fed : Index()));
    m_error.line = place.line;
    m_error.column = place.column;
    m_error.offset = m_isOpen ? m_origin.Source(index) : 0;
    if (context.data() != nullptr) Excerpt(context, std::min(offset, context.size()));
    return m_result;
}

int XmlRun::RefuseByExpat() {
    const XML_Error error = XML_GetErrorCode(m_parser.get());
    XmlRefusal refusal{CauseOf(error), TextOf(error)};
    if (error == XML_ERROR_NO_MEMORY) {
        refusal = {KEMD_XML_CAUSE_SYSTEM, "there is not enough memory"};
    } else if (error == XML_ERROR_AMPLIFICATION_LIMIT_BREACH) {
        try {
            RefuseLimit(m_limits, KEMD_XML_LIMIT_EXPANSION);
        } catch (XmlRefusal& limit) {
            refusal = std::move(limit);
        }
    } else if (error == XML_ERROR_TAG_MISMATCH || error == XML_ERROR_NO_ELEMENTS) {
        const std::string name(m_builder.OpenName());
        if (!name.empty()) {
            const std::string line = std::to_string(m_builder.OpenPlace().line);
            refusal.text = (error == XML_ERROR_TAG_MISMATCH ? "this does not close <"
                                                            : "the document ends within <") +
                           name + "> of line " + line;
        }
    } else if (error == XML_ERROR_INVALID_TOKEN || error == XML_ERROR_PARTIAL_CHAR) {
        size_t offset = 0;
        const std::string_view context = Context(offset);
        const std::string_view here = context.substr(std::min(offset, context.size()));
        if (!here.empty() && here[0] != '<' && Utf8Length(here) == 0) {
            refusal = {KEMD_XML_CAUSE_ENCODING,
                       "these bytes are no character of UTF-8; if the document is in another "
                       "encoding, it does not declare it"};
        } else if (error == XML_ERROR_INVALID_TOKEN) {
            refusal.text = "XML does not allow this here";
        }
    }
    return Refuse(refusal, Index(), false);
}
