// Puts any bytes into the area of the PCI IRQ routing table. The first two bytes say where.
#include <memory>
#include <vector>

#include "inventory/device_bios.h"
#include "tests/fuzz/fuzz.h"

namespace {

class FuzzArea : public CDeviceBiosBase {
  public:
    explicit FuzzArea(std::vector<uint8_t> area) : m_area(std::move(area)) {}
    std::span<const uint8_t> Map(uint64_t /*address*/, size_t length) override {
        Require(length == m_area.size(), "another area");
        isMapped = true;
        return m_area;
    }
    void Unmap() override { isMapped = false; }
    [[nodiscard]] int LastError() const override { return 0; }
    bool isMapped = false;

  private:
    std::vector<uint8_t> m_area;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t offset = data[0] << 8 | data[1];
    std::vector<uint8_t> area(0x10000);
    const size_t count = std::min(size - 2, area.size() - offset);
    std::copy_n(data + 2, count, area.begin() + static_cast<std::ptrdiff_t>(offset));
    FuzzArea device(area);
    const std::vector<uint8_t> entries = device.GetRoutingTable();
    Require(!device.isMapped, "a mapping that stays");
    Require(entries.size() % 16 == 0 && entries.size() <= 65504 - 32, "entries of another size");
    // What is given out stands in the area behind a header.
    Require(std::search(area.begin(), area.end(), entries.begin(), entries.end()) != area.end(),
            "entries that are not there");
    return 0;
}
