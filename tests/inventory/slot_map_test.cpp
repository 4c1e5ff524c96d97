// The routing table, the slot records of both sources, and the map.
#include <sys/wait.h>

#include "inventory/pci_slot_sources.h"
#include "tests/inventory/memory_world.h"
#include "tests/traced_test.h"

namespace {

using Slots = CPciSlotMap::Slots;

std::string Text(const Slots& slots) {
    std::string text;
    for (const PciSlotData& slot : slots) {
        for (const int value : {slot.bus, slot.device, slot.slot, slot.type}) {
            text += std::to_string(value) + " ";
        }
        text += "/ ";
    }
    return text;
}

class SlotMapTest : public TracedTest {};

// A table of this size at an offset of the area at 0xF0000, its bytes adding up to `sum`.
Bytes RoutingMemory(size_t offset, size_t size, uint8_t major = 1, uint8_t minor = 0,
                    uint8_t sum = 0) {
    Bytes table(std::max<size_t>(size, 32));
    for (size_t i = 32; i < size; ++i) table[i] = static_cast<uint8_t>(i);
    Place(table, 0, ToBytes("$PIR"));
    Place(table, 4, {minor, major, static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8)});
    Bytes counted(table.begin(), table.begin() + static_cast<std::ptrdiff_t>(size));
    if (size >= 16) FixChecksum(counted, 8);
    if (size >= 16) table[8] = static_cast<uint8_t>(counted[8] + sum);
    Bytes memory(0x200000);
    Place(memory, 0xF0000 + offset, table);
    memory.resize(0x100000);
    return memory;
}

TEST_F(SlotMapTest, RoutingTableIsCheckedBeforeItIsTaken) {
    const std::string prefix = "CDeviceBiosBase::GetRoutingTable   : ## ERROR! ";
    const std::string illegalSize = prefix + "Illegal table size in PCI IRQ Routing Table (";
    const std::string modulo =
        prefix + "PCI IRQ Routing Table size modulo sizeof (IRQ_ROUTING_TABLE_ENTRY) is not zero ";
    const std::string version = prefix + "Illegal version number in PCI IRQ Routing Table ";
    const struct {
        Bytes memory;
        size_t entries;
        std::string text;  // the error, empty: none
    } cases[] = {
        {RoutingMemory(0, 0x80), 6, ""},
        {RoutingMemory(0xFF0, 32), 0, ""},
        {RoutingMemory(0, 16), 0, ""},
        {RoutingMemory(8, 0x80), 0, ""},
        {RoutingMemory(0, 65504), 4092, ""},
        {RoutingMemory(16, 65504), 0, illegalSize + "65504)\n"},
        {RoutingMemory(0x10000 - 32, 16), 0, illegalSize + "16)\n"},
        {RoutingMemory(0x10000 - 16, 16), 0, illegalSize + "16)\n"},
        {RoutingMemory(0, 0), 0, illegalSize + "0)\n"},
        {RoutingMemory(0, 65535), 0, illegalSize + "65535)\n"},
        {RoutingMemory(0, 31), 0, modulo + "(15)\n"},
        {RoutingMemory(0, 48, 11, 0), 0, version + "(11.0)\n"},
        {RoutingMemory(0, 48, 1, 21), 0, version + "(1.21)\n"},
        {RoutingMemory(0, 48, 10, 20), 1, ""},
        {RoutingMemory(0, 48, 1, 0, 1), 0,
         prefix + "Illegal checksum in PCI IRQ Routing Table (01)\n"},
        {Bytes(0x80000), 0, "ERROR! Could not map physical memory at 0xF0000\n"},
    };
    std::vector<std::string> errors;
    for (const auto& [memory, entries, text] : cases) {
        MemoryDevice device(memory);
        const Bytes table = device.GetRoutingTable();
        EXPECT_EQ(table.size(), entries * 16) << text;
        EXPECT_TRUE(entries == 0 || table[1] == 33);
        EXPECT_FALSE(device.IsMapped());
        if (!text.empty()) errors.push_back(text);
    }
    const std::string all = Trace();
    EXPECT_TRUE(InOrder(all, errors));
    size_t count = 0;
    for (size_t at = all.find("ERROR!"); at != all.npos; at = all.find("ERROR!", at + 1)) ++count;
    EXPECT_EQ(count, errors.size());
    EXPECT_TRUE(InOrder(
        all,
        {"Map physical memory address 0xF0000 size 0x10000 to virtual address space\n",
         "## PCI IRQ Routing table found\n", "version:         1.0\n", "table size:      128\n",
         "number entries:  6\n", "checksum value : 00\n", "Dump of PCI slot mapping table:\n",
         "                    : [00] 20 21 22 23 24 25 ", "                    : [05] 70 71 ",
         "number entries:  0\n", "number entries:  -1\n"}));
}

