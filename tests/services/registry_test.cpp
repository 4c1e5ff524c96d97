// The operations of the cursor: result codes and changes to the tree.
#include <cstdlib>
#include <functional>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/services/registry_world.h"

namespace {

using namespace std::string_literals;

std::string Read(const char* name, CRegistry& registry) {
    std::string text = "untouched";
    EXPECT_EQ(registry.QueryValue(&text, name), 0) << name;
    return text;
}

TEST_F(RegistryTest, PathsSplitAtBackslashesFirst) {
    Load("[A]\n[B]\nx=s=1\n\n[a/b]\ny=s=2\n\n\nv=s=3\n\n");
    const std::tuple<const char*, int32_t, const char*> cases[] = {
        {"HKEY_LOCAL_MACHINE\\A\\B\\", 0, "HKEY_LOCAL_MACHINE/A/B/"},
        {"HKEY_LOCAL_MACHINE/A/B", 0, "HKEY_LOCAL_MACHINE/A/B"},
        {"HKEY_LOCAL_MACHINE/A\\B", -1, ""},
        {"HKEY_LOCAL_MACHINE\\A\\a/b\\", 0, "HKEY_LOCAL_MACHINE/A/a/b/"},
        {"HKEY_LOCAL_MACHINE\\A\\v", -1, ""},
        {"", 0, ""},
        {nullptr, -1, ""}};
    CRegistry registry;
    for (const auto& [path, result, kept] : cases) {
        EXPECT_EQ(registry.Open(path), result) << path;
        EXPECT_EQ(registry.Path(), kept);
    }
    EXPECT_EQ(registry.Open("B", CRegistry("A", HKEY_LOCAL_MACHINE).Key()), 0);
    EXPECT_EQ(Read("x", registry), "1");
    EXPECT_TRUE(Contains(Trace(), "CRegistry::Open \"HKEY_LOCAL_MACHINE/A/B\", hKey = 0\n"));
}

TEST_F(RegistryTest, CreatesAndDeletesKeys) {
    Load("v=s=3\n");
    CRegistry registry;
    EXPECT_EQ(registry.CreateKey(nullptr, "A"), -1);
    EXPECT_EQ(registry.CreateKey(HKEY_LOCAL_MACHINE, "v\\A"), -1);
    EXPECT_EQ(registry.CreateKey(HKEY_LOCAL_MACHINE, "A\\B/C"), 0);
    EXPECT_EQ(registry.SetValue("n", 7), 0);
    EXPECT_EQ(registry.CreateKey(HKEY_LOCAL_MACHINE, "A"), 0);
    EXPECT_EQ(registry.CreateKey(nullptr, "D\\"), 0);
    EXPECT_EQ(Machine(), "v=s=3\n[A]\n[B]\n[C]\nn=d=7\n\n\n[D]\n\n\n\n");

    CRegistry machine(HKEY_LOCAL_MACHINE);
    CRegistry inside("A\\B\\C", HKEY_LOCAL_MACHINE);
    EXPECT_EQ(machine.DeleteKey("v"), 22);
    EXPECT_EQ(machine.DeleteKey("A"), 0);
    EXPECT_EQ(machine.DeleteValue("none"), 0);  // as if it had been there
    EXPECT_EQ(machine.DeleteValue("v"), 0);
    EXPECT_EQ(Machine(), "\n");
    // A cursor inside a deleted key has no key open.
    int32_t number = 0;
    EXPECT_EQ(inside.QueryValue(&number, "n"), 22);
    EXPECT_EQ(inside.SetValue("n", 1), 22);
    EXPECT_EQ(inside.CreateKey(nullptr, "x"), -1);
    EXPECT_TRUE(InOrder(Trace(), {"CRegistry::SetValue \"n\" 4 4\n", "deleteNode \"C\"\n"}));
}

TEST_F(RegistryTest, RootKeysComeBackEmptyWhenTheyAreDeleted) {
    Load("[A]\n\n");
    CRegistry root;
    ASSERT_EQ(root.Open(""), 0);
    EXPECT_EQ(root.DeleteKey("HKEY_LOCAL_MACHINE"), 0);
    CRegistry next(HKEY_LOCAL_MACHINE);
    EXPECT_EQ(Machine(), "\n");
    EXPECT_EQ(next.CreateKey(nullptr, "B"), 0);
    EXPECT_EQ(CRegistry("HKEY_LOCAL_MACHINE\\B", nullptr).Status(), 0);
    // The handle refers to a root key that was created again.
    EXPECT_EQ(root.DeleteKey("HKEY_USERS"), 0);
    EXPECT_EQ(next.CreateKey(root.Key(), "HKEY_USERS\\C"), 0);
    EXPECT_EQ(CRegistry(HKEY_USERS).SetValue("v", 1), 0);
    EXPECT_TRUE(Contains(ReadFile(kRegistryPath), "[HKEY_USERS]\nv=d=1\n[C]\n"));
}

TEST_F(RegistryTest, SetsAndReadsValuesOfEachType) {
    Load("[sub]\nx=d=1\n\n");
    CRegistry registry(HKEY_LOCAL_MACHINE);
    const int32_t number = -5;
    const std::tuple<const char*, const void*, uint32_t, uint32_t, bool> cases[] = {
        {"d", &number, 4, 4, true},     {"d2", &number, 3, 4, false},
        {"s", "text", 4, 1, true},      {"e", "%U%/%%%V%%", 10, 2, true},
        {"b", "\0\xab", 2, 3, true},    {"none", "x", 1, 5, false},
        {"none", nullptr, 1, 1, false}, {"null", nullptr, 0, 1, true},
        {"cut", "a\0b", 3, 1, true},    {"sub", "text", 4, 1, true}};
    for (const auto& [name, data, size, type, result] : cases) {
        EXPECT_EQ(registry.SetValue(name, data, size, type), result) << name;
    }
    EXPECT_EQ(Machine(),
              "b=b=00 ab \ncut=s=a\nd=d=-5\ne=es=%U%/%%%V%%\nnull=s=\n"
              "s=s=text\nsub=s=text\n\n");

    int32_t out = 0;
    std::vector<uint8_t> bytes;
    EXPECT_EQ(registry.QueryValue(&out, "d"), 0);
    EXPECT_EQ(out, -5);
    EXPECT_EQ(registry.QueryValue(&bytes, "b"), 0);
    EXPECT_EQ(bytes, (std::vector<uint8_t>{0, 0xab}));
    EXPECT_EQ(registry.QueryValue(&out, "s"), 61);
    setenv("U", "/home", 1);
    unsetenv("V");
    EXPECT_EQ(Read("e", registry), "/home/%%");  // the last one has no partner
    registry.SetExpand(false);
    EXPECT_EQ(Read("e", registry), "%U%/%%%V%%");
}

TEST_F(RegistryTest, TextFitsItsBufferOrIsCut) {
    Load("s=s=12345\n");
    CRegistry registry(HKEY_LOCAL_MACHINE);
    for (const auto& [size, result, out] : {std::tuple{0U, 34, "#######"s},
                                            {3U, 34, "123####"s},
                                            {5U, 34, "12345##"s},
                                            {6U, 0, "12345\0#"s}}) {
        std::string buffer(7, '#');
        EXPECT_EQ(registry.QueryValue(buffer.data(), "s", size), result) << size;
        EXPECT_EQ(buffer, out);
        buffer = "#######";
        uint32_t count = size;
        EXPECT_EQ(registry.QueryValue(buffer.data(), "s", &count), result) << size;
        EXPECT_EQ(buffer, out);
        EXPECT_EQ(count, result == 0 ? 5 : size);
    }
}

// Results, names and data of EnumValue from index 0 up to the first index that is absent.
std::string Enumerate(CRegistry& registry, uint32_t filter) {
    std::string all;
    for (uint32_t index = 0;; ++index) {
        char name[4];
        char data[6] = "-----";
        uint32_t length = sizeof name;
        uint32_t size = sizeof data;
        const int32_t result = registry.EnumValue(name, &length, index, filter, data, &size);
        if (result == 61) return all;
        all.append(std::to_string(result)).append(name, length).append(" ");
        all.append(std::to_string(size)).append(data, 1).append(";");
    }
}

TEST_F(RegistryTest, EnumeratesInOrderOfTheNames) {
    Load("num=d=65\nbin=b=01\nb=s=long text\na=es=x\n[z]\n\n[longer]\n\n[B]\n\n");
    CRegistry registry(HKEY_LOCAL_MACHINE);
    std::vector<std::string> keys;
    char name[5];
    for (uint32_t i = 0; registry.EnumKey(name, sizeof name, i) == 0; ++i) keys.emplace_back(name);
    EXPECT_EQ(keys, (std::vector<std::string>{"B", "long", "z"}));
    EXPECT_EQ(Enumerate(registry, 999), "0a 1x;34b 6l;0bin 0-;0num 4A;0 0-;");
    EXPECT_EQ(Enumerate(registry, 1), "34b 6l;");
    EXPECT_EQ(Enumerate(registry, 0), "0 0-;");
    // An enumeration sees changes made meanwhile.
    EXPECT_EQ(registry.EnumKey(name, sizeof name, 0), 0);
    EXPECT_EQ(registry.DeleteKey("B"), 0);
    EXPECT_EQ(registry.EnumKey(name, sizeof name, 1), 0);
    EXPECT_STREQ(name, "z");
}

TEST_F(RegistryTest, PointersLeadToOtherKeys) {
    setenv("WHERE", "target", 1);
    Load(
        "[SYSTEM]\n[CurrentControlSet]\n[Control]\n[UUID]\n[7C41E0B8-93D5-4F6A-A2C7-5E18D90B64F3]\n"
        "id=s=4711\np=s=hkey_local_machine\\pointers\nn=d=1\n\n\n\n\n\n"
        "[pointers]\na=s=Hkey_Local_Machine/%WHERE%\nb=es=hkey_local_machine/%WHERE%\n"
        "c=s=HKEY_LOCAL_MACHINE\nd=s=\ne=d=1\nf=s=hkey_users\\none\n\n[target]\nx=s=found\n\n");
    CRegistry registry;
    for (const char* name : {"a", "b", "c", "d", "e", "f", "none"}) {
        const int32_t result = *name == 'b' ? 0 : -1;
        EXPECT_EQ(registry.OpenPointer("pointers", name, HKEY_LOCAL_MACHINE), result) << name;
    }
    EXPECT_EQ(registry.OpenPointer("pointers", "b", HKEY_LOCAL_MACHINE), 0);
    EXPECT_EQ(Read("x", registry), "found");
    EXPECT_EQ(registry.OpenPointer("p", HKEY_LOCAL_MACHINE), 0);
    EXPECT_EQ(registry.Path(), "HKEY_LOCAL_MACHINE/pointers");
    std::string text;
    EXPECT_TRUE(CRegistry::ReadIdentifierValue(text, "id") && text == "4711");
    EXPECT_FALSE(CRegistry::ReadIdentifierValue(text, "n"));
}

void RunThreads(const std::function<void(int thread, int round)>& run) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&run, i] {
            for (int round = 0; round < 120; ++round) run(i, round);
        });
    }
    for (std::thread& thread : threads) thread.join();
}

