// The registry's file: what is read and written, where a tree comes from, and hostile files.
#include <sys/stat.h>

#include "services/base/regular_file.h"
#include "tests/services/registry_world.h"

namespace {

namespace fs = std::filesystem;

TEST_F(RegistryTest, ReadsWhatItKnowsAndSkipsTheRest) {
    const std::string longName(1021, 'n');
    const struct {
        std::string text;
        bool recognised;
        std::string tree;
    } cases[] = {
        {"s=s=a=s=b\ne=es=%X%\nd=d= -12xyz\nb=b=00 ab 1ff 0x5 zz 01\n", true,
         "b=b=00 ab ff 05 \nd=d=-12\ne=es=%X%\ns=s=a=s=b\n\n"},
        {"d=d=abc\n", true, "\n"},
        {"d=d=4294967295\nD=d=99999999999999999999\n", true, "D=d=-1\nd=d=-1\n\n"},
        {"noise\nx=q=1\nx=s\n=s=no name\n[x=s=1\n", true, "=s=no name\n[x=s=1\n\n"},
        {"noise\n", false, "\n"},
        {"\na=s=1\n", false, "\n"},
        {std::string("\0a=s=1\n", 7), false, "\n"},
        {std::string("a=s=1\0 2\n", 9), true, "a=s=1\n\n"},
        {"[k]\n\n", true, "[k]\n\n\n"},
        {"[k] behind\nx=d=1\n[l]\n\n\n\n[m]\n", true, "[k]\nx=d=1\n[l]\n\n\n\n"},
        {"[k]\nx=d=1\n[l]\ny=d=2", true, "[k]\nx=d=1\n[l]\ny=d=2\n\n\n\n"},
        // the last one of a name stays, whatever the first one was
        {"k=s=1\n[k]\na=d=1\n\n[k]\nb=d=2\n\nz=s=1\nz=d=2\n", true, "z=d=2\n[k]\nb=d=2\n\n\n"},
        // a line of more than 1,023 bytes is read as two; what is left of this one ends the key
        {longName + "=s\nb=s=1\n", false, "\n"},
        {longName.substr(4) + "=s=12\na=s=1\n", true, "a=s=1\n" + longName.substr(4) + "=s=12\n\n"},
    };
    for (const auto& [text, recognised, tree] : cases) {
        WriteFile("/tmp/file", text);
        const UniqueFd file = OpenRegularFile("/tmp/file", O_RDONLY);
        LineReader lines(file.Get());
        CRegistryNode node;
        EXPECT_EQ(ParseRegistry(lines, node), recognised) << text;
        EXPECT_EQ(Text(node), tree) << text;
    }
}

TEST_F(RegistryTest, FallsBackToThePreviousGenerationAndTheDefault) {
    const std::string usual = FileWith("");
    const auto restore = [](const char* live, const char* old, const char* factory) {
        const char* const contents[] = {live, old, factory};
        const char* const names[] = {"", ".old", ".default"};
        fs::remove_all("/etc/orvmon");
        fs::create_directories("/etc/orvmon");
        for (int i = 0; i < 3; ++i) {
            if (contents[i] != nullptr) WriteFile(kRegistryPath + names[i], contents[i]);
        }
        CRegistry::SetupTree(true);
    };
    restore("", "\nx", usual.c_str());
    EXPECT_TRUE(InOrder(
        Trace(),
        {"CRegistry: SetupTree(): ForceSetup=1, MIsSetup=",
         "CRegistry: WARNING: The length of \"/etc/orvmon/registry\" is not sufficient\n",
         "CRegistry: WARNING: Could not restore tree from \"/etc/orvmon/registry\", trying backup\n",
         "CRegistry: WARNING: Node restoring from \"/etc/orvmon/registry.old\" failed - check the "
         "content of this file\n",
         "CRegistry: WARNING: Could not restore tree from \"/etc/orvmon/registry.old\", trying "
         "default\n"}));
    restore(nullptr, usual.c_str(), nullptr);
    restore(nullptr, nullptr, nullptr);
    EXPECT_TRUE(
        InOrder(Trace(),
                {"trying default\n",
                 "CRegistry: WARNING: Could not open \"/etc/orvmon/registry\"\n", "trying backup\n",
                 "ForceSetup=1, MIsSetup=1, MIsDirty=0\n", "trying backup\n", "trying default\n",
                 "CRegistry: WARNING: Could not open \"/etc/orvmon/registry.default\"\n",
                 "CRegistry: ERROR: Could not restore tree from \"/etc/orvmon/registry.default\", "
                 "restoring failed\n"}));
    EXPECT_FALSE(RestoreRegistryFile("", *RegistryKey(new CRegistryNode)));
    EXPECT_TRUE(Contains(Trace(), "CRegistry: ERROR: Empty file path\n"));

    // A root key that the file lacks has no node, and what is asked of it fails.
    WriteFile(kRegistryPath, "[HKEY_LOCAL_MACHINE]\n\nHKEY_USERS=s=a value\n");
    CRegistry::SetupTree(true);
    CRegistry users(HKEY_USERS);
    EXPECT_FALSE(users.Key());
    EXPECT_EQ(users.Open("", HKEY_USERS), -1);
    EXPECT_EQ(users.CreateKey(HKEY_USERS, "x"), -1);
    EXPECT_EQ(CRegistry("", HKEY_LOCAL_MACHINE).Status(), 0);
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
    EXPECT_EQ(Machine().size(), deep.size() + 6 + kDepth + 1);
    Debug.SetTraceTarget(kTargetNone);  // one record for each of them otherwise
    EXPECT_EQ(CRegistry(HKEY_LOCAL_MACHINE).DeleteKey("k"), 0);
    EXPECT_EQ(registry.QueryValue(&number, "x"), 22);

    const std::string noise(5'000'000, '\xff');
    Load(noise + "\n" + "b=b=" + noise + "\nc=b=" + std::string(5'000'000, '1') + "\nok=s=1\n");
    EXPECT_TRUE(Contains(Machine(), "\nok=s=1\n"));
    Debug.SetTraceTarget(kTargetRing);
    for (int i = 0; i < 2; ++i) {
        fs::remove_all("/etc/orvmon");
        fs::create_directory("/etc/orvmon");
        ASSERT_EQ(i == 0 ? mkdir(kRegistryPath.c_str(), 0700) : mkfifo(kRegistryPath.c_str(), 0600),
                  0);
        CRegistry::SetupTree(true);
    }
    const std::string warning = "CRegistry: WARNING: Could not open \"/etc/orvmon/registry\"\n";
    EXPECT_TRUE(InOrder(Trace(), {warning, warning}));
}

}  // namespace
