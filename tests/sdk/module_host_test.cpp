// The real kemd-module-host with modules that behave and modules that do not.
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "tests/world.h"

namespace {

struct HostResult {
    int status;
    std::string report;
    std::string trace;
};

HostResult RunHost(const std::string& arguments) {
    const std::string command =
        "/build/bin/kemd-module-host " + arguments + " >/tmp/out 2>/tmp/err";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile("/tmp/out"),
            ReadFile("/tmp/err")};
}

TEST(ModuleHost, WalksAGoodModuleThroughItsLife) {
    const auto result = RunHost("--seconds 0 --reboot /build/modules/notifications.so");
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(InOrder(result.report, {"load ", "start ", "running ", " ms  0x20000\n",
                                        " ms  0x30000, reboot\n", "stop ", "unload ", "clean\n"}));
    EXPECT_TRUE(InOrder(result.trace, {"notifications notification 0x20000\n",
                                       "notification 0x30000, run level 6\n", "stopped\n"}));
}

TEST(ModuleHost, NamesWhatIsWrong) {
    const struct {
        std::string module;
        std::vector<std::string> findings;
    } cases[] = {
        {"fails", {"start failed with result 7"}},
        {"throws", {"exception out of start: not today"}},
        {"late-stop", {" ended only ", " ms after stop returned\n", "unload "}},
        {"hangs-stop", {"stop has not returned within 1 s\n"}},
        {"forks", {"stop ", "process left behind: ", " (kemd-module-hos)\n"}},
        {"leaks", {"(leaked) is left after stop: the module stays in memory\n"}},
        {"mask", {"start ", "unblocked in the calling thread: SIGTERM\n", "stop "}},
        {"cancels", {"the calling thread was cancelled or ended itself in start\n", "1 finding\n"}},
        {"closes", {"unload ", "descriptor of the host closed or replaced: ", " (/dev/null)\n"}},
        {"shows",
         {"load ", "symbol KemdTraceOn of the module is replaced by the daemon's: build it with -f",
          "symbol FindProcessByName(int&, char const*) of the module is replaced", "start ",
          "\n2 findings\n"}},
        {"dies", {"died by signal 11 (Segmentation fault) in start\n"}},
        {"exits", {"the module ended the process with status 3 in start\n"}},
        {"leaves", {"the module ended the process with status 4 in start\n"}},
        {"changes",
         {"start ", "no longer ignored: SIGPIPE\n",
          "handler installed, but only the daemon takes: SIGALRM\n",
          "file mode mask changed from 0026 to 0000\n", "working directory changed to /tmp\n",
          "stop ", "descriptor left open: ", " (/etc)\n"}},
    };
    for (auto [module, findings] : cases) {
        const std::string kind = module == "shows" ? "shows.so" : "any.so";
        std::filesystem::copy("/test/misbehaving/" + kind, "/tmp/" + module + ".so");
        const std::string timeout = module == "hangs-stop" ? "--timeout 1 " : "";
        const auto result = RunHost("--seconds 0 " + timeout + "/tmp/" + module + ".so");
        EXPECT_EQ(result.status, 1) << module;
        EXPECT_TRUE(InOrder(result.report, findings)) << module << '\n' << result.report;
    }
}

TEST(ModuleHost, RefusesWhatIsNoModule) {
    WriteFile("/tmp/cut.so", ReadFile("/build/modules/heartbeat.so").substr(0, 4096));
    mkfifo("/tmp/pipe.so", 0600);
    for (const std::string arguments :
         {"", "/nowhere.so", "/tmp/cut.so", "/tmp/pipe.so", "/test/bad_modules/bad_symbol.so",
          "/test/bad_modules/bad_newer.so", "/build/bin/kemd a b",
          "--timeout 0 /build/modules/heartbeat.so"}) {
        const auto result = RunHost(arguments);
        EXPECT_EQ(result.status, 2) << arguments;
        EXPECT_TRUE(result.report.empty() && !result.trace.empty()) << arguments;
    }
}

}  // namespace
