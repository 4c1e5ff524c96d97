// SMBIOS tables made by tests.
#pragma once

#include <string>
#include <vector>

#include "inventory/smbios.h"

class SmbiosBuilder {
  public:
    SmbiosBuilder() = default;
    explicit SmbiosBuilder(std::vector<uint8_t> table) : m_table(std::move(table)) {}
    // `formatted` follows the header. The structure's handle is returned.
    uint16_t Add(uint8_t type, const std::vector<uint8_t>& formatted,
                 const std::vector<std::string>& strings = {}) {
        const uint16_t handle = m_handle++;
        const auto length = static_cast<uint8_t>(formatted.size() + 4);
        m_table.insert(m_table.end(), {type, length, static_cast<uint8_t>(handle),
                                       static_cast<uint8_t>(handle >> 8)});
        m_table.insert(m_table.end(), formatted.begin(), formatted.end());
        for (const std::string& text : strings) {
            m_table.insert(m_table.end(), text.begin(), text.end());
            m_table.push_back(0);
        }
        m_table.insert(m_table.end(), strings.empty() ? 2 : 1, 0);
        return handle;
    }
    // With an entry point of version 3, which gives the offset 32 as the table's address.
    [[nodiscard]] SmbiosData Data(SmbiosRevision revision) const {
        SmbiosData data;
        data.source = SmbiosSource::kFile;
        data.entryPoint = {'_', 'S', 'M', '3', '_', 0, 24, revision.major, revision.minor, 0, 1, 0};
        const auto size = static_cast<uint32_t>(m_table.size());
        for (unsigned i = 0; i < 4; ++i) data.entryPoint.push_back(uint8_t(size >> (8 * i)));
        data.entryPoint.insert(data.entryPoint.end(), {32, 0, 0, 0, 0, 0, 0, 0});
        for (const uint8_t byte : std::vector(data.entryPoint)) {
            data.entryPoint[5] = uint8_t(data.entryPoint[5] - byte);
        }
        data.table = m_table;
        return data;
    }

  private:
    std::vector<uint8_t> m_table;
    uint16_t m_handle = 1;
};
