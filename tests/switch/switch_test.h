// A fixture with an unloaded binding and one switch library at a time on the loader's search path.
#pragma once

#include <filesystem>
#include <string>

#include "switch/switch_binding.h"
#include "tests/traced_test.h"

class SwitchTest : public TracedTest {
  protected:
    void SetUp() override {
        TracedTest::SetUp();
        for (const char* file : {"/tmp/calls", "/tmp/script", "/tmp/switch/libswitch.so"}) {
            std::filesystem::remove(file);
        }
    }
    void TearDown() override {
        m_binding.CloseLibrary();
        TracedTest::TearDown();
    }

    static void Install(const std::string& library) {
        std::filesystem::copy_file(library, "/tmp/switch/libswitch.so");
    }
    static std::string Calls() { return ReadFile("/tmp/calls"); }

    SwitchBinding m_binding{};
};