TEST_F(RegistryTest, EveryThreadsLastChangeReachesTheDisk) {
    Load("");
    RunThreads([](int thread, int round) {
        CRegistry registry;
        registry.CreateKey(HKEY_LOCAL_MACHINE, ("a\\b\\" + std::to_string(thread)).c_str());
        registry.SetValue("n", round);
        if (round % 2 == 0) registry.DeleteValue("n");
    });
    EXPECT_EQ(ReadFile(kRegistryPath),
              FileWith("[a]\n[b]\n[0]\nn=d=119\n\n[1]\nn=d=119\n\n[2]\nn=d=119\n\n\n\n"));
}

TEST_F(RegistryTest, ThreadsShareOneTreeThatIsLoadedAgain) {
    Load("[shared]\n\n");
    RunThreads([](int i, int round) {
        const std::string own = "own" + std::to_string(i);
        CRegistry shared("shared", HKEY_LOCAL_MACHINE);
        shared.SetValue(own.c_str(), round);
        int32_t number = round;
        // Loading again may remove the key or the value at any time.
        const int32_t result = shared.QueryValue(&number, own.c_str());
        EXPECT_TRUE(result == 0 || result == 22 || result == 61) << result;
        EXPECT_EQ(number, round);
        char name[16];
        for (uint32_t k = 0; shared.EnumKey(name, sizeof name, k) == 0; ++k) continue;
        shared.CreateKey(nullptr, own.c_str());
        if (i == 0 && round % 16 == 0) CRegistry::SetupTree(true);
    });
    EXPECT_EQ(CRegistry("shared", HKEY_LOCAL_MACHINE).Status(), 0);
}

}  // namespace
