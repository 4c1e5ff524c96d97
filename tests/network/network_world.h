// A network name space of its own for each test, in which ip makes what is needed.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "network/view.h"
#include "tests/world.h"

// Lines of commands for ip; false when one of them failed.
inline bool Ip(const std::string& commands) {
    WriteFile("/tmp/commands", commands + "\n");
    return std::system("/usr/sbin/ip -batch /tmp/commands >/tmp/ip.out 2>&1") == 0;
}

// The last are about the file of tun and tap, which an ordinary user may not open.
inline bool IsLacking(const std::string& fault) {
    for (const char* text : {"not supported", "Unknown device type", "open: ", "not permitted"}) {
        if (Contains(fault, text)) return true;
    }
    return false;
}

// The kernel may lack the kind; then the case is not run, and says so. Any other fault fails.
#define IP_OR_SKIP(commands)                                       \
    if (!Ip(commands)) {                                           \
        const std::string fault = ReadFile("/tmp/ip.out");         \
        ASSERT_TRUE(IsLacking(fault)) << fault;                    \
        GTEST_SKIP() << "not run, cannot be made here: " << fault; \
    }

class NetworkTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        ASSERT_TRUE(Ip("link")) << ReadFile("/tmp/ip.out");
    }

    static NetworkView Take(uint32_t parts = KEMD_NETWORK_ALL, int nameSpace = KEMD_NETWORK_HERE) {
        std::string error;
        auto view = NetworkView::Take(parts, error, nameSpace);
        EXPECT_TRUE(view) << error;
        return view ? std::move(*view) : NetworkView(nullptr);
    }
    static UniqueFd NameSpace() {
        return UniqueFd(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    }
};
