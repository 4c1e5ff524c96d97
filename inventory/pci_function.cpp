#include "inventory/pci_function.h"

#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdio>

#include "base/text.h"

namespace {

// A hexadecimal number of the whole text, which has at least `digits`.
bool ReadHex(std::string_view text, size_t digits, uint32_t most, uint32_t& number) {
    if (text.size() < digits || text.size() > 8) return false;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number, 16);
    return result.ec == std::errc() && result.ptr == end && number <= most;
}

// "0x..." and the blank after it, which are taken out of the line.
bool TakeHex(std::string_view& line, uint64_t& number) {
    line = TrimStart(line);
    if (!line.starts_with("0x")) return false;
    line.remove_prefix(2);
    const auto result = std::from_chars(line.data(), line.data() + line.size(), number, 16);
    if (result.ec != std::errc()) return false;
    line.remove_prefix(static_cast<size_t>(result.ptr - line.data()));
    return true;
}

PciRegion::Use UseOf(unsigned number, bool isWindow) {
    constexpr unsigned kRom = 6;
    if (number < kRom) return PciRegion::Use::kBar;
    if (number == kRom) return PciRegion::Use::kRom;
    return isWindow ? PciRegion::Use::kWindow : PciRegion::Use::kVirtualFunctionBar;
}

}  // namespace

std::optional<PciAddress> PciAddress::Parse(std::string_view text) {
    const size_t first = text.find(':');
    const size_t second = text.find(':', first + 1);
    if (first == text.npos || second != first + 3 || text.size() != second + 5 ||
        text[second + 3] != '.') {
        return std::nullopt;
    }
    uint32_t segment = 0;
    uint32_t bus = 0;
    uint32_t device = 0;
    uint32_t function = 0;
    if (!ReadHex(text.substr(0, first), 4, UINT32_MAX, segment) ||
        !ReadHex(text.substr(first + 1, 2), 2, 0xFF, bus) ||
        !ReadHex(text.substr(second + 1, 2), 2, 0x1F, device) ||
        !ReadHex(text.substr(second + 4), 1, 7, function)) {
        return std::nullopt;
    }
    return PciAddress{segment, static_cast<uint8_t>(bus), static_cast<uint8_t>(device),
                      static_cast<uint8_t>(function)};
}

std::string PciAddress::Text() const {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%04x:%02x:%02x.%x", segment, bus, device, function);
    return text.data();
}

std::optional<PciAddress> PciAddressInPath(std::string_view path) {
    while (!path.empty()) {
        const size_t start = path.rfind('/') + 1;
        if (const auto address = PciAddress::Parse(path.substr(start))) return address;
        path = path.substr(0, start == 0 ? 0 : start - 1);
    }
    return std::nullopt;
}

std::optional<PciRegion> ParsePciResource(std::string_view line, unsigned number) {
    // include/linux/ioport.h of the kernel.
    constexpr uint64_t kIo = 0x100;
    constexpr uint64_t kPrefetchable = 0x2000;
    constexpr uint64_t k64Bit = 0x100000;
    constexpr uint64_t kWindow = 0x200000;
    constexpr uint64_t kDisabled = 0x10000000;
    constexpr uint64_t kUnset = 0x20000000;
    uint64_t start = 0;
    uint64_t end = 0;
    uint64_t flags = 0;
    if (!TakeHex(line, start) || !TakeHex(line, end) || !TakeHex(line, flags)) return std::nullopt;
    const bool isUsed = flags != 0 && end != 0 && end >= start && end - start != UINT64_MAX;
    if (!isUsed) return std::nullopt;
    const PciRegion::Use use = UseOf(number, (flags & kWindow) != 0);
    // The kernel calls every ROM prefetchable.
    if (use == PciRegion::Use::kRom) flags &= ~kPrefetchable;
    const uint64_t size = end - start + 1;
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "%s%s%s 0x%" PRIx64 " size %" PRIu64 "%s",
                  (flags & kIo) != 0 ? "io" : "memory", (flags & k64Bit) != 0 ? " 64-bit" : "",
                  (flags & kPrefetchable) != 0 ? " prefetchable" : "", start, size,
                  (flags & (kDisabled | kUnset)) != 0 ? " disabled" : "");
    return PciRegion{use, number, text.data()};
}

unsigned ParsePciLinkSpeed(std::string_view text) {
    double speed = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), speed);
    const std::string_view rest(result.ptr,
                                static_cast<size_t>(text.data() + text.size() - result.ptr));
    if (result.ec != std::errc() || !TrimStart(rest).starts_with("GT/s")) return 0;
    return speed > 0 && speed < 1000 ? static_cast<unsigned>(speed * 1000 + 0.5) : 0;
}
