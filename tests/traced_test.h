// A fixture for tests that read what the code under test traces: tracing of the test process itself
// is on, at level 5, into a ring buffer that starts empty in each test.
#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/world.h"
#include "trace/debug.h"

class TracedTest : public testing::Test {
  protected:
    void SetUp() override {
        ConfigureTrace(5);
        std::filesystem::create_directories("/var/log/orvmon");
        ASSERT_TRUE(Debug.Init("kemd"));
    }
    void TearDown() override { Debug.Close(); }

    static std::string Trace() { return RingText("/var/log/orvmon/log.kemd_i"); }
};
