// A fixture with an unloaded binding and one switch library at a time on the loader's search path.
#pragma once

#include <string>

#include "switch/switch_binding.h"
#include "tests/traced_test.h"

class SwitchTest : public TracedTest {
  protected:
    void TearDown() override {
        m_binding.CloseLibrary();
        for (const char* file : {"/tmp/calls", "/tmp/script"}) std::filesystem::remove(file);
        TracedTest::TearDown();
    }

    // Empty: there is none.
    static void Install(const std::string& library) {
        std::filesystem::remove("/tmp/switch/libswitch.so");
        if (!library.empty()) std::filesystem::copy(library, "/tmp/switch/libswitch.so");
    }

    SwitchBinding m_binding{};
    ModuleLoadParams m_params{2, kRunModeUpdate};
};
