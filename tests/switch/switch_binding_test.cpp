#include "switch/switch_binding.h"

#include <elf.h>
#include <sys/stat.h>

#include <cerrno>

#include "base/library_search.h"
#include "tests/switch/switch_test.h"

namespace {

void ExpectClosed(const SwitchBinding& binding) {
    EXPECT_TRUE(binding.pfnAddRef == nullptr && binding.pfnRelease == nullptr &&
                binding.pfnQueryInterface == nullptr && binding.hLibrary == nullptr &&
                binding.pInterface == nullptr);
}

TEST_F(SwitchTest, MissingLibraryKeepsTheReason) {
    Install("");
    EXPECT_FALSE(m_binding.Load());
    EXPECT_EQ(m_binding.lastError, ENOENT);
    ExpectClosed(m_binding);
    EXPECT_TRUE(Contains(Trace(), "LoadLibrary: ## ERROR:  libswitch.so: cannot open shared obj"));
}

// The loader would end the process with SIGBUS. A file that the loader skips is no reason, and who
// may write the file does not matter.
TEST_F(SwitchTest, CutLibraryIsNotOpened) {
    const std::string path = "/tmp/switch/libswitch.so";
    const std::string library = ReadFile("/test/switches/c/libswitch.so");
    std::string other = library;
    other[EI_CLASS] = ELFCLASS32;
    WriteFile("/tmp/first/libswitch.so", other.substr(0, 4096));
    Install("");
    WriteFile(path, library.substr(0, 4096));
    EXPECT_FALSE(m_binding.Load());
    EXPECT_TRUE(InOrder(Trace(), {"LoadLibrary: ## ERROR:  " + path + ": cut off after 4096 byt"}));
    ExpectClosed(m_binding);
    Install("");
    mkfifo(path.c_str(), 0666);
    EXPECT_FALSE(m_binding.Load());
    EXPECT_TRUE(InOrder(Trace(), {"LoadLibrary: ## ERROR:  " + path + ": no regular file\n"}));
    Install("");
    WriteFile(path, library);
    chmod(path.c_str(), 0666);
    EXPECT_TRUE(m_binding.Load());
    std::filesystem::remove("/tmp/first/libswitch.so");
    // A cache of unknown format comes before the default directories.
    WriteFile("/etc/ld.so.cache", "of another format");
    const LibraryPlace first = FindLibrary("libc.so.6", nullptr).front();
    EXPECT_EQ(first.path + first.reason, "the loader's cache");
    std::filesystem::remove("/etc/ld.so.cache");
}

TEST_F(SwitchTest, CallsGoThroughAndEndWithOneRelease) {
    Install("/test/switches/c/libswitch.so");
    ASSERT_TRUE(m_binding.Load());
    EXPECT_TRUE(m_binding.LoadModules(&m_params));
    WriteFile("/tmp/script", "fail-load");
    EXPECT_FALSE(m_binding.LoadModules(&m_params));  // not traced as a failure
    EXPECT_TRUE(m_binding.UnloadModules(7));
    m_binding.Unload();
    ExpectClosed(m_binding);
    EXPECT_EQ(ReadFile("/tmp/calls"),
              "SW_QueryInterface identifier=0\nLoadModules flags=2 mode=8\n"
              "LoadModules flags=2 mode=8\nUnloadModules options=7\nSW_Release\n");
    EXPECT_TRUE(InOrder(Trace(), {"SWITCH API          : Loading modules, force rescan = 3\n",
                                  "SWITCH API          : Unloading modules...\n"}));
    EXPECT_FALSE(Contains(Trace(), "FAILED"));
}

TEST_F(SwitchTest, WithoutAnInterfaceNothingIsCalled) {
    Install("/test/switches/c/libswitch.so");
    WriteFile("/tmp/script", "fail-query");
    EXPECT_FALSE(m_binding.Load());
    void* const library = m_binding.hLibrary;
    EXPECT_NE(library, nullptr);
    EXPECT_EQ(m_binding.pInterface, nullptr);
    EXPECT_FALSE(m_binding.LoadModules(&m_params) || m_binding.UnloadModules(0));
    EXPECT_EQ(ReadFile("/tmp/calls"), "SW_QueryInterface identifier=0\n");
    EXPECT_TRUE(InOrder(Trace(), {"SWITCH API          : ## ERROR! Loading modules FAILED!\n",
                                  "SWITCH API          : ## ERROR! Unloading modules FAILED!\n"}));
    EXPECT_FALSE(Contains(Trace(), "Exception"));
    // The library that is open is asked again.
    Install("");
    WriteFile("/tmp/script", "");
    m_binding.pfnRelease = nullptr;
    EXPECT_TRUE(m_binding.Load());
    EXPECT_EQ(m_binding.hLibrary, library);
    EXPECT_NE(m_binding.pfnRelease, nullptr);
    m_binding.CloseLibrary();
    ExpectClosed(m_binding);
}

TEST_F(SwitchTest, OnlyTheQueryIsRequired) {
    Install("/test/switches/bare/libswitch.so");
    EXPECT_TRUE(m_binding.Load());
    EXPECT_EQ(m_binding.pfnRelease, nullptr);
    m_binding.Unload();
    Install("/build/modules/notifications.so");  // a library without any of the entry points
    EXPECT_FALSE(m_binding.Load());
    EXPECT_NE(m_binding.hLibrary, nullptr);
}

TEST_F(SwitchTest, ExceptionsBecomeFalse) {
    Install("/test/switches/throwing/libswitch.so");
    ASSERT_TRUE(m_binding.Load());
    for (const char* script : {"load unload", "load unload odd"}) {
        WriteFile("/tmp/script", script);
        EXPECT_FALSE(m_binding.LoadModules(&m_params)) << script;
        EXPECT_FALSE(m_binding.UnloadModules(0)) << script;
    }
    const std::string load = "SWITCH DLL - Exception during LoadModules\n";
    const std::string unload = "SWITCH DLL - Exception during UnloadModules\n";
    EXPECT_TRUE(InOrder(Trace(), {load, "Loading modules FAILED!\n", unload,
                                  "Unloading modules FAILED!\n", load, unload}));
    WriteFile("/tmp/script", "SW_Release");
    m_binding.Unload();
    ExpectClosed(m_binding);
    WriteFile("/tmp/script", "query");
    EXPECT_FALSE(m_binding.Load());
    EXPECT_TRUE(InOrder(Trace(), {"SWITCH DLL - Exception during SW_Release\n",
                                  "SWITCH DLL - Exception during SW_QueryInterface\n"}));
}

}  // namespace
