// Physical memory as the firmware left it, read through mappings of /dev/mem.
//
// One object belongs to one thread. It has one mapping at a time, which ends with the next one,
// with Unmap or with the object. Nothing throws except where std::bad_alloc is named.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "base/mapped_region.h"
#include "base/unique_fd.h"

inline constexpr const char* kMemoryDevice = "/dev/mem";

// The device that the routing table and the SMBIOS scan read from. Tests have one with memory of
// their own.
class CDeviceBiosBase {
  public:
    CDeviceBiosBase() = default;
    virtual ~CDeviceBiosBase() = default;
    CDeviceBiosBase(const CDeviceBiosBase&) = delete;
    CDeviceBiosBase& operator=(const CDeviceBiosBase&) = delete;

    // `length` readable bytes at a physical address; empty on failure.
    virtual std::span<const uint8_t> Map(uint64_t address, size_t length) = 0;
    virtual void Unmap() = 0;
    // The system's error number of the last Map that failed.
    [[nodiscard]] virtual int LastError() const = 0;

    // The entries of the PCI IRQ routing table, 16 bytes each; empty without a valid table. May
    // throw std::bad_alloc.
    std::vector<uint8_t> GetRoutingTable();
};

class CDeviceBios : public CDeviceBiosBase {
  public:
    CDeviceBios();

    std::span<const uint8_t> Map(uint64_t address, size_t length) override;
    void Unmap() override { m_region.Unmap(); }
    [[nodiscard]] int LastError() const override { return m_lastError; }

  private:
    bool IsReadable(uint64_t address, size_t length);

    UniqueFd m_file;
    MappedRegion m_region;
    int m_lastError = 0;
};
