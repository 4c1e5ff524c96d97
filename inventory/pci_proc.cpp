// PCI functions out of /proc/bus/pci: configuration spaces, and a line each of what the kernel
// knows.
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <span>

#include "base/file_io.h"
#include "base/text.h"
#include "inventory/host_inventory.h"
#include "inventory/pci_function.h"
#include "inventory/sys_directory.h"
#include "inventory/table_field.h"

namespace {

constexpr const char* kDirectory = "/proc/bus/pci";
constexpr size_t kConfigSize = 256;

// The next field of a line; blanks before it do not count.
bool TakeHexField(std::string_view& line, uint64_t& number) {
    line = TrimStart(line, " \t");
    const auto result = std::from_chars(line.data(), line.data() + line.size(), number, 16);
    if (result.ec != std::errc()) return false;
    line.remove_prefix(static_cast<size_t>(result.ptr - line.data()));
    return true;
}

// `base` is as in the base address register: its lowest bits say what it is.
PciRegion Region(unsigned number, uint64_t base, uint64_t size) {
    constexpr unsigned kRom = 6;
    constexpr uint64_t kRomFlags = 0x7FF;
    const bool isRom = number == kRom;
    const bool isIo = !isRom && (base & 1) != 0;
    const bool isWide = !isRom && !isIo && (base & 6) == 4;
    const bool isPrefetchable = !isRom && !isIo && (base & 8) != 0;
    const uint64_t flags = isRom ? kRomFlags : isIo ? 3 : 15;
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "%s%s%s 0x%" PRIx64 " size %" PRIu64,
                  isIo ? "io" : "memory", isWide ? " 64-bit" : "",
                  isPrefetchable ? " prefetchable" : "", base & ~flags, size);
    return {isRom ? PciRegion::Use::kRom : PciRegion::Use::kBar, number, text.data()};
}

unsigned SpeedOfCode(unsigned code) {
    constexpr std::array<unsigned, 7> kSpeeds = {0, 2500, 5000, 8000, 16000, 32000, 64000};
    return code < kSpeeds.size() ? kSpeeds.at(code) : 0;
}

void TakeCapability(std::span<const uint8_t> config, size_t at, PciFunction& function) {
    constexpr uint8_t kSubsystem = 0x0D;  // of a bridge
    constexpr uint8_t kExpress = 0x10;
    const uint8_t id = ReadByte(config, at);
    if (id == kSubsystem) {
        function.subsystemVendor = ReadWord(config, at + 4);
        function.subsystem = ReadWord(config, at + 6);
    }
    if (id != kExpress) return;
    const uint32_t most = ReadDword(config, at + 0x0C);
    const uint16_t now = ReadWord(config, at + 0x12);
    function.mostLinkSpeed = SpeedOfCode(most & 15);
    function.mostLinkWidth = most >> 4 & 63;
    function.linkSpeed = SpeedOfCode(now & 15);
    function.linkWidth = now >> 4 & 63;
}

// The address of the file BB/DD.F or SSSS:BB/DD.F.
std::optional<PciAddress> AddressOf(const std::string& bus, const std::string& file) {
    return PciAddress::Parse((bus.size() == 2 ? "0000:" : "") + bus + ":" + file);
}

struct Bridge {
    PciAddress address;
    uint8_t secondaryBus;
};

std::optional<PciAddress> ParentOf(const PciFunction& function,
                                   const std::vector<Bridge>& bridges) {
    for (const auto& [address, secondaryBus] : bridges) {
        if (address.segment == function.address.segment && secondaryBus == function.address.bus) {
            return address;
        }
    }
    return std::nullopt;
}

void ReadBus(const SysDirectory& bus, const std::string& name, std::vector<PciFunction>& functions,
             std::vector<Bridge>& bridges) {
    for (const std::string& file : bus.Names()) {
        const auto address = AddressOf(name, file);
        const std::string config = address ? bus.Bytes(file.c_str(), kConfigSize) : std::string();
        if (config.size() < 64) continue;
        PciFunction function;
        function.address = *address;
        uint8_t secondaryBus = 0;
        TakePciConfig(config, function, secondaryBus);
        // Buses below a bridge have higher numbers: so there is no circle.
        if (secondaryBus > address->bus) bridges.push_back({*address, secondaryBus});
        functions.push_back(std::move(function));
    }
}

}  // namespace

