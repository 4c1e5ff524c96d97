// The sources of the SMBIOS tables, the checks, and the walk over the tables.
#include "inventory/smbios.h"

#include <sys/stat.h>

#include "inventory/bios_tables.h"
#include "tests/inventory/memory_world.h"
#include "tests/traced_test.h"

namespace {

namespace fs = std::filesystem;

std::string Text(const Bytes& bytes, size_t position, size_t length) {
    return {bytes.begin() + static_cast<std::ptrdiff_t>(position),
            bytes.begin() + static_cast<std::ptrdiff_t>(position + length)};
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
    static void WriteMemory(const Bytes& memory) {
        WriteFile("/dev/mem", Text(memory, 0, memory.size()));
    }
    static constexpr const char* kAllTypes = "0x1 1x1 3x1 4x1 9x1 16x1 17x1 19x1 32x1 41x1 127x1 ";
    const Bytes pc = FirmwareImage("pc");
    const Bytes q35 = FirmwareImage("q35");
};

TEST_F(SmbiosTest, TakesTheFirstSourceThatDelivers) {
    const auto connect = [](SmbiosSource source, int major, int minor) {
        CSMBios smbios;
        EXPECT_TRUE(smbios.Connect()) << smbios.Error();
        EXPECT_EQ(smbios.Data().source, source);
        EXPECT_EQ(smbios.Revision().major, major);
        EXPECT_EQ(smbios.Revision().minor, minor);
        EXPECT_EQ(smbios.StructureCount(), 11);
        EXPECT_EQ(Types(smbios), kAllTypes);
    };
    WriteMemory(pc);
    connect(SmbiosSource::kShadowMemory, 2, 8);
    WriteFile(kEsxiSmbios, Text(q35, 0xF59C0, 24) + Text(q35, 0xF59E0, 432));
    connect(SmbiosSource::kEsxiDevice, 3, 0);
    WriteFile(kEfiSystab, "noise\n=\nACPI=0x1\nSMBIOS3=zz\nSMBIOS=0xf59b0\n");
    connect(SmbiosSource::kMemory, 2, 8);
    Bytes both = pc;
    Place(both, 0xE0000, ToBytes(Text(q35, 0xF59C0, 24)));
    Place(both, 0xE0100, ToBytes(Text(q35, 0xF59E0, 432)));
    Place(both, 0xE0010, {0x00, 0x01, 0x0E});
    WriteMemory(both);
    WriteFile(kEfiSystab, "SMBIOS3=0xe0000\nSMBIOS=0xf59b0\n");
    connect(SmbiosSource::kMemory, 3, 0);
    WriteFile(kSmbiosEntryFile, Text(pc, 0xF59B0, 31));
    WriteFile(kSmbiosTableFile, Text(pc, 0xF59D0, 0x1B6));
    connect(SmbiosSource::kSysfs, 2, 8);
    WriteFile(kSmbiosEntryFile, "neither");
    connect(SmbiosSource::kMemory, 3, 0);
    EXPECT_TRUE(InOrder(
        Trace(),
        {"CBiosTables::GetSmbiosData() Start.\n",
         "CBiosTables::GetAnySMBiosFromSysfs() Could not read SMBios entry file.\n",
         "CBiosTables::GetAnySMBiosFromMemory() No SMBios 3 in memory.\n",
         "CBiosTables::GetAnySMBiosFromMemory() No SMBios 2 in memory.\n",
         "CBiosTables::GetSmbiosData() : ERROR ## No SMBios found!\n",
         "CSMBios (GetShadow) : Get SMBIOS data from BIOS shadow memory (E0000...FFFFF)\n",
         "ScanForSignature    : SMBIOS signature \"_SM_\" found (SM BIOS >= 2.1) at 0x000F59B0\n",
         "DMI Version:    2.8 (BCD Rev: 28)\n",
         "struct address: 0x000F59D0, size 0x01B6\n",
         "CheckSmbiosHeader   : Checksum OK, storing header\n",
         "CSMBios (Connect)   : Got SMBIOS data from BIOS shadow memory (438 bytes)\n",
         "CSMBios (Connect)   : SMBIOS revision: 2.8\n",
         "CSMBios (Connect)   : Build structure list...\n",
         "BuildStructureList  : - found struct type 0 (handle=0, len=24)\n",
         "BuildStructureList  : 11 SMBIOS structures found\n",
         "CSMBios (Connect)   : SMBIOS successfully connected\n",
         "CSMBios (Disconnect): Disconnected\n",
         "CBiosTables::GetSmbiosData() : ESXi specific SMBios found.\n",
         "CSMBios (Connect)   : SMBIOS data got from operating system (432 bytes)\n",
         "CBiosTables::GetSmbiosData() : Found in memory.\n",
         "GetAnySMBiosFromSysfs() Success : Header (31) bytes, Data (438) bytes\n",
         "CBiosTables::GetSmbiosData() : Found in sysfs.\n",
         "CBiosTables::GetAnySMBiosFromSysfs() : Invalid SMBios.\n"}));
}

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
    for (size_t i = 0; i < 8; ++i) {
        liar[0xF59C0 + 0x10 + i] = static_cast<uint8_t>(i == 0 ? 0xFF : 0x7F);
    }
    WriteMemory(liar);
    for (const char* address : {"0xf59c0", "0xfffffffffffffff0", "0xfffff", "0"}) {
        WriteFile(kEfiSystab, std::string("SMBIOS3=") + address + "\nSMBIOS=" + address + "\n");
        EXPECT_EQ(fails(), "No address for SMBIOS strucures detected!");
    }
    EXPECT_TRUE(InOrder(
        Trace(), {"CSMBios (GetShadow) : ## ERROR! Could not map SMBIOS physical memory (LastError",
                  "CSMBios (Connect)   : ## ERROR! Could not find any SMBIOS data!\n"}));
}

