// The sources of the SMBIOS tables, the checks, and the walk over the tables.
#include "inventory/smbios.h"

#include <sys/stat.h>

#include <thread>
#include <tuple>

#include "inventory/bios_tables.h"
#include "tests/inventory/memory_world.h"
#include "tests/traced_test.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

std::string Text(const Bytes& bytes, size_t position, size_t length) {
    return ToText(std::span(bytes).subspan(position, length));
}

// The structures by type, "type x count" each.
std::string Types(const CSMBios& smbios) {
    std::string text;
    for (const auto& [type, positions] : smbios.Structures()) {
        text += std::to_string(type) + "x" + std::to_string(positions.size()) + " ";
    }
    return text;
}

class SmbiosTest : public TracedTest {
  protected:
    void SetUp() override {
        TracedTest::SetUp();
        for (const char* path : kInventoryFiles) fs::remove_all(path);
    }
    static constexpr const char* kAllTypes = "0x1 1x1 3x1 4x1 9x1 16x1 17x1 19x1 32x1 41x1 127x1 ";
    const Bytes pc = FirmwareImage("pc");
    const Bytes q35 = FirmwareImage("q35");
};

TEST_F(SmbiosTest, TakesTheFirstSourceThatDelivers) {
    const auto connect = [](SmbiosSource source, int revision) {
        CSMBios smbios;
        EXPECT_TRUE(smbios.Connect()) << smbios.Error();
        EXPECT_EQ(smbios.Data().source, source);
        EXPECT_EQ(smbios.Revision().major * 10 + smbios.Revision().minor, revision);
        EXPECT_EQ(Types(smbios), kAllTypes);
    };
    WriteFile("/dev/mem", ToText(pc));
    connect(SmbiosSource::kShadowMemory, 28);
    WriteFile(kEsxiSmbios, Text(q35, 0xF59C0, 24) + Text(q35, 0xF59E0, 432));
    connect(SmbiosSource::kEsxiDevice, 30);
    WriteFile(kEfiSystab, "noise\n=\nACPI=0x1\nSMBIOS3=zz\nSMBIOS=0xf59b0\n");
    connect(SmbiosSource::kMemory, 28);
    Bytes both = pc;
    Place(both, 0xE0000, ToBytes(Text(q35, 0xF59C0, 24)));
    Place(both, 0xE0100, ToBytes(Text(q35, 0xF59E0, 432)));
    Place(both, 0xE0010, {0x00, 0x01, 0x0E});
    WriteFile("/dev/mem", ToText(both));
    WriteFile(kEfiSystab, "SMBIOS3=0xe0000\nSMBIOS=0xf59b0\n");
    connect(SmbiosSource::kMemory, 30);
    WriteFile(kSmbiosEntryFile, Text(pc, 0xF59B0, 31));
    connect(SmbiosSource::kMemory, 30);  // sysfs has an entry point but no table
    WriteFile(kSmbiosTableFile, Text(pc, 0xF59D0, 0x1B6));
    connect(SmbiosSource::kSysfs, 28);
    WriteFile(kSmbiosEntryFile, "neither");
    connect(SmbiosSource::kMemory, 30);
    EXPECT_TRUE(InOrder(Trace(), {"\"_SM_\" found (SM BIOS >= 2.1) at 0x000F59B0\n",
                                  "ESXi specific SMBios found.\n", "Found in sysfs.\n"}));
}

constexpr const char* kNoAddress = "No address for SMBIOS strucures detected!";
constexpr const char* kChecksum = "CHECKSUM ERROR in DMI structure header!";

TEST_F(SmbiosTest, MissingAndLyingSourcesFail) {
    const auto fails = [] {
        CSMBios smbios;
        EXPECT_FALSE(smbios.Connect());
        return smbios.Error();
    };
    EXPECT_EQ(fails(), "Could not map SMBIOS physical memory (LastError = 0x00000002)!");
    WriteFile("/dev/mem", "short");
    EXPECT_EQ(fails(), "Could not map SMBIOS physical memory (LastError = 0x00000006)!");
    fs::remove("/dev/mem");
    ASSERT_EQ(mkfifo("/dev/mem", 0600), 0);
    ASSERT_EQ(mkfifo(kSmbiosEntryFile, 0600), 0);
    EXPECT_EQ(fails(), "Could not map SMBIOS physical memory (LastError = 0x00000016)!");
    fs::remove("/dev/mem");
    // Absurd addresses and lengths, in both kinds of entry points.
    Bytes liar = q35;
    Place(liar, 0xF59C0 + 0x10, {0xFF, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F});
    WriteFile("/dev/mem", ToText(liar));
    for (const std::string address : {"0xf59c0", "0xfffffffffffffff0", "0xfffff", "0"}) {
        WriteFile(kEfiSystab, "SMBIOS3=" + address + "\nSMBIOS=" + address + "\n");
        EXPECT_EQ(fails(), kNoAddress);
    }
}