TEST_F(SlotMapTest, SerialSlotsMatchByTheirBus) {
    std::string serial;
    for (int type = 0; type < 256; ++type) {
        const PciSlotData slot{1, 2, 3, static_cast<uint8_t>(type)};
        const bool isSerial = slot.IsSerialBus();
        EXPECT_EQ(slot.Matches(1, 9, isSerial), isSerial);
        EXPECT_TRUE(slot.Matches(1, 2, isSerial));
        EXPECT_FALSE(slot.Matches(2, 2, isSerial));
        serial += isSerial ? '1' : '0';
    }
    // 0x14 to 0x23 and 0xA5 to 0xB6
    EXPECT_EQ(serial, std::string(0x14, '0') + std::string(0x10, '1') + std::string(0x81, '0') +
                          std::string(0x12, '1') + std::string(0x49, '0'));
    EXPECT_TRUE(
        InOrder(Trace(), {"Slot 3 is NOT a serial bus (SMBios type = 13) --> PARALLEL\n",
                          "Slot 3 is a M.2 bus (SMBios type = 14) --> SERIAL.\n",
                          "Slot 3 is a MXM bus (SMBios type = 18) --> SERIAL.\n",
                          "Slot 3 is a PCI Express bus (SMBios type = 1f) --> SERIAL.\n",
                          "Slot 3 is a PCI Express Mini bus (SMBios type = 21) --> SERIAL.\n",
                          "Slot 3 is a PCI Express bus (SMBios type = a5) --> SERIAL.\n"}));
}

// A system slot: type, usage, id, bus, device and function.
std::string SystemSlot(char type, char usage, char id, char bus, char deviceFunction) {
    return std::string("\x09\x11\1\0\0", 5) + type + '\0' + usage + '\0' + id +
           std::string("\0\0\0\0\0", 5) + bus + deviceFunction + std::string("\0\0", 2);
}

TEST_F(SlotMapTest, SmbiosSlotsThatAreThereAreTaken) {
    SmbiosData data;
    data.table =
        ToBytes(SystemSlot('\x06', 3, 1, 0, 0x28) + SystemSlot('\x06', 4, 2, '\xff', 0x30) +
                SystemSlot('\x06', 5, 3, 2, 0x38) + SystemSlot('\xa5', 4, 4, 3, '\0') +
                std::string("\x09\x10\1\0xxxxxxxxxxxx\0\0", 18) +
                std::string("\x29\x0b\1\0xx\7xx\0\x19\0\0", 13) +
                std::string("\x29\x0a\1\0xxxxxx\0\0", 12));
    CSMBios smbios;
    ASSERT_TRUE(smbios.Connect(data));
    const Slots slots = GatherSmbiosSlots(smbios);
    EXPECT_EQ(Text(slots), "0 5 1 6 / 3 0 4 165 / 0 3 7 0 / ");
    EXPECT_TRUE(InOrder(
        Trace(), {"CurrentUsage status - 3 for bus - 0.\n",
                  "Add system slot device - bus 00, device 05, slot 01, type 06.\n",
                  "Ignore unavailable slot with bus number 0xFF...\n",
                  "CurrentUsage status - 5 for bus - 2.\n",
                  "Ignore riser-unavailable slot with Current Usage status - Unavaiable ...\n",
                  "Add system slot device - bus 03, device 00, slot 04, type a5.\n",
                  "Add onboard device - bus 00, device 03, slot 07, type 00.\n",
                  "Success! Gathered 3 slots from SMBios\n"}));

    Slots irq = {{3, 9, 1, 1}, {0, 5, 2, 1}, {0, 6, 3, 1}};
    CPciSlotMap::UpdateSlotTypeFromSMBios(irq, slots);
    EXPECT_EQ(Text(irq), "3 9 1 165 / 0 5 2 6 / 0 6 3 1 / ");
    EXPECT_TRUE(InOrder(Trace(), {"Updated slot type:\n", "\tbus 03, device 09, slot 01, type a5\n",
                                  "Could not match with any SMBios entry:\n",
                                  "\tbus 00, device 06, slot 03, type 01\n", "(): Done.\n"}));
    data.table = {127, 4, 0, 0, 0, 0};
    ASSERT_TRUE(smbios.Connect(data));
    EXPECT_TRUE(GatherSmbiosSlots(smbios).empty());
    EXPECT_TRUE(InOrder(Trace(), {"No System Slots (Type 9) entries.\n",
                                  "No Onboard Devices Extended Information (Type 41) entries.\n",
                                  "ERROR ## No slot data in SMBios!\n"}));
}

