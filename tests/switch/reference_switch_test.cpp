// The embedded switch library with good and bad modules.
#include <stdlib.h>

#include <filesystem>

#include "tests/switch/switch_test.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kModules = "/tmp/modules";

class ReferenceSwitchTest : public SwitchTest {
  protected:
    void SetUp() override {
        SwitchTest::SetUp();
        Install("/build/lib/libswitch.so");
        fs::remove_all(kModules);
        fs::create_directories(kModules);
        setenv("OV_MODULE_DIR", kModules, 1);
        ASSERT_TRUE(m_binding.Load());
    }

    static void AddModule(const std::string& path) { fs::copy(path, kModules); }
};

TEST_F(ReferenceSwitchTest, ModulesStartInOrderAndStopInReverse) {
    AddModule("/build/modules/notifications.so");
    AddModule("/build/modules/heartbeat.so");
    WriteFile("/tmp/modules/readme.so.txt", "no module");
    ModuleLoadParams params{0, kRunModeUpdate};
    ASSERT_TRUE(m_binding.LoadModules(&params));
    m_binding.pInterface->StartAllModules();
    m_binding.pInterface->StartAllModules();  // those that run are not started again
    m_binding.pInterface->NotifyModules(kNotifyStop, nullptr, 0);
    int32_t runLevel = 6;
    m_binding.pInterface->NotifyModules(kNotifyShutdown, &runLevel, 0);
    m_binding.pInterface->StopAllModules();
    EXPECT_TRUE(m_binding.UnloadModules(0));
    m_binding.Unload();
    EXPECT_TRUE(InOrder(
        Trace(), {"loading modules from /tmp/modules (run mode 8, rescan 0)\n",
                  "module heartbeat.so loaded\n", "module notifications.so loaded\n",
                  "module heartbeat.so started\n", "waiting for notifications\n",
                  "module notifications.so started\n", " notifications notification 0x20000\n",
                  "notification 0x30000, run level 6\n", "stopped\n",
                  "module notifications.so stopped\n", "module heartbeat.so stopped\n"}));
    EXPECT_FALSE(InOrder(Trace(), {"heartbeat.so started\n", "heartbeat.so started\n"}));
    EXPECT_FALSE(InOrder(Trace(), {"readme"}));
}

TEST_F(ReferenceSwitchTest, BadModulesAreNamedAndLeftOut) {
    for (const auto& module : fs::directory_iterator("/test/bad_modules"))
        fs::copy(module, kModules);
    AddModule("/build/modules/notifications.so");
    WriteFile("/tmp/modules/broken.so", "not a library");
    ModuleLoadParams params{};
    ASSERT_TRUE(m_binding.LoadModules(&params));
    m_binding.pInterface->StartAllModules();
    m_binding.pInterface->NotifyModules(kNotifyStop, nullptr, 0);
    m_binding.pInterface->StopAllModules();
    m_binding.Unload();
    EXPECT_TRUE(InOrder(
        Trace(),
        {"module bad_function.so is left out: start or stop is missing\n",
         "module bad_symbol.so is left out: it does not export kemdModule\n",
         "module bad_version.so is left out: its interface version is another\n",
         "module broken.so cannot be loaded: /tmp/modules/broken.so: ",
         "module bad_start.so failed to start: result 42\n",
         "module bad_throw.so failed to start: not today\n", "module notifications.so started\n",
         "notification 0x20000\n", "module notifications.so stopped\n"}));
    EXPECT_FALSE(InOrder(Trace(), {".so started\n", ".so started\n"}));
    EXPECT_FALSE(InOrder(Trace(), {".so stopped\n", ".so stopped\n"}));
}

TEST_F(ReferenceSwitchTest, OnlyARescanFindsNewModules) {
    AddModule("/build/modules/heartbeat.so");
    ModuleLoadParams params{};
    ASSERT_TRUE(m_binding.LoadModules(&params));
    AddModule("/build/modules/notifications.so");
    ASSERT_TRUE(m_binding.LoadModules(&params));
    EXPECT_FALSE(InOrder(Trace(), {"module notifications.so loaded\n"}));
    params.flags = kForceRescan;
    ASSERT_TRUE(m_binding.LoadModules(&params));
    EXPECT_TRUE(InOrder(Trace(), {"rescan 1)\n", "module notifications.so loaded\n"}));
    EXPECT_FALSE(InOrder(Trace(), {"heartbeat.so loaded\n", "heartbeat.so loaded\n"}));
}

TEST_F(ReferenceSwitchTest, DirectoryThatCannotBeReadFails) {
    fs::remove_all(kModules);
    ModuleLoadParams params{};
    EXPECT_FALSE(m_binding.LoadModules(&params));
    EXPECT_TRUE(InOrder(Trace(), {"cannot read the module directory /tmp/modules (No such file"}));
}

}  // namespace
