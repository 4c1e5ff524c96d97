#include "inventory/smbios_words.h"

#include <array>
#include <cstdio>

namespace {

constexpr SmbiosWords::Other kOtherSockets[] = {{0xFF, "Invalid"}};
constexpr SmbiosWords::Other kOtherConnectors[] = {{0xA0, "PC-98"},      {0xA1, "PC-98 Hireso"},
                                                   {0xA2, "PC-H98"},     {0xA3, "PC-98 Note"},
                                                   {0xA4, "PC-98 Full"}, {0xFF, "Other"}};
constexpr SmbiosWords::Other kOtherPorts[] = {
    {0xA0, "8251 Compatible"}, {0xA1, "8251 FIFO Compatible"}, {0xFF, "Other"}};
constexpr SmbiosWords::Other kOtherArrayLocations[] = {{0xA0, "PC-98/C20 Add-on Card"},
                                                       {0xA1, "PC-98/C24 Add-on Card"},
                                                       {0xA2, "PC-98/E Add-on Card"},
                                                       {0xA3, "PC-98/Local Bus Add-on Card"},
                                                       {0xA4, "CXL Add-on Card"}};
constexpr SmbiosWords::Other kOtherHostInterfaces[] = {{0x40, "Network"}, {0xF0, "OEM"}};
constexpr SmbiosWords::Other kOtherHostProtocols[] = {{0xF0, "OEM"}};

// The word at a position of texts with "|" between them; empty beyond them.
std::string_view WordAt(std::string_view words, size_t position) {
    for (; position > 0; --position) {
        const size_t end = words.find('|');
        if (end == words.npos) return {};
        words.remove_prefix(end + 1);
    }
    return words.substr(0, words.find('|'));
}

}  // namespace

const SmbiosWords kWakeUpWords{
    0,
    "Reserved|Other|Unknown|APM Timer|Modem Ring|LAN Remote|Power Switch|PCI PME#|"
    "AC Power Restored"};
const SmbiosWords kBootStatusWords{
    0,
    "No errors detected|No bootable media|Operating system failed to load|"
    "Firmware-detected hardware failure|Operating system-detected hardware failure|"
    "User-requested boot|System security violation|Previously-requested image|"
    "System watchdog timer expired"};
const SmbiosWords kBoardWords{
    1,
    "Unknown|Other|Server Blade|Connectivity Switch|System Management Module|Processor Module|"
    "I/O Module|Memory Module|Daughter Board|Motherboard|Processor+Memory Module|"
    "Processor+I/O Module|Interconnect Board"};
const SmbiosWords kChassisWords{
    1,
    "Other|Unknown|Desktop|Low Profile Desktop|Pizza Box|Mini Tower|Tower|Portable|Laptop|"
    "Notebook|Hand Held|Docking Station|All In One|Sub Notebook|Space-saving|Lunch Box|"
    "Main Server Chassis|Expansion Chassis|Sub Chassis|Bus Expansion Chassis|Peripheral Chassis|"
    "RAID Chassis|Rack Mount Chassis|Sealed-case PC|Multi-system|CompactPCI|AdvancedTCA|Blade|"
    "Blade Enclosing|Tablet|Convertible|Detachable|IoT Gateway|Embedded PC|Mini PC|Stick PC"};
const SmbiosWords kStateWords{1, "Other|Unknown|Safe|Warning|Critical|Non-recoverable"};
const SmbiosWords kSecurityWords{
    1, "Other|Unknown|None|External Interface Locked Out|External Interface Enabled"};
const SmbiosWords kProcessorWords{
    1, "Other|Unknown|Central Processor|Math Processor|DSP Processor|Video Processor"};
const SmbiosWords kProcessorStatusWords{
    0, "Unknown|Enabled|Disabled By User|Disabled By BIOS|Idle|||Other"};
