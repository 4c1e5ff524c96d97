// The routing table, the slot records of both sources, and the map.
#include <sys/wait.h>

#include <tuple>

#include "inventory/pci_slot_sources.h"
#include "tests/inventory/memory_world.h"
#include "tests/traced_test.h"

namespace {

using Slots = CPciSlotMap::Slots;

// Bus, device, slot and type of each.
std::string Text(const Slots& slots) {
    std::ostringstream text;
    for (const auto& [bus, device, slot, type] : slots) {
        text << int{bus} << ' ' << int{device} << ' ' << int{slot} << ' ' << int{type} << " / ";
    }
    return text.str();
}

class SlotMapTest : public TracedTest {};

// A table of this size at an offset in the area at 0xF0000. Its bytes add up to `sum`.
Bytes RoutingMemory(size_t offset, size_t size, int version, uint8_t sum) {
    Bytes table(std::max<size_t>(size, 16));
    for (size_t i = 32; i < size; ++i) table[i] = static_cast<uint8_t>(i);
    Place(table, 0, ToBytes("$PIR"));
    for (size_t i = 0; i < 2; ++i) {
        table[4 + i] = static_cast<uint8_t>(version >> (8 * i));
        table[6 + i] = static_cast<uint8_t>(size >> (8 * i));
    }
    FixChecksum(table, 8);
    table[8] = static_cast<uint8_t>(table[8] + sum);
    Bytes memory(0x200000);
    Place(memory, 0xF0000 + offset, table);
    memory.resize(0x100000);
    return memory;
}

TEST_F(SlotMapTest, RoutingTableIsCheckedBeforeItIsTaken) {
    const std::tuple<size_t, size_t, int, uint8_t, size_t, const char*> cases[] = {
        {0, 0x80, 0x0100, 0, 6, "number entries:  6\n"},
        {0, 48, 0x0A14, 0, 1, "version:         10.20\n"},
        {0, 16, 0x0100, 0, 0, "number entries:  -1\n"},
        {8, 0x80, 0x0100, 0, 0, ""},
        {0, 65504, 0x0100, 0, 4092, ""},
        {16, 65504, 0x0100, 0, 0, "Illegal table size in PCI IRQ Routing Table (65504)\n"},
        {0x10000 - 32, 16, 0x0100, 0, 0, "Illegal table size in PCI IRQ Routing Table (16)\n"},
        {0, 0, 0x0100, 0, 0, "Illegal table size in PCI IRQ Routing Table (0)\n"},
        {0, 31, 0x0100, 0, 0, "sizeof (IRQ_ROUTING_TABLE_ENTRY) is not zero (15)\n"},
        {0, 48, 0x0B00, 0, 0, "Illegal version number in PCI IRQ Routing Table (11.0)\n"},
        {0, 48, 0x0115, 0, 0, "Illegal version number in PCI IRQ Routing Table (1.21)\n"},
        {0, 48, 0x0100, 1, 0, "Illegal checksum in PCI IRQ Routing Table (01)\n"},
    };
    std::vector<std::string> errors;
    for (const auto& [offset, size, version, sum, entries, error] : cases) {
        MemoryDevice device(RoutingMemory(offset, size, version, sum));
        const Bytes table = device.GetRoutingTable();
        EXPECT_EQ(table.size(), entries * 16) << offset << ' ' << size;
        EXPECT_TRUE(entries == 0 || table[1] == 33);
        EXPECT_FALSE(device.IsMapped());
        errors.emplace_back(error);
    }
    EXPECT_TRUE(MemoryDevice(Bytes(0x80000)).GetRoutingTable().empty());
    errors.emplace_back("ERROR! Could not map physical memory at 0xF0000\n");
    EXPECT_TRUE(InOrder(Trace(), errors));
    EXPECT_TRUE(Contains(Trace(), "                    : [05] 70 71 "));
}

TEST_F(SlotMapTest, SerialSlotsMatchByTheirBus) {
    for (const int type : {0x13, 0x14, 0x23, 0x24, 0xa4, 0xa5, 0xb6, 0xb7}) {
        const PciSlotData slot{1, 2, 3, static_cast<uint8_t>(type)};
        const bool isSerial = (type >= 0x14 && type <= 0x23) || (type >= 0xa5 && type <= 0xb6);
        EXPECT_EQ(slot.IsSerialBus(), isSerial) << type;
        EXPECT_EQ(slot.Matches(1, 9, isSerial), isSerial);
        EXPECT_TRUE(slot.Matches(1, 2, isSerial) && !slot.Matches(2, 2, isSerial));
    }
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
    EXPECT_TRUE(Contains(Trace(), "device - bus 03, device 00, slot 04, type a5.\n"));

    Slots irq = {{3, 9, 1, 1}, {0, 5, 2, 1}, {0, 6, 3, 1}};
    CPciSlotMap::UpdateSlotTypeFromSMBios(irq, slots);
    EXPECT_EQ(Text(irq), "3 9 1 165 / 0 5 2 6 / 0 6 3 1 / ");
}

// Each process has one map, so a child asks. _Fork runs no fork handlers, which would turn off
// tracing in it.
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
    WriteFile("/dev/mem", ToText(memory));
    EXPECT_TRUE(Contains(TraceOfChild(3), "GetSlotMapping(): Using slot data from SMBios.\n"));
    std::filesystem::remove("/dev/mem");
    EXPECT_TRUE(Contains(TraceOfChild(0), "ERROR # No slot data found on this machine!\n"));
}

TEST_F(SlotMapTest, MapOfARealMachineIsGatheredOnce) {
    WriteFile("/dev/mem", ToText(FirmwareImage("pc")));
    EXPECT_EQ(CPciSlotMap::GetPciSlotNumber(0, 5), 4);
    EXPECT_EQ(CPciSlotMap::GetPciSlotNumber(1, 0), 0);
    std::filesystem::remove("/dev/mem");
    EXPECT_EQ(Text(CPciSlotMap::GetSlotMapping()),
              "0 1 0 0 / 0 2 1 0 / 0 3 2 0 / 0 4 3 0 / 0 5 4 0 / 0 6 5 0 / ");
    EXPECT_EQ(CPciSlotMap::Source(), PciSlotSource::kIrqRoutingTable);
    EXPECT_TRUE(InOrder(Trace(), {"Success! Gathered 6 slots from IRQ Routing Table\n",
                                  "Success! Gathered 2 slots from SMBios\n",
                                  "slot number for 01:00 not found, assuming SlotNo=0\n"}));
}

}  // namespace
