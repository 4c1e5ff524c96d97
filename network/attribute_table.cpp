#include "network/attribute_table.h"

#include <arpa/inet.h>
#include <linux/if_arp.h>

namespace {

constexpr uint64_t kTunnel6 = 769;  // ARPHRD_TUNNEL6 and ARPHRD_IP6GRE: not in every linux/if_arp.h
constexpr uint64_t kGre6 = 823;

// Tunnels have an IP address for their hardware's.
std::string HardwareText(const KemdNetworkInterface& interface, std::string_view bytes) {
    const uint64_t type = interface.Number(KEMD_NET_TYPE);
    const bool isIp = ((type == ARPHRD_TUNNEL || type == ARPHRD_SIT || type == ARPHRD_IPGRE) &&
                       bytes.size() == 4) ||
                      ((type == kTunnel6 || type == kGre6) && bytes.size() == 16);
    return isIp ? IpText(bytes) : HexText(bytes, ':');
}

bool IsAllBits(uint64_t value, size_t size) {
    return size < 8 ? value == (uint64_t{1} << size * 8) - 1 : value == UINT64_MAX;
}

void ReadNumber(KemdNetworkInterface& interface, const Attribute& attribute,
                const AttributeRow& row) {
    const auto value =
        row.form == AttributeForm::kNetworkNumber ? attribute.NetworkNumber() : attribute.Number();
    if (!value) return;
    if (row.form == AttributeForm::kPositive && *value == 0) return;
    if (row.form == AttributeForm::kKnown && IsAllBits(*value, attribute.bytes.size())) return;
    interface.Set(row.field, *value);
}

void ReadOne(KemdNetworkInterface& interface, const Attribute& attribute, const AttributeRow& row) {
    switch (row.form) {
        case AttributeForm::kNumber:
        case AttributeForm::kNetworkNumber:
        case AttributeForm::kPositive:
        case AttributeForm::kKnown:
            ReadNumber(interface, attribute, row);
            return;
        case AttributeForm::kText:
            interface.SetText(row.field, attribute.Text());
            return;
        case AttributeForm::kHardwareAddress:
            if (attribute.bytes.empty()) return;
            interface.SetText(row.field, HardwareText(interface, attribute.bytes));
            return;
        case AttributeForm::kHexadecimal:
            interface.SetText(row.field, HexText(attribute.bytes, '\0'));
            return;
        case AttributeForm::kIpAddress:
            if (const std::string text = IpText(attribute.bytes); !text.empty()) {
                interface.SetText(row.field, text);
            }
            return;
    }
}

}  // namespace

bool ReadByTable(KemdNetworkInterface& interface, const Attribute& attribute,
                 const AttributeTable& table) {
    const AttributeRow* row = table.Find(attribute.type);
    if (row != nullptr) ReadOne(interface, attribute, *row);
    return row != nullptr;
}

void ReadByTable(KemdNetworkInterface& interface, const Attributes& attributes,
                 const AttributeTable& table) {
    for (const Attribute& attribute : attributes) (void)ReadByTable(interface, attribute, table);
}

std::string HexText(std::string_view bytes, char separator) {
    constexpr char kDigits[] = "0123456789abcdef";
    const size_t each = separator != '\0' ? 3 : 2;
    std::string text(bytes.size() * each, separator);
    for (size_t i = 0; i < bytes.size(); ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        text[i * each] = kDigits[byte >> 4];
        text[i * each + 1] = kDigits[byte & 15];
    }
    if (each == 3 && !text.empty()) text.pop_back();
    return text;
}

std::string IpText(std::string_view bytes) {
    char text[INET6_ADDRSTRLEN] = "";
    if (bytes.size() != 4 && bytes.size() != 16) return {};
    const int family = bytes.size() == 4 ? AF_INET : AF_INET6;
    return inet_ntop(family, bytes.data(), text, sizeof text) != nullptr ? text : "";
}