TEST_F(SmbiosTest, EntryPointsAreChecked) {
    Bytes entry(31);
    Place(entry, 0, ToBytes("_SM_"));
    entry[5] = 31;
    entry[0x16] = 6;
    entry[0x1A] = 0x0F;  // the table's address is 0xF0000
    FixChecksum(entry, 4);
    const char* const unmapped =
        "Remapping of SMBIOS structure memory failed (LastError = 0x00000006)!";
    const std::tuple<size_t, size_t, uint8_t, std::string> cases[] = {
        {0xE0000, 0, 0, ""},
        {0xFFFD0, 0, 0, ""},
        {0xFFFF0, 0, 0, kNoAddress},  // beyond the last place
        {0xE0008, 0, 0, kNoAddress},
        {0xE0000, 4, 1, kChecksum},
        {0xE0000, 5, 0, kChecksum},
        {0xFFFD0, 5, 255, kChecksum},  // beyond the area, with a sum of 0
        {0xE0000, 0x1A, 0, kNoAddress},
        {0xE0000, 0x1B, 1, unmapped},
        {0xE0000, 0x16, 0, unmapped}};
    for (const auto& [address, field, value, error] : cases) {  // field 0: as it is
        Bytes changed = entry;
        if (field != 0) changed[field] = value;
        if (field > 4) FixChecksum(changed, 4);
        changed.resize(std::min<size_t>(changed.size(), 0x100000 - address));
        Bytes memory(0x100000);
        Place(memory, 0xF0000, {127, 4, 0, 0, 0, 0});
        Place(memory, address, changed);
        MemoryDevice device(memory);
        SmbiosData data;
        EXPECT_EQ(GetShadowSmbios(device, data), error.empty()) << address << ' ' << field;
        EXPECT_EQ(data.error, error);
        EXPECT_EQ(data.table.size(), error.empty() ? 6U : 0U);
    }
    EXPECT_EQ(ReadSmbiosRevision(ToBytes("UEFI\2\4"))->major, 2);
    EXPECT_FALSE(ReadSmbiosRevision(ToBytes("_SM_")));
}

TEST_F(SmbiosTest, BrokenTablesEndAtTheFault) {
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"\1\5\2\0x\0\0"s, "1x1 ", ""},
        {"\1\4\2\0one\0two\0\0\1\4\3\0\0\0\x7f\4\4\0\0\0rest"s, "1x2 127x1 ", ""},
        {"\1\4\2\0a\0\0\1"s, "1x1 ", "reading struct header!\n   struct[1], type=0x01, handle=2"},
        {"\1\3\2\0\0\0"s, "", "reading struct header!\n   struct[0], type=0x00, handle=0"},
        {"\1\4\2\0\0\0\5\x10\7\0\0\0"s, "1x1 5x1 ", "to struct end!\n   struct[1], last type=0x05"},
        {"\1\4\2\0"s, "1x1 ", "string table end found!\n   struct[0], type=0x01"},
        {"\1\4\2\0\0"s, "1x1 ", "string table end found!\n   struct[0], type=0x01"},
        {"\1\4\2\0abc"s, "1x1 ", "string table end found!\n   struct[0], type=0x01"},
        {"", "", "SMBIOS structures are not set"},
    };
    CSMBios smbios;
    SmbiosData data;
    for (const auto& [table, types, error] : cases) {
        data.table = ToBytes(table);
        EXPECT_EQ(smbios.Connect(data), error.empty()) << error;
        EXPECT_EQ(Types(smbios), types);
        EXPECT_TRUE(Contains(smbios.Error(), error)) << smbios.Error();
    }
    // A real table cut at every byte, and a wrong structure count.
    Debug.SwitchTrace(false);
    for (size_t length = 0; length < 0x1B6; ++length) {
        data.table = ToBytes(Text(pc, 0xF59D0, length));
        EXPECT_FALSE(smbios.Connect(data) && smbios.StructureCount() == 11) << length;
    }
    Debug.SwitchTrace(true);
    data.structureCount = 12;
    data.table = ToBytes(Text(pc, 0xF59D0, 0x1B6));
    EXPECT_TRUE(smbios.Connect(data));
    EXPECT_TRUE(Contains(Trace(), "found (11) does not match to number in header (12)!\n"));
}

// A thread that is cancelled while it reads the tables ends only after that.
TEST_F(SmbiosTest, CancellationWaitsForTheEnd) {
    WriteFile("/dev/mem", ToText(pc));
    static CSMBios smbios;
    std::thread thread([] {
        pthread_cancel(pthread_self());  // due from the first file on
        smbios.Connect();
        pthread_testcancel();
    });
    thread.join();
    EXPECT_EQ(Types(smbios), kAllTypes);
}

}  // namespace