constexpr const char* kNoAddress = "No address for SMBIOS strucures detected!";
constexpr const char* kChecksum = "CHECKSUM ERROR in DMI structure header!";

TEST_F(SmbiosTest, ShadowScanWantsParagraphsAndAGoodChecksum) {
    Bytes entry(31);
    Place(entry, 0, ToBytes("_SM_"));
    entry[5] = 31;
    Place(entry, 0x18, {0x00, 0x00, 0x0F});
    entry[0x16] = 6;
    FixChecksum(entry, 4);
    Bytes memory(0x100000);
    Place(memory, 0xF0000, {127, 4, 0, 0, 0, 0});
    const std::string unmapped =
        "Remapping of SMBIOS structure memory failed (LastError = 0x00000006)!";
    const struct {
        size_t address;
        size_t field;  // of the entry point, 0: none
        uint8_t value;
        std::string error;
    } cases[] = {{0xE0000, 0, 0, ""},
                 {0xFFFD0, 0, 0, ""},
                 {0xFFFF0, 0, 0, kNoAddress},  // beyond the last place
                 {0xE0008, 0, 0, kNoAddress},
                 {0xE0000, 4, 1, kChecksum},
                 {0xE0000, 5, 0, kChecksum},
                 {0xFFFD0, 5, 255, kChecksum},  // beyond the area, with a sum of 0
                 {0xE0000, 0x1A, 0, kNoAddress},
                 {0xE0000, 0x1B, 1, unmapped},
                 {0xE0000, 0x16, 0, unmapped}};
    for (const auto& [address, field, value, error] : cases) {
        Bytes changed = entry;
        if (field >= 5) changed[4] = static_cast<uint8_t>(changed[4] + changed[field] - value);
        if (field != 0) changed[field] = value;
        changed.resize(std::min<size_t>(changed.size(), 0x100000 - address));
        Bytes image = memory;
        Place(image, address, changed);
        MemoryDevice device(image);
        SmbiosData data;
        EXPECT_EQ(GetShadowSmbios(device, data), error.empty()) << address << ' ' << field;
        EXPECT_EQ(data.error, error);
        EXPECT_EQ(data.table.size(), error.empty() ? 6U : 0U);
    }
    SmbiosData none;
    EXPECT_FALSE(CheckSmbiosHeader({}, none));
    EXPECT_TRUE(Contains(Trace(), "## CHECKSUM ERROR in DMI structure header!\n"));
}

