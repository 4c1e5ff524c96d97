// A configuration space; then lines of /proc/bus/pci/devices, of the attribute "resource", and
// other texts of sysfs.
#include "base/text.h"
#include "inventory/pci_function.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    constexpr size_t kConfig = 256;
    uint8_t secondaryBus = 0;
    std::vector<PciFunction> functions(2);
    TakePciConfig(input.substr(0, kConfig), functions[0], secondaryBus);
    Require(functions[0].linkSpeed <= 64000 && functions[0].mostLinkSpeed <= 64000, "a speed");
    Require(functions[0].linkWidth < 64 && functions[0].mostLinkWidth < 64, "a width");
    unsigned number = 0;
    for (std::string_view rest = input.substr(std::min(size, kConfig)); !rest.empty(); ++number) {
        const std::string_view line = TakeLine(rest);
        TakeProcLine(line, functions);
        const auto region = ParsePciResource(line, number);
        Require(!region || region->number == number, "another region");
        Require(ParsePciLinkSpeed(line) < 1000000, "a speed");
        const auto address = PciAddress::Parse(line);
        if (address) Require(PciAddress::Parse(address->Text()) == address, "another address");
        if (const auto found = PciAddressInPath(line)) {
            Require(found->device < 32 && found->function < 8, "an address that cannot be");
        }
    }
    for (const PciFunction& function : functions) {
        Require(function.regions.size() <= 7, "more regions than a function has");
    }
    return 0;
}
