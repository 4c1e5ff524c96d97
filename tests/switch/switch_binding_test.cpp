#include "switch/switch_binding.h"

#include <elf.h>
#include <sys/stat.h>

#include "base/library_search.h"
#include "tests/switch/switch_test.h"

namespace {

bool IsClosed(const SwitchBinding& binding) {
    return binding.pfnAddRef == nullptr && binding.pfnRelease == nullptr &&
           binding.pfnQueryInterface == nullptr && binding.hLibrary == nullptr &&
           binding.pInterface == nullptr;
}

// Opening it would end the process with SIGBUS. The loader skips a file for another machine, and a
// file that everyone may write is opened.
TEST_F(SwitchTest, CutLibraryIsNotOpened) {
    const std::string path = "/tmp/switch/libswitch.so";
    const std::string library = ReadFile("/test/switches/c/libswitch.so");
    std::string other = library;
    other[EI_CLASS] = ELFCLASS32;
    WriteFile("/tmp/first/libswitch.so", other.substr(0, 4096));
    Install("");
    WriteFile(path, library.substr(0, 4096));
    EXPECT_FALSE(m_binding.Load());
    EXPECT_TRUE(Contains(Trace(), "LoadLibrary: ## ERROR:  " + path + ": cut off after 4096 byt"));
    EXPECT_TRUE(IsClosed(m_binding));
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
    EXPECT_TRUE(IsClosed(m_binding));
    EXPECT_EQ(ReadFile("/tmp/calls"),
              "SW_QueryInterface identifier=0\nLoadModules flags=2 mode=8\n"
              "LoadModules flags=2 mode=8\nUnloadModules options=7\nSW_Release\n");
    EXPECT_TRUE(InOrder(Trace(), {"SWITCH API          : Loading modules, force rescan = 3\n",
                                  "SWITCH API          : Unloading modules...\n"}));
    EXPECT_FALSE(Contains(Trace(), "FAILED"));
}

TEST_F(SwitchTest, WithoutAnInterfaceNothingIsCalled) {
    Install("/build/modules/notifications.so");  // a library without any of the entry points
    EXPECT_FALSE(m_binding.Load());
    EXPECT_NE(m_binding.hLibrary, nullptr);
    m_binding.CloseLibrary();
    Install("/test/switches/c/libswitch.so");
    WriteFile("/tmp/script", "fail-query");
    EXPECT_FALSE(m_binding.Load() || m_binding.LoadModules(&m_params));
    EXPECT_FALSE(m_binding.UnloadModules(0));
    EXPECT_EQ(ReadFile("/tmp/calls"), "SW_QueryInterface identifier=0\n");
    EXPECT_TRUE(InOrder(Trace(), {"SWITCH API          : ## ERROR! Loading modules FAILED!\n",
                                  "SWITCH API          : ## ERROR! Unloading modules FAILED!\n"}));
    // The library that is open is asked again.
    Install("");
    WriteFile("/tmp/script", "");
    EXPECT_TRUE(m_binding.Load());
    m_binding.CloseLibrary();
    EXPECT_TRUE(IsClosed(m_binding));
    Install("/test/switches/bare/libswitch.so");  // only the query is required
    EXPECT_TRUE(m_binding.Load());
    EXPECT_EQ(m_binding.pfnRelease, nullptr);
    m_binding.Unload();
}

}  // namespace
