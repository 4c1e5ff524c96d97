// Modules of version 2 in the switch library that ships: names, settings, order.
#include <sys/stat.h>

#include <filesystem>

#include "base/module_object.h"
#include "tests/modules.h"
#include "tests/switch/switch_test.h"

namespace {

namespace fs = std::filesystem;

class Version2Test : public SwitchTest {
  protected:
    void SetUp() override {
        SwitchTest::SetUp();
        Install("/build/lib/libswitch.so");
        ClearModules();
        fs::remove_all("/etc/kemd");
        setenv("OV_MODULE_DIR", kModules, 1);
        ASSERT_TRUE(m_binding.Load());
    }
    static void Add(const std::string& name) { AddModule("/test/version2/" + name + ".so"); }
    static void Settings(const std::string& name, const std::string& text) {
        const std::string file = "/etc/kemd/modules.d/" + name + ".ini";
        fs::create_directories("/etc/kemd/modules.d");
        WriteFile(file, text);
        ASSERT_EQ(chmod("/etc/kemd", 0755) + chmod("/etc/kemd/modules.d", 0755) +
                      chmod(file.c_str(), 0644),
                  0);
    }
    // Whether all modules could be unloaded again.
    bool LoadAndStart() {
        EXPECT_TRUE(m_binding.LoadModules(&m_params));
        m_binding.pInterface->StartAllModules();
        m_binding.pInterface->NotifyModules(kNotifyStop, nullptr, 0);
        m_binding.pInterface->StopAllModules();
        return m_binding.UnloadModules(0);
    }
};

TEST_F(Version2Test, ModulesStartAfterThoseThatTheyNeedAndStopBefore) {
    for (const char* const name : {"alpha", "beta", "lost", "loop1", "loop2"}) Add(name);
    fs::copy("/test/version2/beta.so", "/tmp/modules/gamma.so");
    MakeSafe("/tmp/modules/gamma.so");
    EXPECT_TRUE(LoadAndStart());
    EXPECT_TRUE(InOrder(Trace(), {" beta          interval 5000 ms\n", " beta          start\n",
                                  "module beta.so started\n", " alpha         start\n",
                                  " alpha         notify 20000 none\n", " alpha         stop\n",
                                  "module alpha.so stopped\n", " beta          stop\n"}));
    for (const std::string text :
         {"gamma.so is left out: its name is beta: its file must be called beta.so",
          "lost.so is not started: it needs a module that does not run: nobody",
          "loop1.so is not started: it needs a module that does not run: loop2",
          "loop2.so is not started: it needs a module that does not run: loop1"}) {
        EXPECT_TRUE(Contains(Trace(), "module " + text + "\n")) << text;
    }
}

TEST_F(Version2Test, SettingsAreReadBeforeTheStart) {
    const struct {
        const char* settings;
        const char* trace;
        bool starts;
    } cases[] = {
        {"[Settings]\nInterval = 1m ; the longest\n", "interval 60000 ms\n", true},
        {"[Settings]\nInterval = 1500 ms\n", "interval 1500 ms\n", true},
        {"[Settings]\nInterval =\n", "interval 5000 ms\n", true},
        {"[Module]\nEnabled = on\n", "module beta.so started\n", true},
        {"[Module]\nEnabled = No\n", "module beta.so is disabled: /etc/kemd/modules.d/beta.ini\n",
         false},
        {"[Module]\nEnabled = perhaps\n",
         "module beta.so is left out: /etc/kemd/modules.d/beta.ini: [Module] Enabled is neither yes nor no\n",
         false},
        {"[Settings]\nInterval = soon\n",
         " beta          /etc/kemd/modules.d/beta.ini: [Settings] Interval = soon: a time from 1000 "
         "ms to 60000 ms is needed (units ms, s, m, h, d); the default is used\n",
         false},
        {"[Settings]\nInterval = 2m\n", "module beta.so refused its settings: result 34\n", false},
    };
    for (const auto& [settings, trace, starts] : cases) {
        ClearModules();
        Add("beta");
        Settings("beta", settings);
        const size_t before = Trace().size();
        (void)LoadAndStart();
        const std::string written = Trace().substr(before);
        EXPECT_TRUE(Contains(written, trace)) << settings << written;
        EXPECT_EQ(Contains(written, "beta          start\n"), starts) << settings;
    }
}

TEST_F(Version2Test, SettingsThatOthersMayWriteAreRefused) {
    Add("beta");
    Settings("beta", "[Module]\nEnabled = yes\n");
    ASSERT_EQ(chmod("/etc/kemd/modules.d/beta.ini", 0666), 0);
    EXPECT_TRUE(LoadAndStart());
    EXPECT_TRUE(Contains(Trace(),
                         "module beta.so is left out: /etc/kemd/modules.d/beta.ini may be "
                         "written by others than root"));
    fs::remove("/etc/kemd/modules.d/beta.ini");
    ASSERT_EQ(mkfifo("/etc/kemd/modules.d/beta.ini", 0600), 0);
    EXPECT_TRUE(LoadAndStart());
    EXPECT_TRUE(Contains(Trace(), "/etc/kemd/modules.d/beta.ini: Invalid argument\n"));
}

TEST(ModuleObject, NewerAndOlderObjectsAreTakenAsFarAsTheyAreKnown) {
    struct {
        KemdModuleV2 known{};
        void* later = nullptr;
    } newer;
    newer.known = {KEMD_MODULE_VERSION_2,
                   sizeof newer,
                   "a-1_B",
                   "2.0",
                   nullptr,
                   nullptr,
                   nullptr,
                   nullptr,
                   nullptr,
                   nullptr,
                   nullptr,
                   nullptr,
                   nullptr};
    ModuleObject object;
    EXPECT_EQ(object.Take(&newer, "a-1_B.so"), "");
    EXPECT_STREQ(object.Version(), "2.0");
    EXPECT_EQ(object.Start(), 0);
    object.Stop();
    EXPECT_EQ(*object.StartAfter(), nullptr);
    newer.known.size = sizeof(KemdModuleV2) - 8;
    EXPECT_EQ(object.Take(&newer, "a-1_B.so"), "its kemdModule is too small for its version");
    newer.known.size = sizeof newer;
    const std::string longName(64, 'n');
    for (const char* const name : {"", "a b", "../a", longName.c_str()}) {
        newer.known.name = name;
        EXPECT_TRUE(object.Take(&newer, name + std::string(".so")).starts_with("its name is not"));
    }
}

}  // namespace
