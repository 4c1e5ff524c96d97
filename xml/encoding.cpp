#include "xml/encoding.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "base/utf8.h"
#include "xml/code_pages.h"

namespace {

constexpr uint32_t kBad = 0xFFFFFFFF;
constexpr uint32_t kCut = 0xFFFFFFFE;
constexpr uint32_t kLastCharacter = 0x10FFFF;

bool IsSurrogate(uint32_t character) {
    return (character & 0xFFFFF800U) == 0xD800;
}

uint32_t Number(const char* bytes, size_t size, bool isBig) {
    uint32_t number = 0;
    for (size_t i = 0; i < size; ++i) {
        const size_t shift = 8 * (isBig ? size - 1 - i : i);
        number |= uint32_t{static_cast<unsigned char>(bytes[i])} << shift;
    }
    return number;
}

void AddNumber(std::string& out, uint32_t number, size_t size, bool isBig) {
    for (size_t i = 0; i < size; ++i) {
        out += static_cast<char>(number >> 8 * (isBig ? size - 1 - i : i));
    }
}

size_t PutUtf8(uint32_t character, char* out) {
    if (character < 0x80) {
        out[0] = static_cast<char>(character);
        return 1;
    }
    const size_t more = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
    constexpr std::array<unsigned, 4> kLead = {0, 0xC0, 0xE0, 0xF0};
    out[0] = static_cast<char>(kLead[more] | character >> 6 * more);
    for (size_t i = 1; i <= more; ++i) {
        out[i] = static_cast<char>(0x80 | (character >> 6 * (more - i) & 0x3F));
    }
    return more + 1;
}

struct Unit {
    uint32_t character;
    size_t size;
};

Unit TakeUtf16(std::string_view bytes, bool isBig) {
    if (bytes.size() < 2) return {kCut, 0};
    const uint32_t first = Number(bytes.data(), 2, isBig);
    if (!IsSurrogate(first)) return {first, 2};
    if (first >= 0xDC00) return {kBad, 0};
    if (bytes.size() < 4) return {kCut, 0};
    const uint32_t second = Number(bytes.data() + 2, 2, isBig);
    if ((second & 0xFFFFFC00U) != 0xDC00) return {kBad, 0};
    return {0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00), 4};
}

Unit TakeUtf32(std::string_view bytes, bool isBig) {
    if (bytes.size() < 4) return {kCut, 0};
    const uint32_t character = Number(bytes.data(), 4, isBig);
    if (character > kLastCharacter || IsSurrogate(character)) return {kBad, 0};
    return {character, 4};
}

// Of the encodings that are converted here, but UTF-8.
Unit Take(Coding coding, std::string_view bytes) {
    switch (coding) {
        case Coding::kUtf16Little:
        case Coding::kUtf16Big:
            return TakeUtf16(bytes, coding == Coding::kUtf16Big);
        case Coding::kUtf32Little:
        case Coding::kUtf32Big:
            return TakeUtf32(bytes, coding == Coding::kUtf32Big);
        default:
            break;
    }
    if (bytes.empty()) return {kCut, 0};
    const auto byte = static_cast<unsigned char>(bytes[0]);
    return {coding == Coding::kAscii && byte >= 0x80 ? kBad : byte, 1};
}

struct BuiltIn {
    const char* name;
    Coding coding;
    bool hasMark;
};
// Names as the table prefers them.
constexpr BuiltIn kBuiltIn[] = {
    {"UTF-8", Coding::kUtf8, false},
    {"US-ASCII", Coding::kAscii, false},
    {"ISO-8859-1", Coding::kLatin1, false},
    {"UTF-16", Coding::kUtf16Big, true},
    {"UTF-16LE", Coding::kUtf16Little, false},
    {"UTF-16BE", Coding::kUtf16Big, false},
    {"ISO-10646-UCS-2", Coding::kUtf16Big, true},
    {"UTF-32", Coding::kUtf32Big, true},
    {"UTF-32LE", Coding::kUtf32Little, false},
    {"UTF-32BE", Coding::kUtf32Big, false},
    {"ISO-10646-UCS-4", Coding::kUtf32Big, true},
};

bool HasState(std::string_view name) {
    constexpr std::string_view kBegins[] = {"ISO-2022", "UTF-7",   "HZ",       "IBM93", "IBM13",
                                            "IBM-93",   "IBM-13",  "CP93",     "CP50",  "CP52936",
                                            "UTF7",     "x-cp502", "CSISO2022"};
    return std::any_of(std::begin(kBegins), std::end(kBegins),
                       [name](std::string_view begin) { return name.starts_with(begin); });
}

// Nothing that iconv would take for more than a name.
bool IsPlainName(std::string_view name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || std::strchr("._-:()+", c) != nullptr;
    });
}

}  // namespace

int FindEncoding(std::string_view name, Encoding& encoding) {
    if (!IsPlainName(name)) return ENOENT;
    encoding = {};
    encoding.page = FindCodePage(name);
    encoding.name = encoding.page != nullptr ? encoding.page->name : std::string(name);
    for (const BuiltIn& each : kBuiltIn) {
        if (encoding.name != each.name) continue;
        encoding.coding = each.coding;
        encoding.hasMark = each.hasMark;
        return 0;
    }
    encoding.coding = Coding::kLibrary;
    std::string upper = encoding.name;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    encoding.hasState = HasState(upper);
    Conversion conversion;
    if (conversion.Open(encoding, true)) return 0;
    return encoding.page != nullptr ? ENOTSUP : ENOENT;
}

void Conversion::Close() {
    if (m_conversion != nullptr) iconv_close(m_conversion);
    m_conversion = nullptr;
}