const SmbiosWords kSocketWords{
    1,
    "Other|Unknown|Daughter Board|ZIF Socket|Replaceable Piggy Back|None|LIF Socket|Slot 1|"
    "Slot 2|370-pin Socket|Slot A|Slot M|Socket 423|Socket A (Socket 462)|Socket 478|Socket 754|"
    "Socket 940|Socket 939|Socket mPGA604|Socket LGA771|Socket LGA775|Socket S1|Socket AM2|"
    "Socket F (1207)|Socket LGA1366|Socket G34|Socket AM3|Socket C32|Socket LGA1156|"
    "Socket LGA1567|Socket PGA988A|Socket BGA1288|Socket rPGA988B|Socket BGA1023|Socket BGA1224|"
    "Socket LGA1155|Socket LGA1356|Socket LGA2011|Socket FS1|Socket FS2|Socket FM1|Socket FM2|"
    "Socket LGA2011-3|Socket LGA1356-3|Socket LGA1150|Socket BGA1168|Socket BGA1234|"
    "Socket BGA1364|Socket AM4|Socket LGA1151|Socket BGA1356|Socket BGA1440|Socket BGA1515|"
    "Socket LGA3647-1|Socket SP3|Socket SP3r2|Socket LGA2066|Socket BGA1392|Socket BGA1510|"
    "Socket BGA1528|Socket LGA4189|Socket LGA1200|Socket LGA4677|Socket LGA1700|Socket BGA1744|"
    "Socket BGA1781|Socket BGA1211|Socket BGA2422|Socket LGA1211|Socket LGA2422|Socket LGA5773|"
    "Socket BGA5773|Socket AM5|Socket SP5|Socket SP6|Socket BGA883|Socket BGA1190|Socket BGA4129|"
    "Socket LGA4710|Socket LGA7529|Socket BGA1964|Socket BGA1792|Socket BGA2049|Socket BGA2551|"
    "Socket LGA1851|Socket BGA2114|Socket BGA2833",
    kOtherSockets};
const SmbiosWords kCacheModeWords{0, "Write Through|Write Back|Varies With Memory Address|Unknown"};
const SmbiosWords kCacheLocationWords{0, "Internal|External||Unknown"};
const SmbiosWords kCacheCorrectionWords{1,
                                        "Other|Unknown|None|Parity|Single-bit ECC|Multi-bit ECC"};
const SmbiosWords kCacheWords{1, "Other|Unknown|Instruction|Data|Unified"};
const SmbiosWords kAssociativityWords{
    1,
    "Other|Unknown|Direct Mapped|2-way Set-associative|4-way Set-associative|Fully Associative|"
    "8-way Set-associative|16-way Set-associative|12-way Set-associative|24-way Set-associative|"
    "32-way Set-associative|48-way Set-associative|64-way Set-associative|20-way Set-associative"};
const SmbiosWords kConnectorWords{
    0,
    "None|Centronics|Mini Centronics|Proprietary|DB-25 male|DB-25 female|DB-15 male|DB-15 female|"
    "DB-9 male|DB-9 female|RJ-11|RJ-45|50 Pin MiniSCSI|Mini DIN|Micro DIN|PS/2|Infrared|HP-HIL|"
    "Access Bus (USB)|SSA SCSI|Circular DIN-8 male|Circular DIN-8 female|On Board IDE|"
    "On Board Floppy|9 Pin Dual Inline (pin 10 cut)|25 Pin Dual Inline (pin 26 cut)|"
    "50 Pin Dual Inline|68 Pin Dual Inline|On Board Sound Input From CD-ROM|"
    "Mini Centronics Type-14|Mini Centronics Type-26|Mini Jack (headphones)|BNC|IEEE 1394|"
    "SAS/SATA Plug Receptacle|USB Type-C Receptacle",
    kOtherConnectors};