// Each process has one map, so this asks in a child. _Fork runs no handler of fork, which would
// switch the trace off.
std::string TraceOfChild(int expectedSlot) {
    const pid_t child = _Fork();
    if (child == 0) _exit(CPciSlotMap::GetPciSlotNumber(1, 9));
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), expectedSlot);
    return RingText("/var/log/orvmon/log.kemd_i");
}

TEST_F(SlotMapTest, MapComesFromTheSourceThatHasSlots) {
    Bytes memory = FirmwareImage("pc");
    memory[0xF5C80] = 'x';  // no routing table
    WriteFile("/dev/mem", {memory.begin(), memory.end()});
    EXPECT_TRUE(
        InOrder(TraceOfChild(3),
                {"First try with (new) memory struct interface...\n",
                 "CDevScan            : Search for slot mapping table (mapped address = 0x",
                 "ERROR ## No slot data in IRQ Routing Table!\n",
                 "GetSlotMappingFromSMBIOS(): Attempt to get Slot Mapping from SMBIOS data.\n",
                 "CPciSlotMap::GetSlotMapping(): Using slot data from SMBios.\n",
                 "Found PCI Slot for this device - 3\n"}));
    std::filesystem::remove("/dev/mem");
    EXPECT_TRUE(
        InOrder(TraceOfChild(0),
                {"CPciSlotMap::GetSlotMapping(): ERROR # No slot data found on this machine!\n",
                 "GetPciSlotNumber() : ERROR ## Could not retrieve slot mapping.\n",
                 "slot number for 01:09 not found, assuming SlotNo=0\n"}));
}

TEST_F(SlotMapTest, MapOfARealMachineIsGatheredOnce) {
    const Bytes memory = FirmwareImage("pc");
    WriteFile("/dev/mem", {memory.begin(), memory.end()});
    EXPECT_EQ(CPciSlotMap::GetPciSlotNumber(0, 5), 4);
    EXPECT_EQ(CPciSlotMap::GetPciSlotNumber(1, 0), 0);
    std::filesystem::remove("/dev/mem");
    EXPECT_EQ(Text(CPciSlotMap::GetSlotMapping()),
              "0 1 0 0 / 0 2 1 0 / 0 3 2 0 / 0 4 3 0 / 0 5 4 0 / 0 6 5 0 / ");
    EXPECT_EQ(CPciSlotMap::Source(), PciSlotSource::kIrqRoutingTable);
    EXPECT_TRUE(CPciSlotMap::GetSlotMappingFromIrqRoutingTable().empty());
    EXPECT_TRUE(CPciSlotMap::GetSlotMappingFromSMBIOS().empty());
    EXPECT_TRUE(InOrder(
        Trace(),
        {"CDeviceBiosBase     :   connect to BIOS device...\n",
         "Add device - bus 00, device 05, slot 04, type 00.\n",
         "Success! Gathered 6 slots from IRQ Routing Table\n",
         "Success! Gathered 2 slots from SMBios\n",
         "CPciSlotMap::GetSlotMapping(): Using slot data from IRQ.\n",
         "Searching PCI slot table for bus '1' device '0'\n",
         "CPciSlotMap::GetPciSlotNumber() : Check bus 00, device 01, slot 00, type 00\n",
         "slot number for 01:00 not found, assuming SlotNo=0\n",
         "ERROR ## Empty IRQ Routing Table.\n", "ERROR ## No slot data in IRQ Routing Table!\n",
         "ERROR ## cannot connect to SMBios!\n"}));
    EXPECT_TRUE(Contains(Trace(),
                         "CPciSlotMap::GetPciSlotNumber() : Found PCI Slot for this device - 4\n"));
}

}  // namespace
