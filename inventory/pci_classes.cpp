#include "inventory/pci_classes.h"

#include <algorithm>
#include <array>

namespace {

struct PciClass {
    uint16_t code;  // 0x..80, "other", stands for the class as a whole
    const char* name;
};

// In the order of the codes.
constexpr auto kPciClasses = std::to_array<PciClass>({
    {0x0001, "VGA compatible unclassified device"},
    {0x0080, "Unclassified device"},
    {0x0100, "SCSI storage controller"},
    {0x0101, "IDE interface"},
    {0x0102, "Floppy disk controller"},
    {0x0104, "RAID bus controller"},
    {0x0105, "ATA controller"},
    {0x0106, "SATA controller"},
    {0x0107, "Serial Attached SCSI controller"},
    {0x0108, "Non-volatile memory controller"},
    {0x0109, "Universal Flash Storage controller"},
    {0x0180, "Mass storage controller"},
    {0x0200, "Ethernet controller"},
    {0x0207, "InfiniBand controller"},
    {0x0208, "Fabric controller"},
    {0x0280, "Network controller"},
    {0x0300, "VGA compatible controller"},
    {0x0302, "3D controller"},
    {0x0380, "Display controller"},
    {0x0401, "Multimedia audio controller"},
    {0x0403, "Audio device"},
    {0x0480, "Multimedia controller"},
    {0x0500, "RAM memory"},
    {0x0501, "Flash memory"},
    {0x0502, "CXL memory"},
    {0x0580, "Memory controller"},
    {0x0600, "Host bridge"},
    {0x0601, "ISA bridge"},
    {0x0604, "PCI bridge"},
    {0x0607, "CardBus bridge"},
    {0x0609, "Semi-transparent PCI-to-PCI bridge"},
    {0x0680, "Bridge"},
    {0x0700, "Serial controller"},
    {0x0701, "Parallel controller"},
    {0x0702, "Multiport serial controller"},
    {0x0703, "Modem"},
    {0x0780, "Communication controller"},
    {0x0800, "Interrupt controller"},
    {0x0801, "DMA controller"},
    {0x0802, "Timer"},
    {0x0803, "Real-time clock"},
    {0x0804, "PCI hot-plug controller"},
    {0x0805, "SD host controller"},
    {0x0806, "IOMMU"},
    {0x0880, "System peripheral"},
    {0x0980, "Input device controller"},
    {0x0A80, "Docking station"},
    {0x0B40, "Co-processor"},
    {0x0B80, "Processor"},
    {0x0C00, "FireWire controller"},
    {0x0C03, "USB controller"},
    {0x0C04, "Fibre Channel controller"},
    {0x0C05, "SMBus"},
    {0x0C06, "InfiniBand controller"},
    {0x0C07, "IPMI interface"},
    {0x0C80, "Serial bus controller"},
    {0x0D80, "Wireless controller"},
    {0x0E80, "Intelligent I/O controller"},
    {0x0F80, "Satellite communications controller"},
    {0x1080, "Encryption controller"},
    {0x1180, "Signal processing controller"},
    {0x1200, "Processing accelerator"},
    {0x1280, "Processing accelerator"},
    {0x1380, "Non-essential instrumentation"},
    {0x4080, "Coprocessor"},
    {0xFF80, "Unassigned class"},
});

std::string_view Find(uint16_t code) {
    const auto* const found = std::lower_bound(
        kPciClasses.begin(), kPciClasses.end(), code,
        [](const PciClass& entry, uint16_t wanted) { return entry.code < wanted; });
    return found == kPciClasses.end() || found->code != code ? std::string_view() : found->name;
}

}  // namespace

std::string_view PciClassName(uint16_t code) {
    const std::string_view name = Find(code);
    return name.empty() ? Find(static_cast<uint16_t>((code & 0xFF00) | 0x80)) : name;
}
