#include "network/module_eeprom.h"

#include <cerrno>

#include "base/text.h"
#include "network/attribute_table.h"

namespace {

// Where each standard has its fields, from the start of their page's half.
struct Layout {
    uint32_t start;  // offset of the half in page 0
    uint32_t connector;
    uint32_t vendor, oui, part, revision, serial, date;
    uint32_t revisionLength;
};
constexpr Layout kSff8472 = {0, 2, 20, 37, 40, 56, 68, 84, 4};
constexpr Layout kSff8636 = {128, 2, 20, 37, 40, 56, 68, 84, 2};
constexpr Layout kCmis = {128, 75, 1, 17, 20, 36, 38, 54, 2};
constexpr uint32_t kHalf = 128;
constexpr uint32_t kNameLength = 16;
constexpr uint32_t kOuiLength = 3;
constexpr uint32_t kDateLength = 8;

const Layout* LayoutOf(uint8_t type) {
    switch (type) {
        case 0x02:  // soldered
        case 0x03:  // SFP
            return &kSff8472;
        case 0x0C:  // QSFP
        case 0x0D:  // QSFP+
        case 0x11:  // QSFP28
            return &kSff8636;
        case 0x18:  // QSFP-DD
        case 0x19:  // OSFP
        case 0x1A:  // SFP-DD
        case 0x1B:  // DSFP
        case 0x1E:  // QSFP+ with CMIS
        case 0x1F:  // SFP-DD with CMIS
        case 0x20:  // SFP+ with CMIS
            return &kCmis;
        default:
            return nullptr;
    }
}

}  // namespace

int ReadModuleIdentity(const ReadModuleBytes& read, KemdNetworkInterface& interface) {
    std::string bytes;
    int error = read(0, 0, 1, bytes);
    if (error != 0) return error;
    if (bytes.empty()) return EIO;
    const auto type = static_cast<uint8_t>(bytes[0]);
    interface.Set(KEMD_NET_MODULE_TYPE, type);
    const Layout* layout = LayoutOf(type);
    if (layout == nullptr) return EOPNOTSUPP;
    error = read(0, layout->start, kHalf, bytes);
    if (error != 0) return error;
    if (bytes.size() < kHalf) return EIO;
    const std::string_view half = bytes;
    const auto setText = [&](uint32_t field, uint32_t offset, uint32_t length) {
        interface.SetText(field, Trim(CutAtNul(half.substr(offset, length))));
    };
    interface.Set(KEMD_NET_MODULE_CONNECTOR, static_cast<uint8_t>(half[layout->connector]));
    setText(KEMD_NET_MODULE_VENDOR, layout->vendor, kNameLength);
    setText(KEMD_NET_MODULE_PART, layout->part, kNameLength);
    setText(KEMD_NET_MODULE_REVISION, layout->revision, layout->revisionLength);
    setText(KEMD_NET_MODULE_SERIAL, layout->serial, kNameLength);
    setText(KEMD_NET_MODULE_DATE, layout->date, kDateLength);
    interface.SetText(KEMD_NET_MODULE_OUI, HexText(half.substr(layout->oui, kOuiLength), ':'));
    return 0;
}
