// The BIOS area from 0xE0000 to 0xFFFFF with bytes of the input in it.
#pragma once

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include "inventory/device_bios.h"

class BiosMemory : public CDeviceBiosBase {
  public:
    // The input's first two bytes are the offset of the others after `start`, in units of `step`
    // bytes.
    BiosMemory(const uint8_t* data, size_t size, size_t start, size_t step) {
        const size_t offset = start - kStart + (data[0] << 8 | data[1]) * step;
        std::copy_n(data + 2, std::min(size - 2, m_area.size() - offset),
                    m_area.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    // A copy of exactly the size that is asked for, for the sanitizers.
    std::span<const uint8_t> Map(uint64_t address, size_t length) override {
        m_mapped.reset();
        if (address < kStart || length == 0 || address + length > kStart + m_area.size()) return {};
        const auto from = m_area.begin() + static_cast<std::ptrdiff_t>(address - kStart);
        m_mapped = std::make_unique<std::vector<uint8_t>>(
            from, from + static_cast<std::ptrdiff_t>(length));
        return *m_mapped;
    }
    void Unmap() override { m_mapped.reset(); }
    [[nodiscard]] int LastError() const override { return ENXIO; }

    [[nodiscard]] bool IsMapped() const { return m_mapped != nullptr; }
    [[nodiscard]] const std::vector<uint8_t>& Area() const { return m_area; }

  private:
    static constexpr uint64_t kStart = 0xE0000;
    std::vector<uint8_t> m_area = std::vector<uint8_t>(0x20000);
    std::unique_ptr<std::vector<uint8_t>> m_mapped;
};
