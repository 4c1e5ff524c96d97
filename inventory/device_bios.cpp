#include "inventory/device_bios.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <numeric>

#include "inventory/table_field.h"
#include "trace/debug.h"

// The PCI IRQ routing table, "$PIR", in the BIOS area below 1 MiB: a header of 32 bytes and entries
// of 16, in the layout that was published for it.
namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint32_t kArea = 0xF0000;
constexpr size_t kAreaSize = 0x10000;
constexpr int kHeaderSize = 32;
constexpr int kEntrySize = 16;

// Offsets in the header.
constexpr size_t kVersion = 4;  // minor, then major
constexpr size_t kTableSize = 6;
constexpr size_t kChecksum = 31;

// Signed: the room after a table near the end of the area can be negative.
struct Table {
    int offset;
    int size;
    int major;
    int minor;
};

// Looks at every paragraph; the area's size when there is none.
size_t FindSignature(Bytes area) {
    size_t offset = 0;
    while (offset < area.size() && std::memcmp(area.data() + offset, "$PIR", 4) != 0) {
        offset += 16;
    }
    return offset;
}

bool HasLegalSize(const Table& table) {
    if (table.size == 0 || table.size > int{kAreaSize} - kHeaderSize - table.offset) {
        TRACE(1,
              "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! Illegal table size in PCI IRQ "
              "Routing Table (%d)\n",
              table.size);
        return false;
    }
    if (table.size % kEntrySize != 0) {
        TRACE(1,
              "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! PCI IRQ Routing Table size modulo "
              "sizeof (IRQ_ROUTING_TABLE_ENTRY) is not zero (%d)\n",
              table.size % kEntrySize);
        return false;
    }
    return true;
}

bool HasLegalContent(const Table& table, Bytes bytes) {
    if (table.major > 10 || table.minor > 20) {
        TRACE(1,
              "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! Illegal version number in PCI IRQ "
              "Routing Table (%d.%d)\n",
              table.major, table.minor);
        return false;
    }
    const auto sum = std::accumulate(bytes.begin(), bytes.end(), uint8_t{0},
                                     [](int a, int b) { return static_cast<uint8_t>(a + b); });
    if (sum != 0) {
        TRACE(1,
              "\nCDeviceBiosBase::GetRoutingTable   : ## ERROR! Illegal checksum in PCI IRQ "
              "Routing Table (%02X)\n",
              sum);
    }
    return sum == 0;
}

Table ReadHeader(Bytes area, size_t offset) {
    const Bytes header = area.subspan(offset);
    const Table table{static_cast<int>(offset), ReadWord(header, kTableSize),
                      ReadByte(header, kVersion + 1), ReadByte(header, kVersion)};
    TRACE(2, "\nCDeviceBiosBase::GetRoutingTable   : ## PCI IRQ Routing table found");
    TRACE(5, "address:         0x%05X", kArea + static_cast<unsigned>(offset));
    TRACE(3, "version:         %d.%d", table.major, table.minor);
    TRACE(3, "table size:      %d", table.size);
    TRACE(2, "number entries:  %d", table.size == 0 ? 0 : (table.size - kHeaderSize) / kEntrySize);
    TRACE(3, "checksum value : %02X\n", ReadByte(header, kChecksum));
    return table;
}

void DumpEntries(Bytes entries) {
    TRACE(5, "\nCDeviceBiosBase::GetRoutingTable   : Dump of PCI slot mapping table:\n");
    for (size_t i = 0; i < entries.size() / kEntrySize; ++i) {
        const uint8_t* e = entries.data() + i * kEntrySize;
        TRACE(5,
              "\n                    : [%02d] %02X %02X %02X %02X %02X %02X %02X %02X %02X %02X "
              "%02X %02X %02X %02X %02X %02X",
              static_cast<int>(i), e[0], e[1], e[2], e[3], e[4], e[5], e[6], e[7], e[8], e[9],
              e[10], e[11], e[12], e[13], e[14], e[15]);
    }
}

// The checked entries in the area; empty when there are none.
Bytes FindEntries(Bytes area) {
    TRACE(5, "\nCDevScan            : Search for slot mapping table (mapped address = 0x%p)",
          static_cast<const void*>(area.data()));
    const size_t offset = FindSignature(area);
    if (offset >= area.size()) return {};
    const Table table = ReadHeader(area, offset);
    if (!HasLegalSize(table)) return {};
    const Bytes bytes = area.subspan(offset, static_cast<size_t>(table.size));
    if (!HasLegalContent(table, bytes) || table.size < kHeaderSize) return {};
    const Bytes entries = bytes.subspan(kHeaderSize);
    DumpEntries(entries);
    return entries;
}

}  // namespace

std::vector<uint8_t> CDeviceBiosBase::GetRoutingTable() {
    TRACE(3, "\nCDeviceBiosBase::GetRoutingTable   : Get PCI slot mapping table");
    TRACE(4,
          "\nCDeviceBiosBase::GetRoutingTable   : First try with (new) memory struct interface...");
    TRACE(5,
          "\nCDeviceBiosBase::GetRoutingTable   : Map physical memory address 0x%05X size 0x%05X "
          "to virtual address space",
          kArea, static_cast<unsigned>(kAreaSize));
    const Bytes area = Map(kArea, kAreaSize);
    if (area.empty()) {
        TRACE(1,
              "\nCDeviceBiosBase::GetRoutingTable   : ERROR! Could not map physical memory at "
              "0x%05X",
              kArea);
        return {};
    }
    const Bytes entries = FindEntries(area);
    std::vector<uint8_t> result(entries.begin(), entries.end());
    Unmap();
    return result;
}

// O_NONBLOCK: a FIFO in the device's place must not block. Only a device or a file can be mapped.
CDeviceBios::CDeviceBios() {
    TRACE(3, "\nCDeviceBiosBase     :   connect to BIOS device...");
    m_file.Reset(open(kMemoryDevice, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!m_file.IsOpen() || fstat(m_file.Get(), &status) != 0) {
        m_lastError = errno;
        m_file.Reset();
    } else if (!S_ISREG(status.st_mode) && !S_ISCHR(status.st_mode)) {
        m_lastError = EINVAL;
        m_file.Reset();
    }
}

// Reads both ends first: touching mapped memory that does not exist would end the process.
bool CDeviceBios::IsReadable(uint64_t address, size_t length) {
    if (length == 0 || address > INT64_MAX - length) {
        m_lastError = EINVAL;
        return false;
    }
    for (const uint64_t position : {address, address + length - 1}) {
        uint8_t byte = 0;
        const ssize_t count = pread(m_file.Get(), &byte, 1, static_cast<off_t>(position));
        if (count == 1) continue;
        m_lastError = count < 0 ? errno : ENXIO;
        return false;
    }
    return true;
}

std::span<const uint8_t> CDeviceBios::Map(uint64_t address, size_t length) {
    m_region.Unmap();
    if (!m_file.IsOpen() || !IsReadable(address, length)) return {};
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const uint64_t offset = address % page;
    if (!m_region.MapReadOnly(m_file.Get(), static_cast<off_t>(address - offset),
                              offset + length)) {
        m_lastError = errno;
        return {};
    }
    return {reinterpret_cast<const uint8_t*>(m_region.Data()) + offset, length};
}
