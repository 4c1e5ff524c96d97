#include "inventory/drive_identity.h"

#include <algorithm>
#include <array>

#include "base/text.h"
#include "inventory/table_field.h"

namespace {

using Bytes = std::span<const uint8_t>;

std::string Hex(Bytes bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

// Two characters a word, the first in the upper byte.
std::string AtaText(Bytes words) {
    std::string text;
    for (size_t i = 0; i + 1 < words.size(); i += 2) {
        text += static_cast<char>(words[i + 1]);
        text += static_cast<char>(words[i]);
    }
    return std::string(Trim(CutAtNul(text)));
}

// The part of a page after its header of 4 bytes; empty when it is another page.
Bytes PageBody(Bytes page, uint8_t code) {
    constexpr size_t kHeader = 4;
    if (page.size() < kHeader || page[1] != code) return {};
    const size_t length = size_t{page[2]} << 8 | page[3];
    return page.subspan(kHeader).first(std::min(length, page.size() - kHeader));
}

}  // namespace

AtaIdentity ReadAtaIdentity(Bytes page) {
    constexpr uint8_t kCode = 0x89;
    constexpr size_t kHeader = 56;
    constexpr size_t kSize = 512;
    constexpr uint8_t kNaa5 = 5;
    AtaIdentity identity;
    const Bytes body = PageBody(page, kCode);
    if (body.size() < kHeader + kSize) return identity;
    const Bytes words = body.subspan(kHeader, kSize);
    // Offsets in bytes, two a word.
    constexpr size_t kEnabled = 174;  // word 87
    constexpr size_t kName = 216;     // words 108 to 111
    constexpr size_t kRate = 434;     // word 217
    identity.serial = AtaText(words.subspan(20, 20));
    identity.firmware = AtaText(words.subspan(46, 8));
    identity.model = AtaText(words.subspan(54, 40));
    // Valid when the highest bits are 01; bit 8: there is a name.
    if ((ReadWord(words, kEnabled) & 0xC100) == 0x4100) {
        std::array<uint8_t, 8> name{};
        for (size_t i = 0; i < name.size(); ++i) name[i] = words[kName + (i ^ 1)];
        if (name[0] >> 4 == kNaa5) identity.wwn = "0x" + Hex(name);
    }
    const uint16_t rate = ReadWord(words, kRate);
    if (rate >= 0x0401 && rate != 0xFFFF) identity.rotationRate = rate;
    return identity;
}

std::string ReadSerialPage(Bytes page) {
    constexpr uint8_t kCode = 0x80;
    const Bytes body = PageBody(page, kCode);
    const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
    return std::string(Trim(CutAtNul(text)));
}

std::string ReadWwnPage(Bytes page) {
    constexpr uint8_t kCode = 0x83;
    constexpr uint8_t kBinary = 1;
    constexpr uint8_t kEui = 2;
    constexpr uint8_t kNaa = 3;
    constexpr size_t kHeader = 4;
    std::string eui;
    for (Bytes rest = PageBody(page, kCode); rest.size() >= kHeader;) {
        const size_t length = rest[3];
        if (length > rest.size() - kHeader) break;
        const Bytes name = rest.subspan(kHeader, length);
        const bool isOfUnit = (rest[1] & 0x30) == 0;
        const bool isBinary = (rest[0] & 0x0F) == kBinary;
        const uint8_t type = rest[1] & 0x0F;
        rest = rest.subspan(kHeader + length);
        if (!isOfUnit || !isBinary) continue;
        if (type == kNaa && (length == 8 || length == 16)) return "0x" + Hex(name);
        if (type == kEui && eui.empty() && length >= 8) eui = "eui." + Hex(name);
    }
    return eui;
}

std::string DriveWwn(std::string_view wwid) {
    if (wwid.starts_with("naa.")) return "0x" + std::string(wwid.substr(4));
    const bool isName =
        wwid.starts_with("eui.") || wwid.starts_with("nvme.") || wwid.starts_with("uuid.");
    return isName ? std::string(wwid) : std::string();
}

std::string IdPart(std::string_view text) {
    std::string part(text);
    std::replace_if(
        part.begin(), part.end(),
        [](char c) {
            const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
            const bool isDigit = c >= '0' && c <= '9';
            return !isLetter && !isDigit && std::string_view("._:+-").find(c) == std::string::npos;
        },
        '_');
    return part;
}
