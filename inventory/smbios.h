// The host's SMBIOS tables with an index of the structures by type.
//
// One object belongs to one thread; what it returns is valid while it is connected. Nothing throws:
// a failure is false, a text and trace records.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "inventory/smbios_entry.h"
#include "inventory/smbios_walk.h"
#include "kemd/api.h"

class CSMBios {
  public:
    // From a type to the positions of its structures, in the order of the table.
    using Index = std::map<uint8_t, std::vector<size_t>>;

    CSMBios() = default;
    ~CSMBios();
    CSMBios(const CSMBios&) = delete;
    CSMBios& operator=(const CSMBios&) = delete;

    // Gets the tables from the operating system or the shadow memory, and indexes them. False when
    // there are none or they are broken; the structures before the fault can be used.
    bool Connect();
    // The same with tables from the caller.
    bool Connect(SmbiosData data);

    [[nodiscard]] const SmbiosData& Data() const { return m_data; }
    [[nodiscard]] SmbiosRevision Revision() const { return m_revision; }
    // As in the entry point, or as found if it has no number.
    [[nodiscard]] uint16_t StructureCount() const { return m_data.structureCount; }
    [[nodiscard]] const Index& Structures() const { return m_index; }
    // The formatted area, header included, of the structure at a position from the index.
    [[nodiscard]] std::span<const uint8_t> Formatted(size_t position) const;
    // Empty when nothing went wrong.
    [[nodiscard]] const std::string& Error() const { return m_data.error; }

  private:
    static constexpr size_t kUsualCount = 16;  // of structures of a type

    void Reset(SmbiosData data);
    bool Fetch();
    bool Attach();
    bool BuildStructureList();
    bool WalkStructures();
    bool TakeStructure(SmbiosWalk& walk, SmbiosStructure& structure);
    bool Fail(const char* format, ...) KEMD_PRINTF(2, 3);

    SmbiosData m_data;
    SmbiosRevision m_revision;
    Index m_index;
    std::array<std::vector<size_t>*, 256> m_positions{};  // into the index, by type; null: none yet
    int m_found = 0;                                      // structures stepped over
    size_t m_position = 0;
};
