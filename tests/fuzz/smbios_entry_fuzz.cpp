// Puts any bytes into the BIOS shadow memory: the scan, the check of the entry point, and the table
// that it points to. The first two bytes say where the others go.
#include <cerrno>
#include <memory>
#include <vector>

#include "inventory/bios_tables.h"
#include "inventory/smbios_entry.h"
#include "tests/fuzz/fuzz.h"

namespace {

// Gives out copies of exactly the size that is asked for, for the sanitizers.
class FuzzMemory : public CDeviceBiosBase {
  public:
    explicit FuzzMemory(std::vector<uint8_t> area) : m_area(std::move(area)) {}
    std::span<const uint8_t> Map(uint64_t address, size_t length) override {
        m_mapped.reset();
        const bool isInside =
            address >= 0xE0000 && address < 0x100000 && length > 0 && length <= 0x100000 - address;
        if (!isInside) return {};
        const auto start = m_area.begin() + static_cast<std::ptrdiff_t>(address - 0xE0000);
        m_mapped = std::make_unique<std::vector<uint8_t>>(
            start, start + static_cast<std::ptrdiff_t>(length));
        return *m_mapped;
    }
    void Unmap() override { m_mapped.reset(); }
    [[nodiscard]] int LastError() const override { return ENXIO; }

  private:
    std::vector<uint8_t> m_area;
    std::unique_ptr<std::vector<uint8_t>> m_mapped;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t offset = (data[0] << 8 | data[1]) * size_t{2};
    const std::vector<uint8_t> bytes(data + 2, data + size);
    std::vector<uint8_t> area(0x20000);
    std::copy_n(bytes.begin(), std::min(bytes.size(), area.size() - offset),
                area.begin() + static_cast<std::ptrdiff_t>(offset));
    FuzzMemory memory(std::move(area));
    SmbiosData found;
    const bool isFound = GetShadowSmbios(memory, found);
    Require(isFound == !found.table.empty(), "a table and a failure");
    if (isFound) {
        uint8_t sum = 0;
        for (const uint8_t byte : found.entryPoint) sum = static_cast<uint8_t>(sum + byte);
        Require(sum == 0 && !found.entryPoint.empty(), "an entry point that does not add up");
        Require(found.table.size() == found.tableLength, "a table of another length");
    }
    (void)ReadSmbiosRevision(bytes);
    (void)ReadSmbiosTableRange(bytes);
    (void)ReadSmbiosEntryLength(bytes);
    return 0;
}