const SmbiosWords kPortWords{
    0,
    "None|Parallel Port XT/AT Compatible|Parallel Port PS/2|Parallel Port ECP|Parallel Port EPP|"
    "Parallel Port ECP/EPP|Serial Port XT/AT Compatible|Serial Port 16450 Compatible|"
    "Serial Port 16550 Compatible|Serial Port 16550A Compatible|SCSI Port|MIDI Port|"
    "Joystick Port|Keyboard Port|Mouse Port|SSA SCSI|USB|Firewire (IEEE P1394)|PCMCIA Type I|"
    "PCMCIA Type II|PCMCIA Type III|Cardbus|Access Bus Port|SCSI II|SCSI Wide|PC-98|PC-98 Hireso|"
    "PC-H98|Video Port|Audio Port|Modem Port|Network Port|SATA|SAS|"
    "MFDP (Multi-Function Display Port)|Thunderbolt",
    kOtherPorts};
const SmbiosWords kSlotWidthWords{
    1, "Other|Unknown|8-bit|16-bit|32-bit|64-bit|128-bit|x1|x2|x4|x8|x12|x16|x32"};
const SmbiosWords kSlotUsageWords{1, "Other|Unknown|Available|In Use|Unavailable"};
const SmbiosWords kSlotLengthWords{
    1, "Other|Unknown|Short|Long|2.5\" drive form factor|3.5\" drive form factor"};
const SmbiosWords kOnboardWords{
    1,
    "Other|Unknown|Video|SCSI Controller|Ethernet|Token Ring|Sound|PATA Controller|"
    "SATA Controller|SAS Controller|Wireless LAN|Bluetooth|WWAN|eMMC|NVMe Controller|"
    "UFS Controller"};
const SmbiosWords kChemistryWords{
    1,
    "Other|Unknown|Lead Acid|Nickel Cadmium|Nickel Metal Hydride|Lithium Ion|Zinc Air|"
    "Lithium Polymer"};
const SmbiosWords kArrayLocationWords{
    1,
    "Other|Unknown|System Board Or Motherboard|ISA Add-on Card|EISA Add-on Card|PCI Add-on Card|"
    "MCA Add-on Card|PCMCIA Add-on Card|Proprietary Add-on Card|NuBus",
    kOtherArrayLocations};
const SmbiosWords kArrayUseWords{
    1, "Other|Unknown|System Memory|Video Memory|Flash Memory|Non-volatile RAM|Cache Memory"};
const SmbiosWords kArrayCorrectionWords{
    1, "Other|Unknown|None|Parity|Single-bit ECC|Multi-bit ECC|CRC"};
const SmbiosWords kFormFactorWords{
    1,
    "Other|Unknown|SIMM|SIP|Chip|DIP|ZIP|Proprietary Card|DIMM|TSOP|Row Of Chips|RIMM|SODIMM|"
    "SRIMM|FB-DIMM|Die|CAMM"};
const SmbiosWords kMemoryWords{
    1,
    "Other|Unknown|DRAM|EDRAM|VRAM|SRAM|RAM|ROM|Flash|EEPROM|FEPROM|EPROM|CDRAM|3DRAM|SDRAM|"
    "SGRAM|RDRAM|DDR|DDR2|DDR2 FB-DIMM|Reserved|Reserved|Reserved|DDR3|FBD2|DDR4|LPDDR|LPDDR2|"
    "LPDDR3|LPDDR4|Logical non-volatile device|HBM|HBM2|DDR5|LPDDR5|HBM3"};
const SmbiosWords kMemoryTechnologyWords{
    1, "Other|Unknown|DRAM|NVDIMM-N|NVDIMM-F|NVDIMM-P|Intel Optane DC persistent memory"};
const SmbiosWords kIpmiWords{
    0,
    "Unknown|KCS (Keyboard Control Style)|SMIC (Server Management Interface Chip)|"
    "BT (Block Transfer)|SSIF (SMBus System Interface)"};
const SmbiosWords kHostInterfaceWords{
    2,
    "KCS: Keyboard Controller Style|8250 UART Register Compatible|16450 UART Register Compatible|"
    "16550/16550A UART Register Compatible|16650/16650A UART Register Compatible|"
    "16750/16750A UART Register Compatible|16850/16850A UART Register Compatible",
    kOtherHostInterfaces};
