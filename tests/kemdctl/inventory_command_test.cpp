// kemdctl inventory on tables of real firmware.
#include <numeric>

#include "tests/inventory/memory_world.h"
#include "tests/kemdctl/ctl.h"

namespace {

namespace fs = std::filesystem;

std::string Text(const Bytes& bytes, size_t position, size_t length) {
    return {bytes.begin() + static_cast<std::ptrdiff_t>(position),
            bytes.begin() + static_cast<std::ptrdiff_t>(position + length)};
}

struct InventoryCommand : testing::Test {
    InventoryCommand() {
        fs::remove_all("/dev/mem");
        fs::remove_all("/sys/firmware");
    }
    static void UseMemory(const std::string& machine) {
        const Bytes memory = FirmwareImage(machine);
        WriteFile("/dev/mem", Text(memory, 0, memory.size()));
    }
};

TEST_F(InventoryCommand, ShowsTablesAndSlots) {
    UseMemory("pc");
    EXPECT_TRUE(
        Shows("inventory --tables", 0,
              {"SMBIOS 2.8, 11 structures in 438 bytes, from the BIOS shadow memory\n",
               "   0           1  BIOS\n", " 127           1  end of table\n",
               "bus:device  slot  type", "00:01          0  on board", "IRQ routing table\n",
               "00:05          4  not known", "IRQ routing table  Onboard\n", "00:06          5"}));
    EXPECT_TRUE(Shows(
        "inventory --tables --json", 0,
        {R"({"smbios":{"source":"shadow","revision":"2.8","structures":11,"types":[{"type":0,)",
         R"("name":"BIOS","count":1},)", R"("slots":[{"bus":0,"device":1,"slot":0,"type":0,)",
         R"("kind":"onboard","label":"","source":"irq-routing-table"},)",
         R"("source":"irq-routing-table"}],"incomplete":false})"}));
    WriteFile("/full/rest", std::string(8192, 'x'));
    ExpectAll(
        "inventory ",
        {{"--slot 00:05", 0, "4\n"},
         {"--slot=0:5 --json", 0,
          "{\"slot\":4,\"match\":\"device\",\"kind\":\"slot\",\"label\":\"Onboard\","
          "\"incomplete\":false}\n"},
         {"--slot 01:00 --json", 1,
          "{\"incomplete\":true,\"error\":\"the slot of 01:00 is not known\"}\n", "is not known\n"},
         {"--slot 00:05 --dump /tmp/x", 2, "", "see kemdctl inventory --help\n"},
         {"--from-dump /proc/self/mem", 2, "", "cannot read /proc/self/mem: Input/output error\n"},
         {"--from-dump /none --json", 2,
          "{\"incomplete\":true,\"error\":\"cannot read /none: No such file or directory\"}\n",
          "cannot read /none: No such file or directory\n"},
         {"--dump - --json", 2,
          "{\"error\":\"--json and --dump - both write to standard output; name a file for --dump\"}\n",
          "--dump -"},
         {"--dump /full/x --json", 2,
          "{\"error\":\"cannot write /full/x: No space left on device\"}\n", "No space left"},
         {"--dump - >/dev/full", 2, "", "No space left"}});
    fs::remove("/full/rest");
    EXPECT_TRUE(Contains(OnTerminal("/build/bin/kemdctl inventory --dump -"),
                         "standard output is a terminal"));
    for (const std::string address : {"00:20", "00", "-1:05"})
        EXPECT_TRUE(
            Prints("inventory --slot " + address, 2, "", address + " is not a bus and device"));
}

TEST_F(InventoryCommand, DumpsAreReadBack) {
    for (const std::string machine : {"pc", "q35"}) {
        const Bytes memory = FirmwareImage(machine);
        const bool isPc = machine == "pc";
        const size_t entry = isPc ? 0xF59B0 : 0xF59C0;
        const std::string table = isPc ? Text(memory, 0xF59D0, 438) : Text(memory, 0xF59E0, 432);
        WriteFile("/sys/firmware/dmi/tables/smbios_entry_point",
                  Text(memory, entry, isPc ? 31 : 24));
        WriteFile("/sys/firmware/dmi/tables/DMI", table);
        EXPECT_TRUE(Prints("inventory --dump /tmp/dump", 0, ""));
        const std::string dump = ReadFile("/tmp/dump");
        EXPECT_EQ(dump.substr(32), table);
        EXPECT_EQ(std::accumulate(dump.begin(), dump.begin() + 31, 0) % 256, 0);
        EXPECT_TRUE(Prints("inventory --dump -", 0, dump));

        fs::remove_all("/sys/firmware");
        EXPECT_TRUE(Shows(
            "inventory --from-dump /tmp/dump", 0,
            {", 11 structures in ", ", from the dump\n", "01:00          3  PCI Express ",
             "SMBIOS             PCIe Slot 3\n",
             isPc ? "00:05          2  on board" : "00:02          1  on board", "Onboard\n"}));
        EXPECT_EQ(Ctl("inventory --from-dump /tmp/dump --slot 01:1f").out, "3\n");  // serial
        // Damaged: the rest is shown, and what is wrong is reported.
        std::string broken = dump;
        broken[broken.size() - 5] = 3;  // the length of the last structure
        WriteFile("/tmp/cut", broken);
        EXPECT_TRUE(Shows("inventory --from-dump /tmp/cut", 1,
                          {", 10 structures in ", "  41           1", "01:00",
                           "kemdctl: SMBIOS: ## FATAL ERROR! SMBIOS structure"}));
        EXPECT_TRUE(Shows("inventory --json --from-dump /tmp/cut", 1,
                          {"],\"incomplete\":true,\"error\":\"SMBIOS: ## FATAL ERROR! SMBIOS"}));
        // The length of a version-3 entry point is only the most that there can be.
        for (const size_t length : {size_t{5}, size_t{32}, size_t{40}}) {
            WriteFile("/tmp/cut", dump.substr(0, length));
            const bool isRead = length > 32 && !isPc;
            EXPECT_TRUE(Shows("inventory --from-dump /tmp/cut", isRead ? 1 : 2, {"SMBIOS"}));
        }
    }
}

TEST_F(InventoryCommand, SaysWhatIsMissing) {
    EXPECT_TRUE(Prints("inventory --tables", 1, "", "SMBIOS: Could not map"));
    EXPECT_TRUE(Prints("inventory --dump /tmp/none", 1, "", "there are no tables to dump: "));
    EXPECT_FALSE(fs::exists("/tmp/none"));
    UseMemory("q35");
    fs::create_directories("/sys/firmware/dmi/tables");
    fs::create_symlink("DMI", "/sys/firmware/dmi/tables/DMI");  // not readable, even for root
    const std::string denied = "cannot read /sys/firmware/dmi/tables/DMI: Too many levels";
    EXPECT_TRUE(
        Shows("inventory --tables", 0, {"00:06          5", denied}));  // the slots are there
    fs::remove("/dev/mem");
    EXPECT_TRUE(
        Shows("inventory --tables --json", 2, {"{\"incomplete\":true,\"error\":\"" + denied}));
    // The whole inventory has what there is.
    EXPECT_TRUE(Shows("inventory --json", 0,
                      {R"({"smbios":{"source":"none")", R"("incomplete":true,"error":")" + denied,
                       R"(,"format": "kemd inventory", "version": 1,)", "\"notes\": ["}));
    ExpectAll("inventory ", {{"disks", 2, "", "there is no section disks; see kemdctl inv"},
                             {"pci --tables", 2, "", "sections do not go with"}});
}

