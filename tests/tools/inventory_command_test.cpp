// kemdctl inventory on tables of real firmware.
#include <unistd.h>

#include "tests/inventory/memory_world.h"
#include "tests/tools/ctl.h"

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
    const Result result = Ctl("inventory");
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(InOrder(
        result.out, {"SMBIOS 2.8, 11 structures in 438 bytes, from the BIOS shadow memory\n",
                     "   0           1  BIOS\n", "   9           1  system slots\n",
                     "  41           1  onboard devices extended\n",
                     " 127           1  end of table\n", "bus:device  slot  type",
                     "00:01          0  not known", "IRQ routing table\n", "00:06          5"}));
    const std::string json = Ctl("inventory --json").out;
    EXPECT_TRUE(InOrder(
        json,
        {R"({"smbios":{"source":"shadow","revision":"2.8","structures":11,"types":[{"type":0,)",
         R"("name":"BIOS","count":1},)", R"("slots":[{"bus":0,"device":1,"slot":0,"type":0,)",
         R"("source":"irq-routing-table"}]})"}));
    const struct {
        const char* arguments;
        int code;
        const char* out;
    } cases[] = {{"--slot 00:05", 0, "4\n"},
                 {"--slot=0:5 --json", 0, "{\"slot\":4}\n"},
                 {"--slot 01:00", 1, ""},
                 {"--slot 00:20", 2, ""},
                 {"--slot 00", 2, ""},
                 {"--slot -1:05", 2, ""},
                 {"--slot 0x:1", 2, ""},
                 {"--slot 00:05 --dump /tmp/x", 2, ""},
                 {"--slot", 2, ""},
                 {"--from-dump /none", 2, ""},
                 {"more", 2, ""},
                 {"--other", 2, ""}};
    for (const auto& [arguments, code, out] : cases) {
        const Result each = Ctl(std::string("inventory ") + arguments);
        EXPECT_EQ(each.code, code) << arguments;
        EXPECT_EQ(each.out, out) << arguments;
        EXPECT_EQ(each.err.empty(), code == 0) << arguments;
    }
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
        ASSERT_EQ(Ctl("inventory --dump /tmp/dump").code, 0);
        const std::string dump = ReadFile("/tmp/dump");
        EXPECT_EQ(dump.substr(32), table);
        EXPECT_EQ(dump[isPc ? 0x18 : 0x10], 32);
        uint8_t sum = 0;
        for (size_t i = 0; i < 31; ++i) sum = static_cast<uint8_t>(sum + dump[i]);
        EXPECT_EQ(sum, 0);

        fs::remove_all("/sys/firmware");
        const Result result = Ctl("inventory --from-dump /tmp/dump");
        EXPECT_EQ(result.code, 0) << result.err;
        EXPECT_TRUE(InOrder(
            result.out,
            {", 11 structures in ", ", from the dump\n", "01:00          3  PCI Express ",
             "SMBIOS\n", isPc ? "00:05          2  not known" : "00:02          1  not known"}));
        EXPECT_EQ(Ctl("inventory --from-dump /tmp/dump --slot 01:1f").out, "3\n");  // serial
        // Damaged: the rest is shown, and what is wrong is said.
        // The length of a version-3 entry point is only the most that there can be.
        WriteFile("/tmp/cut", dump.substr(0, dump.size() - 1));
        EXPECT_EQ(Ctl("inventory --from-dump /tmp/cut").code, isPc ? 2 : 1);
        std::string broken = dump;
        broken[broken.size() - 5] = 3;  // the length of the last structure
        WriteFile("/tmp/broken", broken);
        const Result damaged = Ctl("inventory --from-dump /tmp/broken");
        EXPECT_EQ(damaged.code, 1);
        EXPECT_TRUE(InOrder(damaged.out, {", 10 structures in ", "  41           1", "01:00"}));
        EXPECT_TRUE(Contains(damaged.err, "kemdctl: SMBIOS: ## FATAL ERROR! SMBIOS structure"));
    }
}

TEST_F(InventoryCommand, SaysWhatIsMissing) {
    EXPECT_EQ(Ctl("inventory").code, 1);
    EXPECT_EQ(Ctl("inventory --dump /tmp/none").code, 1);
    EXPECT_FALSE(fs::exists("/tmp/none"));
    UseMemory("q35");
    fs::create_symlink("loop", "/dev/loop");
    fs::create_directories("/sys/firmware/dmi/tables");
    fs::create_symlink("DMI", "/sys/firmware/dmi/tables/DMI");  // not readable, even for root
    const Result result = Ctl("inventory");
    EXPECT_EQ(result.code, 0);  // the slots are there
    EXPECT_TRUE(Contains(result.err, "cannot read /sys/firmware/dmi/tables/DMI: Too many levels"));
    fs::remove("/dev/mem");
    EXPECT_EQ(Ctl("inventory").code, 2);
    EXPECT_TRUE(
        Contains(Ctl("inventory --from-dump /tmp").err, "cannot read /tmp: Is a directory"));
}

}  // namespace
