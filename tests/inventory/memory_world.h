// Physical memory for tests: images of real firmware, crafted tables, and a device that returns a
// copy of exactly the bytes requested, so that the sanitizers see every read beyond them.
#pragma once

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "inventory/device_bios.h"
#include "tests/world.h"

using Bytes = std::vector<uint8_t>;

inline Bytes ToBytes(const std::string& text) {
    return {text.begin(), text.end()};
}
inline std::string ToText(std::span<const uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

// The first MiB of a machine whose tables are under tests/inventory/tables.
inline Bytes FirmwareImage(const std::string& machine) {
    Bytes memory(0x100000);
    std::ifstream file("/tables/" + machine + ".hex");
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line.replace(line.find(':'), 1, " "));
        size_t address = 0;
        fields >> std::hex >> address;
        for (unsigned byte = 0; fields >> byte; ++address)
            memory.at(address) = static_cast<uint8_t>(byte);
    }
    return memory;
}

// Changes one byte so that all bytes add up to 0.
inline void FixChecksum(Bytes& bytes, size_t position) {
    uint8_t sum = 0;
    for (const uint8_t byte : bytes) sum = static_cast<uint8_t>(sum + byte);
    bytes.at(position) = static_cast<uint8_t>(bytes.at(position) - sum);
}

inline void Place(Bytes& memory, size_t address, const Bytes& bytes) {
    std::copy(bytes.begin(), bytes.end(), memory.begin() + static_cast<std::ptrdiff_t>(address));
}

class MemoryDevice : public CDeviceBiosBase {
  public:
    explicit MemoryDevice(Bytes memory) : m_memory(std::move(memory)) {}

    std::span<const uint8_t> Map(uint64_t address, size_t length) override {
        Unmap();
        if (length == 0 || address > m_memory.size() || length > m_memory.size() - address)
            return {};
        const auto start = m_memory.begin() + static_cast<std::ptrdiff_t>(address);
        m_mapped = std::make_unique<Bytes>(start, start + static_cast<std::ptrdiff_t>(length));
        return *m_mapped;
    }
    void Unmap() override { m_mapped.reset(); }
    [[nodiscard]] int LastError() const override { return ENXIO; }
    [[nodiscard]] bool IsMapped() const { return m_mapped != nullptr; }

  private:
    Bytes m_memory;
    std::unique_ptr<Bytes> m_mapped;
};
