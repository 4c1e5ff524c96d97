// Which encoding a document has: what the caller says, a byte order mark, the declaration, and the
// patterns of appendix F of XML 1.0, by which the declaration can be read at all.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "base/text.h"
#include "kemd/xml.h"
#include "xml/encoding.h"

namespace {

using namespace std::string_view_literals;

struct Mark {
    std::string_view bytes;
    const char* name;
};
// Longer ones first, where one begins with the other.
constexpr Mark kMarks[] = {
    {"\0\0\xFE\xFF"sv, "UTF-32BE"}, {"\xFF\xFE\0\0"sv, "UTF-32LE"}, {"\xFE\xFF"sv, "UTF-16BE"},
    {"\xFF\xFE"sv, "UTF-16LE"},     {"\xEF\xBB\xBF"sv, "UTF-8"},
};
// How "<" with another character, or "<?xm", is encoded.
constexpr Mark kPatterns[] = {
    {"\0\0\0<"sv, "UTF-32BE"}, {"<\0\0\0"sv, "UTF-32LE"},        {"\0<"sv, "UTF-16BE"},
    {"<\0"sv, "UTF-16LE"},     {"\x4C\x6F\xA7\x94"sv, "IBM037"}, {"+ADw"sv, "UTF-7"},
};

// The longest declaration that is looked at; blanks could make it any length.
constexpr size_t kLongestDeclaration = 1024;
constexpr size_t kShortestHead = 4;

const Mark* Find(std::span<const Mark> marks, std::string_view head) {
    for (const Mark& mark : marks) {
        // "<\0" with a third and fourth zero came before.
        if (head.starts_with(mark.bytes)) return &mark;
    }
    return nullptr;
}

// The start of the document as UTF-8, as far as it goes.
std::string Decoded(const Encoding& encoding, std::string_view bytes) {
    Decoder decoder;
    std::string text(kLongestDeclaration * 4, '\0');
    text.resize(decoder.Open(encoding) ? decoder.Convert(bytes, text.data(), text.size()).given
                                       : 0);
    return text;
}

// encoding="..." of a declaration; empty: none.
std::string_view DeclaredEncoding(std::string_view declaration) {
    const size_t start = declaration.find("encoding");
    if (start == declaration.npos) return {};
    std::string_view rest = TrimStart(declaration.substr(start + strlen("encoding")));
    if (!rest.starts_with('=')) return {};
    rest = TrimStart(rest.substr(1));
    if (rest.empty() || (rest[0] != '"' && rest[0] != '\'')) return {};
    const size_t end = rest.find(rest[0], 1);
    return end == rest.npos ? std::string_view{} : rest.substr(1, end - 1);
}

bool IsUtf16Or32(Coding coding) {
    return coding >= Coding::kUtf16Little && coding <= Coding::kUtf32Big;
}

// What the declaration says, if its bytes can be of that encoding.
void Choose(std::string_view head, const Encoding& family, bool hasPattern, Detection& detection) {
    detection.encoding = family;
    detection.from = hasPattern ? KEMD_XML_FROM_PATTERN : KEMD_XML_FROM_DEFAULT;
    if (detection.declared.empty()) return;
    Encoding named;
    const int error = FindEncoding(detection.declared, named);
    if (error != 0) {
        detection.error = error == ENOENT
                              ? "the encoding " + detection.declared + " is not known"
                              : "the C library of this host does not convert the encoding " +
                                    named.name + "; its gconv modules may not be installed";
        return;
    }
    // Of an order that only the bytes show.
    if (named.hasMark && IsUtf16Or32(family.coding) &&
        (named.coding == Coding::kUtf16Big) == (family.coding <= Coding::kUtf16Big)) {
        named.coding = family.coding;
    }
    if (!Decoded(named, head).starts_with("<?xml")) {
        detection.error = "the document says that it is " + named.name +
                          ", but its first bytes are not; it may be " + family.name;
        return;
    }
    detection.encoding = named;
    detection.from = KEMD_XML_FROM_DECLARATION;
}

}  // namespace

bool Detect(std::string_view head, bool isAll, const Encoding* wanted, Detection& detection) {
    if (head.size() < kShortestHead && !isAll) return false;
    detection = {};
    const Mark* const mark = Find(kMarks, head);
    const Mark* const pattern = mark == nullptr ? Find(kPatterns, head) : nullptr;
    Encoding family;
    if (mark != nullptr || pattern != nullptr) {
        const char* const name = (mark != nullptr ? mark : pattern)->name;
        const int error = FindEncoding(name, family);
        if (error != 0) detection.error = std::string("the C library does not convert ") + name;
    }
    if (wanted != nullptr) {
        const bool fits = wanted->hasMark && IsUtf16Or32(family.coding);
        detection.encoding = *wanted;
        if (fits) detection.encoding.coding = family.coding;
        detection.from = KEMD_XML_FROM_CALLER;
        detection.error.clear();
        if (mark != nullptr && detection.encoding.coding == family.coding) {
            detection.mark = mark->bytes.size();
        }
        return true;
    }
    if (!detection.error.empty()) return true;
    if (mark != nullptr) detection.mark = mark->bytes.size();
    const std::string text = Decoded(family, head.substr(detection.mark, kLongestDeclaration * 4));
    const std::string_view start = "<?xml";
    const bool mayDeclare = std::string_view(text).substr(0, start.size()) ==
                            start.substr(0, std::min(start.size(), text.size()));
    const size_t end = text.find("?>");
    if (mayDeclare && end == text.npos && !isAll && text.size() < kLongestDeclaration) return false;
    if (mayDeclare && text.size() > start.size() && IsSpace(text[start.size()])) {
        detection.declared = DeclaredEncoding(std::string_view(text).substr(0, end));
    }
    if (mark != nullptr) {
        detection.encoding = family;
        detection.from = KEMD_XML_FROM_MARK;
    } else {
        Choose(head, family, pattern != nullptr, detection);
    }
    return true;
}