const SmbiosWords kHostProtocolWords{2, "IPMI|MCTP|Redfish over IP", kOtherHostProtocols};
const SmbiosWords kSupplyWords{1, "Other|Unknown|Linear|Switching|Battery|UPS|Converter|Regulator"};
const SmbiosWords kSupplyStatusWords{1, "Other|Unknown|OK|Non-critical|Critical"};
const SmbiosWords kSupplyRangeWords{1, "Other|Unknown|Manual|Auto-switch|Wide Range|N/A"};
const SmbiosBits kFirmwareBits{
    "||||ISA|MCA|EISA|PCI|PC Card (PCMCIA)|PNP|APM|BIOS is upgradeable|BIOS shadowing is allowed|"
    "VLB|ESCD support is available|Boot from CD|Selectable boot|BIOS ROM is socketed|"
    "Boot from PC Card (PCMCIA)|EDD|Japanese floppy for NEC 9800 1.2 MB (int 13h)|"
    "Japanese floppy for Toshiba 1.2 MB (int 13h)|5.25\"/360 kB floppy services (int 13h)|"
    "5.25\"/1.2 MB floppy services (int 13h)|3.5\"/720 kB floppy services (int 13h)|"
    "3.5\"/2.88 MB floppy services (int 13h)|Print screen service (int 5h)|"
    "8042 keyboard services (int 9h)|Serial services (int 14h)|Printer services (int 17h)|"
    "CGA/mono video services (int 10h)|NEC PC-98"};
const SmbiosBits kFirmwareBits1{
    "ACPI|USB legacy|AGP|I2O boot|LS-120 boot|ATAPI Zip drive boot|IEEE 1394 boot|Smart battery"};
const SmbiosBits kFirmwareBits2{
    "BIOS boot standard|Function key-initiated network boot|Targeted content distribution|"
    "UEFI|System is a virtual machine|Manufacturing mode|Manufacturing mode is enabled"};
const SmbiosBits kBoardBits{
    "Board is a hosting board|Board requires at least one daughter board|Board is removable|"
    "Board is replaceable|Board is hot swappable"};
const SmbiosBits kProcessorBits{
    "||64-bit capable|Multi-Core|Hardware Thread|Execute Protection|Enhanced Virtualization|"
    "Power/Performance Control|128-bit Capable|Arm64 SoC ID"};
const SmbiosBits kSlotBits1{
    "|5.0 V|3.3 V|Opening is shared|PC Card-16|Cardbus|Zoom Video|Modem ring resume"};
const SmbiosBits kSlotBits2{
    "PME signal|Hot-plug devices|SMBus signal|PCIe slot bifurcation|Async/surprise removal|"
    "Flexbus slot, CXL 1.0 capable|Flexbus slot, CXL 2.0 capable|Flexbus slot, CXL 3.0 capable"};
const SmbiosBits kMemoryBits{
    "|Other|Unknown|Fast-paged|Static Column|Pseudo-static|RAMBus|Synchronous|CMOS|EDO|"
    "Window DRAM|Cache DRAM|Non-Volatile|Registered (Buffered)|Unbuffered (Unregistered)|LRDIMM"};

std::string SmbiosWord(const SmbiosWords& words, uint8_t code) {
    if (code >= words.first) {
        const std::string_view word = WordAt(words.words, code - words.first);
        if (!word.empty()) return std::string(word);
    }
    for (const SmbiosWords::Other& other : words.others) {
        if (other.code == code) return other.word;
    }
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "unknown (0x%02x)", code);
    return text.data();
}

std::vector<std::string_view> SmbiosFlags(SmbiosBits bits, uint64_t value) {
    std::vector<std::string_view> flags;
    for (; value != 0 && !bits.words.empty(); value >>= 1) {
        const size_t end = bits.words.find('|');
        const std::string_view word = bits.words.substr(0, end);
        if ((value & 1) != 0 && !word.empty()) flags.push_back(word);
        bits.words.remove_prefix(end == bits.words.npos ? bits.words.size() : end + 1);
    }
    return flags;
}
