// kemd-module-host with a module of version 2: settings, health and requests.
#include <cstdlib>
#include <string>

#include "tests/world.h"

namespace {

// What the host reports of a module that runs with these settings.
std::string Report(const std::string& settings, const std::string& options, int status) {
    WriteFile("/tmp/settings.ini", "[Settings]\n" + settings);
    const std::string command =
        "/build/bin/kemd-module-host --seconds 0 --settings /tmp/settings.ini " + options +
        " /test/version2/beta.so >/tmp/out 2>/tmp/err";
    EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), status) << ReadFile("/tmp/out");
    return ReadFile("/tmp/out") + ReadFile("/tmp/err");
}

TEST(ModuleHostVersion2, EachCallIsMadeAndJudged) {
    const std::string sound = Report("Interval = 1500ms\n", "--request hello --request 'a b'", 0);
    EXPECT_TRUE(InOrder(
        sound, {"load ", "configure ", "start ", "running ", "health ", " ok\n", "request ",
                " you said hello\n", " you said a b\n", "notify ", "stop ", "unload ", "clean\n"}));
    EXPECT_TRUE(Contains(Report("", "", 0), " warning: interval is 5000 ms\n"));
    EXPECT_TRUE(Contains(Report("Interval = 1m\n", "", 1), "! health has failed\n"));
    EXPECT_TRUE(
        Contains(Report("", "--request fill", 1), "! request \"fill\" failed: Message too long\n"));
    const std::string refused = Report("Interval = 1ms\n", "", 1);
    EXPECT_TRUE(InOrder(refused, {"configure ", "! it refused its settings with result 34",
                                  "1 finding", "/tmp/settings.ini: [Settings] Interval = 1ms: "}));
    EXPECT_FALSE(Contains(refused, "start "));
}

}  // namespace
