// Which attribute fills which field: most of a message is read by a table.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "network/attributes.h"
#include "network/interface.h"

enum class AttributeForm : uint8_t {
    kNumber,
    kNetworkNumber,  // in the order of the network
    kPositive,       // 0 says that there is none
    kKnown,          // all bits set say that it is not known
    kText,
    kHardwareAddress,  // by the type of the link layer
    kHexadecimal,
    kIpAddress,
};

struct AttributeRow {
    uint16_t attribute;
    uint32_t field;
    AttributeForm form = AttributeForm::kNumber;
};

void ReadByTable(KemdNetworkInterface& interface, const Attributes& attributes,
                 std::span<const AttributeRow> table);

// "52:54:00:12:34:56"
[[nodiscard]] std::string HexText(std::string_view bytes, char separator);
// 4 or 16 bytes; empty for any other number.
[[nodiscard]] std::string IpText(std::string_view bytes);
