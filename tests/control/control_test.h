// A fixture with the switch library that ships and two modules, of which user needs base.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "switch/switch_binding.h"
#include "tests/control/control_client.h"
#include "tests/modules.h"
#include "tests/traced_test.h"

namespace fs = std::filesystem;

class ControlTest : public TracedTest {
  protected:
    void SetUp() override {
        TracedTest::SetUp();
        std::thread([] {}).join();  // the thread sanitizer makes one of its own beside the first
        fs::copy("/build/lib/libswitch.so", "/tmp/switch/libswitch.so",
                 fs::copy_options::overwrite_existing);
        ClearModules();
        fs::remove_all("/etc/kemd");
        fs::remove("/tmp/fail");
        (void)mkfifo("/tmp/hang", 0600);
        setenv("OV_MODULE_DIR", kModules, 1);
        for (const char* const name : {"base", "user"}) {
            AddModule(std::string("/test/control/") + name + ".so");
        }
    }
    void TearDown() override {
        if (m_binding.pInterface != nullptr) (void)End();
        TracedTest::TearDown();
    }
    void Begin() {
        ASSERT_TRUE(m_binding.Load());
        ASSERT_TRUE(m_binding.LoadModules(&m_params));
        m_binding.pInterface->StartAllModules();
    }
    // Whether all modules were unloaded.
    bool End() {
        m_binding.pInterface->StopAllModules();
        const bool isUnloaded = m_binding.UnloadModules(0);
        m_binding.Unload();
        return isUnloaded;
    }
    static void Settings(const std::string& name, const std::string& text) {
        const std::string file = "/etc/kemd/" + name;
        WriteFile(file, text);
        for (const std::string& path :
             {std::string("/etc/kemd"), fs::path(file).parent_path().string(), file}) {
            ASSERT_EQ(chmod(path.c_str(), 0755), 0);
        }
    }
    // Lets one call or thread that hangs go on.
    static void Release() { close(open("/tmp/hang", O_WRONLY | O_CLOEXEC)); }
    static bool IsMapped(const std::string& name) {
        return Contains(ReadFile("/proc/self/maps"), "/" + name + ".so");
    }
    static std::string ModeOf(const char* path) {
        struct stat status {};
        if (lstat(path, &status) != 0) return "none";
        char text[32];
        std::snprintf(text, sizeof text, "%o group %u", status.st_mode, status.st_gid);
        return text;
    }

    SwitchBinding m_binding{};
    ModuleLoadParams m_params{kForceRescan, kRunModeNormal};
};
