// pci.ids and usb.ids, line by line, with a few numbers that are wanted.
#include "base/text.h"
#include "inventory/id_names.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    IdNames names;
    names.WantDevice(0x8086, 0x1563);
    names.WantSubsystem(0x8086, 0x1563, 0x1028, 0x1fa8);
    names.WantClass(0x010802);
    names.Prepare();
    for (std::string_view rest = input; !rest.empty();) names.Take(TakeLine(rest));
    const auto isOfFile = [&input](std::string_view name) {
        Require(input.find(name) != input.npos, "a name that the file does not have");
        Require(name == TrimEnd(name), "a name that ends with a blank");
    };
    isOfFile(names.Vendor(0x8086));
    isOfFile(names.Device(0x8086, 0x1563));
    isOfFile(names.Subsystem(0x8086, 0x1563, 0x1028, 0x1fa8));
    isOfFile(names.BaseClass(0x010802));
    isOfFile(names.Subclass(0x010802));
    isOfFile(names.ProgrammingInterface(0x010802));
    Require(names.Vendor(0x8087).empty(), "a name of what is not wanted");
    return 0;
}
