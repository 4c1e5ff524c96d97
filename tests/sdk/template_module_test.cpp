// The modules that were built outside of this tree, from the installed template.
#include "tests/daemon/daemon_test.h"
#include "tests/modules.h"

namespace {

TEST_F(DaemonTest, TemplateRunsHoweverItWasBuilt) {
    UseSwitch("reference");
    m_environment["OV_MODULE_DIR"] = kModules;
    WriteFile("/etc/orvmon/registry",
              "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n[kemd]\n[template]\nSeconds=d=3\n\n\n\n\n\n");
    for (const std::string tool : {"cmake", "make"}) {
        SCOPED_TRACE(tool);
        ClearModules();
        AddModule("/test/template/" + tool + "/module.so");
        const pid_t pid = Run();
        ASSERT_TRUE(WaitFor([this] { return Contains(Trace(), " template      round 1, "); }));
        EXPECT_EQ(Stop(pid), 0);
        EXPECT_TRUE(InOrder(Trace(), {"template      every 3 s\n", "module module.so started\n",
                                      "module module.so stopped\n", "## EXIT PROCESS"}));
    }
}

}  // namespace
