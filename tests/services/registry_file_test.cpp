// The registry's files: reading, writing, fallbacks, and hostile files.
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "base/file_io.h"
#include "tests/failing_memory.h"
#include "tests/services/registry_world.h"

namespace {

namespace fs = std::filesystem;

TEST_F(RegistryTest, ReadsWhatItKnowsAndSkipsTheRest) {
    const std::string longName(1021, 'n');
    std::string many = "m=d=0\n";
    for (int i = 0; i < 40; ++i) many += "k=d=" + std::to_string(i) + "\n";
    const std::pair<std::string, std::string> cases[] = {
        {"s=s=a=s=b\ne=es=%X%\nd=d= -12xyz\nb=b=00 ab 1ff 0x5 zz 01\n",
         "b=b=00 ab ff 05 \nd=d=-12\ne=es=%X%\ns=s=a=s=b\n\n"},
        {"d=d=4294967295\nx=d=abc\nD=d=99999999999999999999\n", "D=d=-1\nd=d=-1\n\n"},
        {"noise\nx=q=1\nx=s\n=s=no name\n[x=s=1\n", "=s=no name\n[x=s=1\n\n"},
        {"noise\n", "\n"},
        {"\na=s=1\n", "\n"},
        {std::string("a=s=1\0 2\n", 9), "a=s=1\n\n"},
        {"[k]\nx=d=1\n[l]\ny=d=2", "[k]\nx=d=1\n[l]\ny=d=2\n\n\n\n"},
        // The last one of a name stays, whatever the first one was and however many there are.
        {"k=s=1\n[k]\na=d=1\n\n[k]\nb=d=2\n\nz=s=1\nz=d=2\n", "z=d=2\n[k]\nb=d=2\n\n\n"},
        {many + "b=d=1\n", "b=d=1\nk=d=39\nm=d=0\n\n"},
        // A line of more than 1,023 bytes is read as two; the rest of this one ends the key.
        {longName + "=s\nb=s=1\n", "\n"},
    };
    for (const auto& [text, tree] : cases) {
        WriteFile("/tmp/file", text);
        const UniqueFd file = OpenRegularFile("/tmp/file", O_RDONLY);
        LineReader lines(file.Get());
        CRegistryNode node;
        EXPECT_EQ(ParseRegistry(lines, node), tree == "\n" ? ENODATA : 0) << text;
        EXPECT_EQ(Text(node), tree) << text;
    }
}

TEST_F(RegistryTest, FallsBackToThePreviousGenerationAndTheDefault) {
    WriteFile(kRegistryPath, "");
    WriteFile(kRegistryPath + ".old", "\nx");
    WriteFile(kRegistryPath + ".default", FileWith("v=s=default\n"));
    CRegistry::SetupTree(true);
    EXPECT_EQ(Machine(), "v=s=default\n\n");
    fs::remove_all("/etc/orvmon");
    CRegistry::SetupTree(true);
    EXPECT_TRUE(InOrder(
        Trace(),
        {"CRegistry: WARNING: The length of \"/etc/orvmon/registry\" is not sufficient\n",
         "CRegistry: WARNING: Could not restore tree from \"/etc/orvmon/registry\", trying backup\n",
         "CRegistry: WARNING: Node restoring from \"/etc/orvmon/registry.old\" failed - check the "
         "content of this file\n",
         "trying default\n", "CRegistry: WARNING: Could not open \"/etc/orvmon/registry\"\n",
         "restoring failed\n"}));

    // A root key that the file lacks has no node, and operations on it fail.
    WriteFile(kRegistryPath, "[HKEY_LOCAL_MACHINE]\n\nHKEY_USERS=s=a value\n");
    CRegistry::SetupTree(true);
    EXPECT_EQ(CRegistry().Open("", HKEY_USERS), -1);
    EXPECT_EQ(CRegistry().CreateKey(HKEY_USERS, "x"), -1);
}

TEST_F(RegistryTest, LoadThatLacksMemoryLosesNothing) {
    const std::string machine = "a=s=1\nlong=s=" + std::string(900, 'x') + "\n";
    g_failsOnce = true;
    bool isWhole = false;
    for (int allocations = 0; !isWhole; ++allocations) {
        WriteFile(kRegistryPath, FileWith(machine));
        g_allocations = allocations;
        CRegistry::SetupTree(true);
        isWhole = g_allocations.exchange(-1) >= 0;  // none failed
        { CRegistry(HKEY_LOCAL_MACHINE).SetValue("a", "2"); }
        EXPECT_TRUE(Contains(ReadFile(kRegistryPath), "\nlong=s=xxx")) << allocations;
    }
    EXPECT_TRUE(Contains(ReadFile(kRegistryPath), "\na=s=2\n"));
}

TEST_F(RegistryTest, HostileFilesNeitherHangNorCrash) {
    constexpr int kDepth = 100'000;
    std::string deep;
    for (int i = 0; i < kDepth; ++i) deep += "[k]\n";
    Load(deep + "x=d=1\n" + std::string(kDepth, '\n'));
    CRegistry registry(HKEY_LOCAL_MACHINE);
    std::string path;
    for (int i = 0; i < kDepth; ++i) path += "k\\";
    EXPECT_EQ(registry.Open(path.c_str(), HKEY_LOCAL_MACHINE), 0);
    int32_t number = 0;
    EXPECT_EQ(registry.QueryValue(&number, "x"), 0);
    Debug.SetTraceTarget(kTargetNone);  // otherwise one record for each key
    EXPECT_EQ(CRegistry(HKEY_LOCAL_MACHINE).DeleteKey("k"), 0);
    EXPECT_EQ(registry.QueryValue(&number, "x"), 22);

    const std::string noise(5'000'000, '\xff');
    Load(noise + "\nc=b=" + std::string(5'000'000, '1') + "\nok=s=1\n");
    EXPECT_TRUE(Contains(Machine(), "\nok=s=1\n"));
    Debug.SetTraceTarget(kTargetRing);
    fs::remove(kRegistryPath);
    ASSERT_EQ(mkfifo(kRegistryPath.c_str(), 0600), 0);
    CRegistry::SetupTree(true);
    EXPECT_TRUE(Contains(Trace(), "Could not open \"/etc/orvmon/registry\"\n"));
}

}  // namespace
