// One SMBIOS structure with its strings. Outside of the structure numbers are 0 and texts empty.
// Valid as long as the tables. Throws std::bad_alloc alone.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "inventory/item.h"
#include "inventory/smbios.h"
#include "inventory/smbios_words.h"
#include "inventory/table_field.h"

class SmbiosRecord {
  public:
    // A structure from the index.
    SmbiosRecord(const CSMBios& smbios, size_t position)
        : m_formatted(smbios.Formatted(position)), m_strings(AsText(smbios, position)) {
        m_strings.remove_prefix(m_formatted.size());
    }

    [[nodiscard]] uint16_t Handle() const { return Word(2); }
    // Whether the structure goes so far.
    [[nodiscard]] bool Has(size_t offset, size_t size = 1) const {
        return offset + size <= m_formatted.size();
    }
    [[nodiscard]] uint8_t Byte(size_t offset) const { return ReadByte(m_formatted, offset); }
    [[nodiscard]] uint16_t Word(size_t offset) const { return ReadWord(m_formatted, offset); }
    [[nodiscard]] uint32_t Dword(size_t offset) const { return ReadDword(m_formatted, offset); }
    [[nodiscard]] uint64_t Qword(size_t offset) const { return ReadQword(m_formatted, offset); }
    // The string with this number, counted from 1.
    [[nodiscard]] std::string_view String(uint8_t number) const {
        std::string_view rest = m_strings;
        for (; number > 0; --number) {
            const size_t end = rest.find('\0');
            if (end == 0 || end == rest.npos) return {};
            if (number == 1) return rest.substr(0, end);
            rest.remove_prefix(end + 1);
        }
        return {};
    }
    // The string whose number is at the offset.
    [[nodiscard]] std::string_view Text(size_t offset) const { return String(Byte(offset)); }

    struct TextField {
        InventoryField field;
        size_t offset;
    };
    void AddTexts(KemdInventoryItem& item, std::initializer_list<TextField> fields) const {
        for (const TextField& each : fields) item.Add(each.field, Text(each.offset));
    }
    // The word for the code at the offset.
    void AddWord(KemdInventoryItem& item, InventoryField field, size_t offset,
                 const SmbiosWords& words) const {
        if (Has(offset)) item.Add(field, SmbiosWord(words, Byte(offset)));
    }

  private:
    // From the structure to the end of the table.
    static std::string_view AsText(const CSMBios& smbios, size_t position) {
        const std::span<const uint8_t> table(smbios.Data().table);
        return {reinterpret_cast<const char*>(table.data()) + position, table.size() - position};
    }

    std::span<const uint8_t> m_formatted;
    std::string_view m_strings;
};

inline void AddFlags(KemdInventoryItem& item, InventoryField field, SmbiosBits bits,
                     uint64_t value) {
    for (const std::string_view flag : SmbiosFlags(bits, value)) item.Add(field, flag);
}
// What stands for "not known" is not added.
inline void AddKnown(KemdInventoryItem& item, InventoryField field, uint64_t number,
                     uint64_t unknown = 0) {
    if (number != unknown && number != 0) item.AddNumber(field, number);
}