void TakePciConfig(std::string_view config, PciFunction& function, uint8_t& secondaryBus) {
    const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(config.data()),
                                         config.size());
    enum : uint8_t { kNormal, kBridge, kCardBus };
    const unsigned header = ReadByte(bytes, 0x0E) & 0x7FU;
    function.vendor = ReadWord(bytes, 0);
    function.device = ReadWord(bytes, 2);
    function.revision = ReadByte(bytes, 8);
    function.classCode = ReadDword(bytes, 8) >> 8;
    if (header == kNormal || header == kCardBus) {
        const size_t at = header == kNormal ? 0x2C : 0x40;
        function.subsystemVendor = ReadWord(bytes, at);
        function.subsystem = ReadWord(bytes, at + 2);
    }
    secondaryBus = header == kNormal ? uint8_t{0} : ReadByte(bytes, 0x19);
    constexpr unsigned kHasCapabilities = 0x10;
    constexpr int kMost = 48;  // more would be a circle
    if ((ReadWord(bytes, 6) & kHasCapabilities) == 0) return;
    size_t at = ReadByte(bytes, header == kCardBus ? 0x14 : 0x34) & 0xFCU;
    for (int count = 0; at >= 0x40 && count < kMost; ++count) {
        TakeCapability(bytes, at, function);
        at = ReadByte(bytes, at + 1) & 0xFCU;
    }
}

void TakeProcLine(std::string_view line, std::vector<PciFunction>& functions) {
    uint64_t place = 0;
    uint64_t ids = 0;
    uint64_t irq = 0;
    constexpr size_t kRegions = 7;
    std::array<uint64_t, kRegions> bases{};
    std::array<uint64_t, kRegions> sizes{};
    bool isGood = TakeHexField(line, place) && TakeHexField(line, ids) && TakeHexField(line, irq);
    for (uint64_t& base : bases) isGood = isGood && TakeHexField(line, base);
    for (uint64_t& size : sizes) isGood = isGood && TakeHexField(line, size);
    if (!isGood) return;
    for (PciFunction& function : functions) {
        const PciAddress& at = function.address;
        // Segments are not told apart here: the lines of one place are in their order.
        if (place != (uint64_t{at.bus} << 8 | uint64_t{at.device} << 3 | at.function) ||
            ids != (uint64_t{function.vendor} << 16 | function.device) || function.irq) {
            continue;
        }
        function.irq = irq;
        function.driver = Trim(line);
        for (unsigned number = 0; number < kRegions; ++number) {
            if (sizes.at(number) == 0) continue;
            function.regions.push_back(Region(number, bases.at(number), sizes.at(number)));
        }
        return;
    }
}

std::vector<PciFunction> ReadPciFromProc(KemdInventory& inventory) {
    std::vector<PciFunction> functions;
    std::vector<Bridge> bridges;
    const SysDirectory directory(inventory, kDirectory);
    for (const std::string& name : directory.Names()) {
        if (AddressOf(name, "00.0")) {
            ReadBus(directory.Below(name.c_str()), name, functions, bridges);
        }
    }
    if (functions.empty()) return functions;
    std::sort(functions.begin(), functions.end(),
              [](const PciFunction& a, const PciFunction& b) { return a.address < b.address; });
    const std::string path = std::string(kDirectory) + "/devices";
    const auto lines = ReadTextFile(path);
    const int error = errno;
    if (!lines) inventory.NoteError(path, error);
    for (std::string_view rest = lines ? *lines : std::string_view(); !rest.empty();) {
        TakeProcLine(TakeLine(rest), functions);
    }
    for (PciFunction& function : functions) function.parent = ParentOf(function, bridges);
    return functions;
}