bool Conversion::Open(const std::string& name, bool toUtf8) {
    Close();
    m_conversion = iconv_open(toUtf8 ? "UTF-8" : name.c_str(), toUtf8 ? name.c_str() : "UTF-8");
    if (reinterpret_cast<intptr_t>(m_conversion) == -1) m_conversion = nullptr;
    return m_conversion != nullptr;
}

// The C library knows most encodings by one of their names only, or by the number.
bool Conversion::Open(const Encoding& encoding, bool toUtf8) {
    if (Open(encoding.name, toUtf8)) return true;
    if (encoding.page == nullptr) return false;
    for (size_t i = 0;; ++i) {
        const std::string_view alias = AliasAt(*encoding.page, i);
        if (alias.empty()) break;
        if (IsPlainName(alias) && Open(std::string(alias), toUtf8)) return true;
    }
    const uint32_t number = encoding.page->number;
    return number != 0 && (Open("CP" + std::to_string(number), toUtf8) ||
                           Open("IBM" + std::to_string(number), toUtf8));
}

bool Decoder::Open(const Encoding& encoding) {
    m_encoding = encoding;
    return encoding.coding != Coding::kLibrary || m_conversion.Open(encoding, true);
}

Converted Decoder::Convert(std::string_view bytes, char* out, size_t room) {
    Converted done;
    if (m_encoding.coding == Coding::kUtf8) {
        done.taken = done.given = std::min(bytes.size(), room);
        std::memcpy(out, bytes.data(), done.taken);
        return done;
    }
    if (m_encoding.coding == Coding::kLibrary) {
        char* from = const_cast<char*>(bytes.data());
        size_t left = bytes.size(), space = room;
        const size_t result = iconv(m_conversion.Get(), &from, &left, &out, &space);
        done.isBad = result == static_cast<size_t>(-1) && errno == EILSEQ;
        done.taken = bytes.size() - left;
        done.given = room - space;
        return done;
    }
    while (room - done.given >= 4) {
        const Unit unit = Take(m_encoding.coding, bytes.substr(done.taken));
        done.isBad = unit.character == kBad;
        if (done.isBad || unit.character == kCut) return done;
        done.taken += unit.size;
        done.given += PutUtf8(unit.character, out + done.given);
    }
    return done;
}

size_t Decoder::Flush(char* out, size_t room) {
    if (m_encoding.coding != Coding::kLibrary) return 0;
    const size_t before = room;
    iconv(m_conversion.Get(), nullptr, nullptr, &out, &room);
    return before - room;
}

bool Encoder::Open(const Encoding& encoding) {
    m_encoding = encoding;
    // Little endian, as most programs write it.
    if (encoding.hasMark) {
        const bool isShort = encoding.coding == Coding::kUtf16Big;
        m_encoding.coding = isShort ? Coding::kUtf16Little : Coding::kUtf32Little;
    }
    return encoding.coding != Coding::kLibrary || m_conversion.Open(encoding, false);
}

void Encoder::Begin(std::string& out) const {
    if (m_encoding.hasMark)
        AddNumber(out, 0xFEFF, m_encoding.coding == Coding::kUtf16Little ? 2 : 4, false);
}

void Encoder::End(std::string& out) {
    if (m_encoding.coding != Coding::kLibrary) return;
    char last[64];
    char* to = last;
    size_t room = sizeof last;
    iconv(m_conversion.Get(), nullptr, nullptr, &to, &room);
    out.append(last, sizeof last - room);
}

// After a character that the encoding lacks in small steps, as the C library converts some
// thousand characters each time before it finds the next one.
size_t Encoder::ConvertByLibrary(std::string_view text, std::string& out) {
    constexpr size_t kSmallest = 16, kLargest = 4096;
    size_t taken = 0;
    while (taken < text.size()) {
        size_t size = std::min(m_step, text.size() - taken);
        while (taken + size < text.size() && (text[taken + size] & 0xC0) == 0x80) ++size;
        char* from = const_cast<char*>(text.data()) + taken;
        size_t left = size;
        char piece[8 * kLargest];
        char* to = piece;
        size_t room = sizeof piece;
        const size_t result = iconv(m_conversion.Get(), &from, &left, &to, &room);
        const bool isWhole = result != static_cast<size_t>(-1);
        out.append(piece, sizeof piece - room);
        taken += size - left;
        m_step = isWhole ? std::min(m_step * 2, kLargest) : kSmallest;
        if (!isWhole) break;
    }
    return taken;
}

// False: the encoding, which is none of the C library's, lacks it.
bool Encoder::Put(uint32_t character, std::string& out) const {
    const bool isBig =
        m_encoding.coding == Coding::kUtf16Big || m_encoding.coding == Coding::kUtf32Big;
    switch (m_encoding.coding) {
        case Coding::kAscii:
        case Coding::kLatin1:
            if (character >= (m_encoding.coding == Coding::kAscii ? 0x80 : 0x100)) return false;
            out += static_cast<char>(character);
            return true;
        case Coding::kUtf16Little:
        case Coding::kUtf16Big:
            if (character >= 0x10000) {
                AddNumber(out, 0xD7C0 + (character >> 10), 2, isBig);
                character = 0xDC00 | (character & 0x3FF);
            }
            AddNumber(out, character, 2, isBig);
            return true;
        default:
            AddNumber(out, character, 4, isBig);
            return true;
    }
}

size_t Encoder::Convert(std::string_view text, std::string& out) {
    if (m_encoding.coding == Coding::kUtf8) {
        out += text;
        return text.size();
    }
    if (m_encoding.coding == Coding::kLibrary) return ConvertByLibrary(text, out);
    size_t taken = 0;
    while (taken < text.size()) {
        const size_t length = Utf8Length(text.substr(taken));
        if (!Put(CodePoint(text.substr(taken, length)), out)) break;
        taken += length;
    }
    return taken;
}
