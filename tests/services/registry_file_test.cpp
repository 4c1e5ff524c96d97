// The registry's files: reading, writing, fallbacks, and hostile files.
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "base/file_io.h"
#include "tests/services/registry_world.h"

// While g_isRefusing, allocations of about this size fail.
static constexpr size_t kRefusedSize = 900;
static bool g_isRefusing = false;

void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept {
    const bool isRefused = g_isRefusing && size / 100 == kRefusedSize / 100;
    return isRefused ? nullptr : std::malloc(size);
}
void* operator new[](size_t size) {
    void* const memory = operator new[](size, std::nothrow);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, size_t /*size*/) noexcept {
    std::free(memory);
}

namespace {

namespace fs = std::filesystem;

TEST_F(RegistryTest, ReadsWhatItKnowsAndSkipsTheRest) {
    const std::string longName(1021, 'n');
    struct Case {
        std::string text;
        bool recognised;
        std::string tree;
    };
    std::vector<Case> cases = {
        {"s=s=a=s=b\ne=es=%X%\nd=d= -12xyz\nb=b=00 ab 1ff 0x5 zz 01\n", true,
         "b=b=00 ab ff 05 \nd=d=-12\ne=es=%X%\ns=s=a=s=b\n\n"},
        {"d=d=4294967295\nx=d=abc\nD=d=99999999999999999999\n", true, "D=d=-1\nd=d=-1\n\n"},
        {"noise\nx=q=1\nx=s\n=s=no name\n[x=s=1\n", true, "=s=no name\n[x=s=1\n\n"},
        {"noise\n", false, "\n"},
        {"\na=s=1\n", false, "\n"},
        {std::string("\0a=s=1\n", 7), false, "\n"},
        {std::string("a=s=1\0 2\n", 9), true, "a=s=1\n\n"},
        {"[k] behind\nx=d=1\n[l]\n\n\n\n[m]\n", true, "[k]\nx=d=1\n[l]\n\n\n\n"},
        {"[k]\nx=d=1\n[l]\ny=d=2", true, "[k]\nx=d=1\n[l]\ny=d=2\n\n\n\n"},
        // the last one of a name stays, whatever the first one was
        {"k=s=1\n[k]\na=d=1\n\n[k]\nb=d=2\n\nz=s=1\nz=d=2\n", true, "z=d=2\n[k]\nb=d=2\n\n\n"},
        // a line of more than 1,023 bytes is read as two; the rest of this one ends the key
        {longName + "=s\nb=s=1\n", false, "\n"},
        {longName.substr(4) + "=s=12\na=s=1\n", true, "a=s=1\n" + longName.substr(4) + "=s=12\n\n"},
    };
    // The last one of a name stays, however many there are.
    std::string many = "m=d=0\n";
    for (int i = 0; i < 40; ++i) many += "k=d=" + std::to_string(i) + "\n";
    cases.push_back({many + "b=d=1\n", true, "b=d=1\nk=d=39\nm=d=0\n\n"});
    for (const auto& [text, recognised, tree] : cases) {
        WriteFile("/tmp/file", text);
        const UniqueFd file = OpenRegularFile("/tmp/file", O_RDONLY);
        LineReader lines(file.Get());
        CRegistryNode node;
        EXPECT_EQ(ParseRegistry(lines, node), recognised ? 0 : ENODATA) << text;
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
    restore(nullptr, nullptr, nullptr);
    EXPECT_TRUE(InOrder(
        Trace(), {"ForceSetup=1, MIsSetup=1, MIsDirty=0\n",
                  "CRegistry: WARNING: Could not open \"/etc/orvmon/registry\"\n",
                  "trying backup\n", "trying default\n",
                  "CRegistry: ERROR: Could not restore tree from \"/etc/orvmon/registry.default\", "
                  "restoring failed\n"}));
    EXPECT_EQ(RestoreRegistryFile("", *RegistryKey(new CRegistryNode)), ENOENT);
    EXPECT_TRUE(Contains(Trace(), "CRegistry: ERROR: Empty file path\n"));

    // A root key that the file lacks has no node, and operations on it fail.
    WriteFile(kRegistryPath, "[HKEY_LOCAL_MACHINE]\n\nHKEY_USERS=s=a value\n");
    CRegistry::SetupTree(true);
    CRegistry users(HKEY_USERS);
    EXPECT_EQ(users.Open("", HKEY_USERS), -1);
    EXPECT_EQ(users.CreateKey(HKEY_USERS, "x"), -1);
    EXPECT_EQ(CRegistry("", HKEY_LOCAL_MACHINE).Status(), 0);
}

TEST_F(RegistryTest, ReadErrorLoadsNothingUntilTheNextUse) {
    WriteFile(kRegistryPath, FileWith("v=s=live\n"));
    WriteFile(kRegistryPath + ".old", FileWith("v=s=older\n"));
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    const rlimit none{0, files.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    CRegistry::SetupTree(true);
    { CRegistry(HKEY_LOCAL_MACHINE).SetValue("v", "lost"); }
    setrlimit(RLIMIT_NOFILE, &files);
    errno = 0;
    EXPECT_FALSE(CRegistry::SaveTree());
    EXPECT_EQ(errno, EMFILE);
    EXPECT_TRUE(InOrder(
        Trace(),
        {"CRegistry: WARNING: Could not open \"/etc/orvmon/registry\"\n",
         "CRegistry: ERROR: Cannot read \"/etc/orvmon/registry\": Too many open files; nothing is "
         "loaded\n",
         "MIsSetup=0, MIsDirty=0\n", "CRegistry: ERROR: Cannot save \"/etc/orvmon/registry\": "}));
    EXPECT_FALSE(Contains(Trace(), "trying backup"));
    EXPECT_EQ(ReadFile(kRegistryPath), FileWith("v=s=live\n"));
    std::string text;
    EXPECT_EQ(CRegistry(HKEY_LOCAL_MACHINE).QueryValue(&text, "v"), 0);
    EXPECT_EQ(text, "live");
}

TEST_F(RegistryTest, TreeWithoutALineForWantOfMemoryIsNeverSaved) {
    const std::string machine = "a=s=1\nlong=s=" + std::string(kRefusedSize, 'x') + "\n";
    g_isRefusing = true;
    Load(machine);
    g_isRefusing = false;
    CRegistry registry(HKEY_LOCAL_MACHINE);  // does not load the file again
    EXPECT_EQ(Machine(), "a=s=1\n\n");
    EXPECT_EQ(registry.SetValue("a", "2"), 0);
    EXPECT_FALSE(CRegistry::SaveTree());
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(ReadFile(kRegistryPath), FileWith(machine));
    CRegistry::SetupTree(true);
    CRegistry(HKEY_LOCAL_MACHINE).SetValue("a", "2");
    EXPECT_TRUE(Contains(ReadFile(kRegistryPath), "a=s=2\nlong=s=xxx"));
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
    Debug.SetTraceTarget(kTargetNone);  // otherwise one record for each key
    EXPECT_EQ(CRegistry(HKEY_LOCAL_MACHINE).DeleteKey("k"), 0);
    EXPECT_EQ(registry.QueryValue(&number, "x"), 22);

    const std::string noise(5'000'000, '\xff');
    Load(noise + "\nc=b=" + std::string(5'000'000, '1') + "\nok=s=1\n");
    EXPECT_TRUE(Contains(Machine(), "\nok=s=1\n"));
    Debug.SetTraceTarget(kTargetRing);
    for (int i = 0; i < 2; ++i) {
        fs::remove_all("/etc/orvmon");
        fs::create_directory("/etc/orvmon");
        ASSERT_EQ(i == 0 ? mkdir(kRegistryPath.c_str(), 0700) : mkfifo(kRegistryPath.c_str(), 0600),
                  0);
        CRegistry::SetupTree(true);
    }
    const std::string warning = "Could not open \"/etc/orvmon/registry\"\n";
    EXPECT_TRUE(InOrder(Trace(), {warning, warning}));
}

}  // namespace
