#include "inventory/smbios.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <utility>

#include "base/cancel_guard.h"
#include "inventory/bios_tables.h"
#include "trace/debug.h"

CSMBios::~CSMBios() {
    TRACE(3, "\nCSMBios (Disconnect): Disconnected");
}

bool CSMBios::Fetch() {
    if (auto data = CBiosTables::GetSmbiosData()) {
        m_data = std::move(*data);
        TRACE(4, "\nCSMBios (Connect)   : SMBIOS data got from operating system (%d bytes)",
              static_cast<int>(m_data.table.size()));
        return true;
    }
    CDeviceBios device;
    if (!GetShadowSmbios(device, m_data)) {
        TRACE(1, "\nCSMBios (Connect)   : ## ERROR! Could not find any SMBIOS data!");
        return false;
    }
    TRACE(4, "\nCSMBios (Connect)   : Got SMBIOS data from BIOS shadow memory (%d bytes)",
          static_cast<int>(m_data.table.size()));
    return true;
}

void CSMBios::Reset(SmbiosData data) {
    m_data = std::move(data);
    m_data.error.clear();
    m_index.clear();
    m_positions = {};
    m_revision = {};
    m_found = 0;
    m_position = 0;
}

bool CSMBios::Connect() try {
    const CancelGuard guard;
    Reset({});
    return Fetch() && Attach();
} catch (const std::exception&) {
    m_data.error = "no memory";
    return false;
}

bool CSMBios::Connect(SmbiosData data) try {
    Reset(std::move(data));
    return Attach();
} catch (const std::exception&) {
    m_data.error = "no memory";
    return false;
}

bool CSMBios::Attach() {
    m_revision = ReadSmbiosRevision(m_data.entryPoint).value_or(SmbiosRevision());
    TRACE(3, "\nCSMBios (Connect)   : SMBIOS revision: %d.%d", m_revision.major, m_revision.minor);
    TRACE(3, "\nCSMBios (Connect)   : Build structure list...");
    const bool connected = BuildStructureList();
    TRACE(3, "\nCSMBios (Connect)   : SMBIOS %s connected", connected ? "successfully" : "NOT");
    return connected;
}

std::span<const uint8_t> CSMBios::Formatted(size_t position) const {
    SmbiosStructure structure;
    const std::span<const uint8_t> table(m_data.table);
    const bool found =
        position <= table.size() && SmbiosWalk(table.subspan(position)).ReadHeader(structure);
    return found ? structure.formatted : std::span<const uint8_t>();
}

bool CSMBios::Fail(const char* format, ...) {
    static constexpr const char* kLine =
        "---------------------------------------------------------------------------------------"
        "-----------------------------";
    std::array<char, 256> text{};
    va_list args;
    va_start(args, format);
    std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    m_data.error = text.data();
    TRACE(1, "%s", kLine);
    TRACE(1, "%s", text.data());
    TRACE(1, "%s", kLine);
    TRACE(3, "\n   p = 0x%08X, table end = 0x%08X ", static_cast<unsigned>(m_position),
          static_cast<unsigned>(m_data.table.size()));
    return false;
}

// Traces one structure, adds it to the index and steps over it.
bool CSMBios::TakeStructure(SmbiosWalk& walk, SmbiosStructure& structure) {
    const SmbiosStructure last = structure;
    m_position = walk.Position();
    if (!walk.ReadHeader(structure)) {
        return Fail(
            "## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while reading "
            "struct header!\n   struct[%d], type=0x%02X, handle=%d",
            m_found, last.type, last.handle);
    }
    TRACE(4, "\nBuildStructureList  : - found struct type %d (handle=%d, len=%d)", structure.type,
          structure.handle, structure.length);
    TraceHexDump(structure.formatted);
    auto*& positions = m_positions[structure.type];
    if (positions == nullptr) {
        positions = &m_index[structure.type];
        positions->reserve(kUsualCount);
    }
    positions->push_back(structure.offset);
    if (!walk.SkipFormatted(structure)) {
        return Fail(
            "## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while going to "
            "struct end!\n   struct[%d], last type=0x%02X, last handle=%d\n   struct Offset 0x%04X",
            m_found, structure.type, structure.handle, static_cast<unsigned>(structure.offset));
    }
    m_position = walk.Position();
    const bool hasEnd = walk.SkipStrings([](std::string_view text) {
        TRACE(6, "\nBuildStructureList  :    -> found string \"%s\"", text.data());
    });
    if (hasEnd) return true;
    return Fail(
        "## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while when string "
        "table end found!\n   struct[%d], type=0x%02X, handle=%d\n   struct Offset 0x%04X",
        m_found, structure.type, structure.handle, static_cast<unsigned>(structure.offset));
}

bool CSMBios::WalkStructures() {
    SmbiosWalk walk(m_data.table);
    SmbiosStructure structure;
    do {
        if (!TakeStructure(walk, structure)) return false;
        ++m_found;
        if (structure.type == SmbiosWalk::kEndOfTable) return true;
    } while (!walk.IsAtEnd());
    TRACE(4, "\nBuildStructureList  :   end of BIOS structures!");
    return true;
}

bool CSMBios::BuildStructureList() {
    if (m_data.table.empty()) {
        m_data.error = "SMBIOS structures are not set";
        TRACE(1, "\nBuildStructureList  : ## ERROR! SMBIOS structures are not set");
        return false;
    }
    const bool complete = WalkStructures();
    if (m_data.structureCount == 0) {
        m_data.structureCount = static_cast<uint16_t>(m_found);
    } else if (m_found != m_data.structureCount) {
        TRACE(1,
              "\n\nBuildStructureList  : ## ERROR! Number of SMBIOS structures found (%d) does not "
              "match to number in header (%d)!\n",
              m_found, m_data.structureCount);
    }
    TRACE(4, "\nBuildStructureList  : %d SMBIOS structures found", m_found);
    return complete;
}