using namespace std::string_literals;

// Structures of type 9, whose formatted area is cut to `length`, and of type 41.
std::string SystemSlot(uint8_t type, char number, char bus, char deviceFunction,
                       const std::string& label, char length = 17) {
    const std::string area = "\x09"s + length + "\x01\0\x01"s + static_cast<char>(type) +
                             "\x0d\x04\x03"s + number + "\0\x0c\x01\0\0"s + bus + deviceFunction;
    return area.substr(0, static_cast<size_t>(length)) + label + "\0\0"s;
}
std::string OnboardDevice(char instance, char bus, char deviceFunction, const std::string& name) {
    return "\x29\x0b\x02\0\x01\x85"s + instance + "\0\0"s + bus + deviceFunction + name + "\0\0"s;
}

void WriteDump(char major, char minor, const std::string& structures) {
    const std::string table = structures + "\x7f\x04\x7f\0\0\0"s;
    WriteFile("/tmp/dump", "_SM3_\0\x18"s + major + minor + "\0\x01\0"s +
                               static_cast<char>(table.size()) + "\0\0\0\x20"s +
                               std::string(15, '\0') + table);
}

// Firmware often gives a slot the address of the port above it. Such a row must not claim every
// other device on that bus.
TEST_F(InventoryCommand, PrefersTheRowOfTheDevice) {
    WriteDump(3, 1,
              SystemSlot(0xA5, 6, 0, '\xe0', "PCIE6  ") + SystemSlot(0xA5, 0, 0, 0x08, "M2") +
                  OnboardDevice(3, 0, '\xfb', "Onboard LAN\x1b") +
                  SystemSlot(0xA5, 2, 2, 0, "PCIE2"));
    EXPECT_TRUE(InOrder(Ctl("inventory --from-dump /tmp/dump").out,
                        {"00:1c          6  PCI Express ", " PCIE6\n", "00:01          0  PCI",
                         "00:1f          3  on board", "Onboard LAN\\x1b\n"}));
    ExpectAll(
        "inventory --from-dump /tmp/dump --slot ",
        {{"00:01", 0, "0\n"},
         {"00:1f", 0, "3\n"},
         {"00:02", 0, "6\n",
          "00:02 has no row of its own: slot 6 is that of 00:1c, by the bus alone\n"},
         {"00:02 --json", 0,
          "{\"slot\":6,\"match\":\"bus\",\"kind\":\"slot\",\"label\":\"PCIE6\",\"incomplete\":false}\n",
          "by the bus alone\n"},
         {"02:01", 0, "2\n", "slot 2 is that of 02:00, by the bus alone\n"}});
}

TEST_F(InventoryCommand, SaysWhyThereAreNoSlots) {
    const std::string command = "inventory --from-dump /tmp/dump";
    const std::string area = SystemSlot(0xA5, 1, 0, 0, "A", 13);
    WriteDump(2, 4, area);
    EXPECT_TRUE(Shows(command, 0, {"\nno slot map: the tables are of SMBIOS 2.4, and only those"}));
    WriteDump(3, 0, SystemSlot(0xA5, 1, '\xff', 0, "A") + area);
    EXPECT_TRUE(Shows(command + " --json --slot 0:1", 1,
                      {"\"error\":\"the slot of 00:01 is not known: none of the 2 slots in the "}));
}

}  // namespace
