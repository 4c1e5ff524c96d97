// The embedded switch library with good and bad modules.
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "tests/modules.h"
#include "tests/switch/switch_test.h"

namespace {

namespace fs = std::filesystem;

class ReferenceSwitchTest : public SwitchTest {
  protected:
    void SetUp() override {
        SwitchTest::SetUp();
        // The thread sanitizer makes one of its own beside the first; it is no module's.
        std::thread([] {}).join();
        Install("/build/lib/libswitch.so");
        ClearModules();
        setenv("OV_MODULE_DIR", kModules, 1);
        ASSERT_TRUE(m_binding.Load());
    }
};

TEST_F(ReferenceSwitchTest, ModulesStartInOrderAndStopInReverse) {
    AddModule("/build/modules/heartbeat.so");
    ASSERT_TRUE(m_binding.LoadModules(&m_params));
    AddModule("/build/modules/notifications.so");
    ASSERT_TRUE(m_binding.LoadModules(&m_params));  // finds nothing new: no rescan is asked for
    EXPECT_FALSE(Contains(Trace(), "notifications.so"));
    m_params.flags = kForceRescan;
    ASSERT_TRUE(m_binding.LoadModules(&m_params));
    m_binding.pInterface->StartAllModules();
    m_binding.pInterface->StartAllModules();  // those that run are not started again
    m_binding.pInterface->NotifyModules(kNotifyStop, nullptr, 0);
    int32_t runLevel = 6;
    m_binding.pInterface->NotifyModules(kNotifyShutdown, &runLevel, 0);
    m_binding.pInterface->StopAllModules();
    EXPECT_TRUE(m_binding.UnloadModules(0));
    EXPECT_TRUE(InOrder(
        Trace(),
        {"loading modules from /tmp/modules (run mode 8, rescan 0)\n", "heartbeat.so loaded\n",
         "loading modules from /tmp/modules (run mode 8, rescan 1)\n", "notifications.so loaded\n",
         "module heartbeat.so started\n", "module notifications.so started\n",
         " notifications notification 0x20000\n", "notification 0x30000, run level 6\n",
         "module notifications.so stopped\n", "module heartbeat.so stopped\n"}));
    for (const std::string text : {"heartbeat.so loaded\n", "heartbeat.so started\n"}) {
        EXPECT_FALSE(InOrder(Trace(), {text, text}));
    }
}

TEST_F(ReferenceSwitchTest, ModulesUseTheHostServices) {
    AddModule("/build/modules/counter.so");
    WriteFile("/etc/orvmon/registry", "[HKEY_LOCAL_MACHINE]\n\n");
    WriteFile("/etc/orvmon/counter.ini", "[Counter]\nOrders = 2\n");
    ASSERT_TRUE(m_binding.LoadModules(&m_params));
    for (int i = 0; i < 2; ++i) {
        m_binding.pInterface->StartAllModules();
        ASSERT_TRUE(
            WaitFor([i] { return Contains(Trace(), i == 0 ? "order 2\n" : "number 2\n"); }));
        m_binding.pInterface->StopAllModules();
    }
    EXPECT_TRUE(m_binding.UnloadModules(0));
    EXPECT_EQ(ReadFile("/etc/orvmon/registry"),
              "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n[kemd]\n[counter]\nStarts=d=2\n\n\n\n\n\n");
    EXPECT_TRUE(InOrder(Trace(), {" counter       start number 1\n", "order 1\n", "order 2\n",
                                  "module counter.so stopped\n", "start number 2\n"}));
}

TEST_F(ReferenceSwitchTest, BadModulesAreNamedAndLeftOut) {
    for (const auto& module : fs::directory_iterator("/test/bad_modules")) AddModule(module.path());
    AddModule("/build/modules/notifications.so");
    fs::create_symlink("notifications.so", "/tmp/modules/second_name.so");
    WriteFile("/tmp/modules/broken.so", "not a library");
    MakeSafe("/tmp/modules/broken.so");
    ASSERT_TRUE(m_binding.LoadModules(&m_params));
    m_binding.pInterface->StartAllModules();
    m_binding.pInterface->NotifyModules(kNotifyStop, nullptr, 0);
    m_binding.pInterface->StopAllModules();
    EXPECT_TRUE(InOrder(
        Trace(),
        {"module bad_function.so is left out: start or stop is missing\n",
         "module bad_init.so cannot be loaded: not even loaded\n",
         "module bad_symbol.so is left out: it does not export kemdModule\n",
         "module bad_version.so is left out: its interface version is another\n",
         "module broken.so cannot be loaded: /tmp/modules/broken.so: ",
         "module second_name.so is left out: it is loaded under another name\n",
         "module bad_start.so failed to start: result 42\n",
         "module bad_throw.so failed to start: not today\n", "module notifications.so started\n",
         "notification 0x20000\n", "module notifications.so stopped\n"}));
    for (const std::string text : {".so started\n", ".so stopped\n"}) {
        EXPECT_FALSE(InOrder(Trace(), {text, text}));
    }
    fs::remove_all("/tmp/modules");
    m_params.flags = kForceRescan;
    EXPECT_FALSE(m_binding.LoadModules(&m_params));
    EXPECT_TRUE(Contains(Trace(), "cannot read the module directory /tmp/modules (No such file"));
}

TEST_F(ReferenceSwitchTest, ModulesThatOthersMayWriteAreLeftOut) {
    const auto mode = [](const std::string& path, int bits) {
        fs::permissions(path, static_cast<fs::perms>(bits));
    };
    AddModule("/build/modules/heartbeat.so");
    mode("/tmp/modules/heartbeat.so", 0664);
    AddModule("/build/modules/notifications.so");
    if (chown("/tmp/modules/notifications.so", 1000, 0) == 0) {  // a user namespace may lack it
        ASSERT_TRUE(m_binding.LoadModules(&m_params));
        EXPECT_TRUE(Contains(Trace(),
                             "module notifications.so is left out: /tmp/modules/notifications.so "
                             "may be written by others than root: owner 1000, mode 0755; wanted: "
                             "owner 0, mode 0644 or 0755\n"));
    }
    // A safe file behind a link into a directory that is none.
    fs::create_directories("/tmp/open");
    fs::rename("/tmp/modules/notifications.so", "/tmp/open/notifications.so");
    (void)!chown("/tmp/open/notifications.so", 0, 0);
    mode("/tmp/open", 0777);
    fs::create_symlink("/tmp/open/notifications.so", "/tmp/modules/link.so");
    m_params.flags = kForceRescan;
    ASSERT_TRUE(m_binding.LoadModules(&m_params));
    EXPECT_TRUE(InOrder(Trace(), {"module heartbeat.so is left out: ", "heartbeat.so may be ",
                                  "owner 0, mode 0664; wanted: owner 0, mode 0644 or 0755\n",
                                  "module link.so is left out: /tmp/open may be written by others "
                                  "than root: owner 0, mode 0777; wanted: owner 0, mode 0755\n"}));
    mode("/tmp/modules", 0775);
    EXPECT_FALSE(m_binding.LoadModules(&m_params));
    EXPECT_TRUE(Contains(Trace(), "no module is loaded: /tmp/modules may be written by others"));
    mode("/tmp/modules", 0755);
    mode("/tmp", 0777);
    EXPECT_FALSE(m_binding.LoadModules(&m_params));
    EXPECT_TRUE(Contains(Trace(), "no module is loaded: /tmp may be written by others"));
    EXPECT_FALSE(Contains(Trace(), ".so loaded\n"));
    // Where nobody can move what is root's, it may lie.
    mode("/tmp", 01777);
    AddModule("/build/modules/heartbeat.so");
    EXPECT_TRUE(m_binding.LoadModules(&m_params));
    EXPECT_TRUE(Contains(Trace(), "module heartbeat.so loaded\n"));
    mode("/tmp", 0755);
    fs::remove_all("/tmp/open");
}

}  // namespace
