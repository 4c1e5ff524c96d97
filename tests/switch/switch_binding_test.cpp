#include "switch/switch_binding.h"

#include <cerrno>

#include "tests/switch/switch_test.h"

namespace {

constexpr const char* kCSwitch = "/test/switches/c/libswitch.so";

void ExpectClosed(const SwitchBinding& binding) {
    EXPECT_EQ(binding.pfnAddRef, nullptr);
    EXPECT_EQ(binding.pfnRelease, nullptr);
    EXPECT_EQ(binding.pfnQueryInterface, nullptr);
    EXPECT_EQ(binding.hLibrary, nullptr);
    EXPECT_EQ(binding.pInterface, nullptr);
}

TEST_F(SwitchTest, MissingLibraryKeepsTheReason) {
    EXPECT_FALSE(m_binding.Load());
    EXPECT_EQ(m_binding.lastError, ENOENT);
    ExpectClosed(m_binding);
    EXPECT_TRUE(
        InOrder(Trace(), {"LoadLibrary: ## ERROR:  libswitch.so: cannot open shared object"}));
}

TEST_F(SwitchTest, CallsGoThroughAndEndWithOneRelease) {
    Install(kCSwitch);
    ModuleLoadParams params{2, kRunModeUpdate};
    ASSERT_TRUE(m_binding.Load());
    EXPECT_TRUE(m_binding.LoadModules(&params));
    EXPECT_TRUE(m_binding.UnloadModules(7));
    m_binding.Unload();
    ExpectClosed(m_binding);
    EXPECT_EQ(Calls(),
              "SW_QueryInterface identifier=0\nLoadModules flags=2 mode=8\n"
              "UnloadModules options=7\nSW_Release\n");
    EXPECT_TRUE(InOrder(Trace(), {"SWITCH API          : Loading modules, force rescan = 3\n",
                                  "SWITCH API          : Unloading modules...\n"}));
    EXPECT_FALSE(InOrder(Trace(), {"FAILED"}));
}

TEST_F(SwitchTest, FalseFromTheLibraryIsPassedOnWithoutAText) {
    Install(kCSwitch);
    WriteFile("/tmp/script", "fail-load");
    ModuleLoadParams params{};
    ASSERT_TRUE(m_binding.Load());
    EXPECT_FALSE(m_binding.LoadModules(&params));
    EXPECT_TRUE(InOrder(Trace(), {"Loading modules, force rescan = 1\n"}));
    EXPECT_FALSE(InOrder(Trace(), {"FAILED"}));
}

TEST_F(SwitchTest, WithoutAnInterfaceNothingIsCalled) {
    Install(kCSwitch);
    WriteFile("/tmp/script", "fail-query");
    ModuleLoadParams params{};
    EXPECT_FALSE(m_binding.Load());
    EXPECT_NE(m_binding.hLibrary, nullptr);
    EXPECT_EQ(m_binding.pInterface, nullptr);
    EXPECT_FALSE(m_binding.LoadModules(&params));
    EXPECT_FALSE(m_binding.UnloadModules(0));
    m_binding.CloseLibrary();
    ExpectClosed(m_binding);
    EXPECT_EQ(Calls(), "SW_QueryInterface identifier=0\n");
    EXPECT_TRUE(InOrder(Trace(), {"SWITCH API          : ## ERROR! Loading modules FAILED!\n",
                                  "SWITCH API          : ## ERROR! Unloading modules FAILED!\n"}));
    EXPECT_FALSE(InOrder(Trace(), {"Exception"}));
}

TEST_F(SwitchTest, OpenLibraryIsAskedAnew) {
    Install(kCSwitch);
    ASSERT_TRUE(m_binding.Load());
    const SwitchBinding first = m_binding;
    std::filesystem::remove("/tmp/switch/libswitch.so");
    m_binding.pInterface = nullptr;
    m_binding.pfnRelease = nullptr;
    EXPECT_TRUE(m_binding.Load());
    EXPECT_EQ(m_binding.hLibrary, first.hLibrary);
    EXPECT_EQ(m_binding.pInterface, first.pInterface);
    EXPECT_EQ(m_binding.pfnRelease, first.pfnRelease);
    EXPECT_EQ(Calls(), "SW_QueryInterface identifier=0\nSW_QueryInterface identifier=0\n");
}

TEST_F(SwitchTest, OnlyTheQueryIsIndispensable) {
    Install("/test/switches/bare/libswitch.so");
    EXPECT_TRUE(m_binding.Load());
    EXPECT_EQ(m_binding.pfnRelease, nullptr);
    m_binding.Unload();
    ExpectClosed(m_binding);

    std::filesystem::remove("/tmp/switch/libswitch.so");
    Install("/build/modules/notifications.so");  // a library without any of the entry points
    EXPECT_FALSE(m_binding.Load());
    EXPECT_NE(m_binding.hLibrary, nullptr);
}

TEST_F(SwitchTest, ExceptionsBecomeFalse) {
    Install("/test/switches/throwing/libswitch.so");
    ModuleLoadParams params{};
    ASSERT_TRUE(m_binding.Load());
    for (const char* script : {"load unload", "load unload odd"}) {
        WriteFile("/tmp/script", script);
        EXPECT_FALSE(m_binding.LoadModules(&params)) << script;
        EXPECT_FALSE(m_binding.UnloadModules(0)) << script;
    }
    const std::string load = "SWITCH DLL - Exception during LoadModules\n";
    const std::string unload = "SWITCH DLL - Exception during UnloadModules\n";
    EXPECT_TRUE(InOrder(Trace(), {load, "Loading modules FAILED!\n", unload,
                                  "Unloading modules FAILED!\n", load, unload}));
}

}  // namespace
