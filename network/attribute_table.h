// Which attribute fills which field: most of a message is read by a table.
#pragma once

#include <array>
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

// The rows of a kind of message, found by the attribute's number.
class AttributeTable {
  public:
    template <size_t kRows>
    constexpr explicit AttributeTable(const AttributeRow (&rows)[kRows]) : m_rows(rows) {
        for (size_t i = 0; i < kRows; ++i) m_places.at(rows[i].attribute) = i + 1;
    }
    // Null when the attribute fills no field.
    [[nodiscard]] constexpr const AttributeRow* Find(uint16_t attribute) const {
        const bool isThere = attribute < m_places.size() && m_places[attribute] != 0;
        return isThere ? &m_rows[m_places[attribute] - 1U] : nullptr;
    }

  private:
    std::span<const AttributeRow> m_rows;
    std::array<uint8_t, 64> m_places{};  // from 1
};

// False when the attribute fills no field.
bool ReadByTable(KemdNetworkInterface& interface, const Attribute& attribute,
                 const AttributeTable& table);
void ReadByTable(KemdNetworkInterface& interface, const Attributes& attributes,
                 const AttributeTable& table);

// "52:54:00:12:34:56"
[[nodiscard]] std::string HexText(std::string_view bytes, char separator);
// 4 or 16 bytes; empty for any other number.
[[nodiscard]] std::string IpText(std::string_view bytes);