TEST_F(SmbiosTest, BrokenTablesEndAtTheFault) {
    const std::string fatal =
        "## FATAL ERROR! SMBIOS structure pointer exceeds structure table end while ";
    const std::string noHeader = fatal + "reading struct header!\n   struct[";
    const std::string noEnd = fatal + "going to struct end!\n   struct[";
    const std::string noStrings =
        fatal +
        "when string table end found!\n   struct[0], type=0x01, handle=2\n   struct Offset 0x0000";
    CSMBios smbios;
    SmbiosData data;
    const struct {
        std::string table;
        std::string types;
        std::string error;
    } cases[] = {
        {std::string("\1\5\2\0x\0\0", 7), "1x1 ", ""},
        {std::string("\1\4\2\0one\0two\0\0\1\4\3\0\0\0\x7f\4\4\0\0\0rest", 28), "1x2 127x1 ", ""},
        {std::string("\1\4\2\0a\0\0\1", 8), "1x1 ", noHeader + "1], type=0x01, handle=2"},
        {std::string("\1\3\2\0\0\0", 6), "", noHeader + "0], type=0x00, handle=0"},
        {std::string("\1\4\2\0\0\0\5\x10\7\0\0\0", 12), "1x1 5x1 ",
         noEnd + "1], last type=0x05, last handle=7\n   struct Offset 0x0006"},
        {std::string("\1\4\2\0", 4), "1x1 ", noStrings},
        {std::string("\1\4\2\0\0", 5), "1x1 ", noStrings},
        {std::string("\1\4\2\0abc", 7), "1x1 ", noStrings},
        {"", "", "SMBIOS structures are not set"},
    };
    for (const auto& [table, types, error] : cases) {
        data.table = ToBytes(table);
        EXPECT_EQ(smbios.Connect(data), error.empty()) << error;
        EXPECT_EQ(Types(smbios), types);
        EXPECT_EQ(smbios.Error(), error);
    }
    // A real table cut at every byte, a wrong structure count, and strings without an end.
    Debug.SwitchTrace(false);
    for (size_t length = 0; length < 0x1B6; ++length) {
        data.table = ToBytes(Text(pc, 0xF59D0, length));
        EXPECT_FALSE(smbios.Connect(data) && smbios.StructureCount() == 11) << length;
    }
    Debug.SwitchTrace(true);
    data.structureCount = 12;
    data.table = ToBytes(Text(pc, 0xF59D0, 0x1B6));
    EXPECT_TRUE(smbios.Connect(data));
    EXPECT_EQ(smbios.StructureCount(), 12);
    data.table.assign(0x10000, 'x');
    Place(data.table, 0, {1, 4, 0, 0});
    for (size_t i = 5; i < data.table.size(); i += 2) data.table[i] = 0;
    EXPECT_FALSE(smbios.Connect(data));
    const std::string line(116, '-');
    EXPECT_TRUE(InOrder(
        Trace(), {" end of BIOS structures!\n", line + "\n", "## FATAL ERROR!", line + "\n",
                  "   p = 0x00000007, table end = 0x00000008", "SMBIOS NOT connected\n",
                  "BuildStructureList  : ## ERROR! SMBIOS structures are not set\n",
                  "## ERROR! Number of SMBIOS structures found (11) does not match to number in "
                  "header (12)!\n"}));
}

TEST_F(SmbiosTest, FinestLevelShowsStringsAndStrayMarks) {
    Debug.Close();
    ConfigureTrace(6);
    ASSERT_TRUE(Debug.Init("kemd"));
    Bytes memory = pc;
    memory[0xE0001] = '_';
    WriteMemory(memory);
    CSMBios smbios;
    ASSERT_TRUE(smbios.Connect());
    // A new connection keeps nothing of the old one.
    EXPECT_FALSE(smbios.Connect(SmbiosData()));
    EXPECT_TRUE(smbios.Structures().empty());
    EXPECT_EQ(smbios.Revision().major, 0);
    EXPECT_TRUE(InOrder(
        Trace(), {"'_' found at a non-paragraph address (0x000E0001), continue searching\n",
                  "Header size:    31\n", "Anchor string:  _SM_\n", "number of structures: 11\n",
                  "BuildStructureList  :    -> found string \"SeaBIOS\"\n",
                  "-> found string \"PCIe Slot 3\"\n"}));
}

// A thread that is cancelled while it reads files is cancelled after that.
TEST_F(SmbiosTest, CancellationWaitsForTheEnd) {
    WriteMemory(pc);
    static CSMBios smbios;
    pthread_t thread{};
    const auto connect = [](void*) -> void* {
        pthread_cancel(pthread_self());  // is due at the first file already
        smbios.Connect();
        pthread_testcancel();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, connect, nullptr), 0);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(Types(smbios), kAllTypes);
}

TEST_F(SmbiosTest, RevisionComesFromEveryKindOfEntryPoint) {
    for (const auto& [entry, revision] :  // major * 10 + minor, -1: none
         {std::pair{std::string("_SM_\0\0\2\7", 8), 27},
          {std::string("_SM3_\0\0\3\5", 9), 35},
          {"UEFI\2\4", 24},
          {"_SM_", -1},
          {"_SM3", -1},
          {"_DMI_x", -1},
          {"", -1}}) {
        const auto found = ReadSmbiosRevision(ToBytes(entry));
        EXPECT_EQ(found ? found->major * 10 + found->minor : -1, revision) << entry;
    }
    EXPECT_TRUE(InOrder(Trace(), {"Error # Invalid SMBios version! (no anchor string matched)\n",
                                  "Error # No SMBios header to process!\n"}));
}

}  // namespace
