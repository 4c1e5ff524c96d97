// kemd-module-host: takes one extension module through load, start, notify, stop and unload as the
// daemon does, and reports what a daemon would see.
#include <getopt.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "base/file_safety.h"
#include "base/module_object.h"
#include "base/paths.h"
#include "base/process_setup.h"
#include "module_host/host_trace.h"
#include "module_host/isolated.h"
#include "module_host/walk.h"

namespace {

constexpr int kUsageStatus = 2;

constexpr const char* kHelp =
    "usage: kemd-module-host [OPTION...] MODULE.so\n"
    "Takes the module through load, configure, start, health, requests, notify, stop and unload in\n"
    "a process of its own that is prepared like the daemon, and reports what a daemon would see.\n"
    "Needs no privilege.\n"
    "\n"
    "  --settings FILE its settings (default /etc/kemd/modules.d/NAME.ini, as for the daemon)\n"
    "  --request TEXT  make this request while it runs; may be given several times\n"
    "  --seconds N     let it run this long between start and stop (default 1)\n"
    "  --timeout N     the most seconds that one call may take (default 10)\n"
    "  --reboot        notify it that the system reboots\n"
    "  --halt          notify it that the system halts\n"
    "  --trace LEVEL   show its trace records up to this level (0 to 6, default 6)\n"
    "  --help          this text\n"
    "\n"
    "Exit status: 0 clean, 1 findings, 2 wrong usage or no module.\n";

struct Arguments {
    WalkOptions walk;
    unsigned traceLevel = 6;
    const char* module = nullptr;
    bool help = false;
};

// A decimal number of at most `limit`.
bool ParseNumber(const char* text, unsigned limit, unsigned& number) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || value > limit) return false;
    number = static_cast<unsigned>(value);
    return true;
}

bool TakeOption(int option, Arguments& arguments) {
    constexpr unsigned kDay = 86400;
    switch (option) {
        case 's':
            return ParseNumber(optarg, kDay, arguments.walk.seconds);
        case 't':
            return ParseNumber(optarg, kDay, arguments.walk.timeout) && arguments.walk.timeout > 0;
        case 'l':
            return ParseNumber(optarg, 6, arguments.traceLevel);
        case 'c':
            arguments.walk.settings = optarg;
            return true;
        case 'q':
            arguments.walk.requests.emplace_back(optarg);
            return true;
        case 'r':
            arguments.walk.runLevel = 6;
            return true;
        case 'h':
            arguments.walk.runLevel = 0;
            return true;
        case '?':
            return false;
        default:
            return arguments.help = true;
    }
}

bool Parse(int argc, char** argv, Arguments& arguments) {
    constexpr std::array<option, 9> kOptions = {{
        {"settings", required_argument, nullptr, 'c'},
        {"request", required_argument, nullptr, 'q'},
        {"seconds", required_argument, nullptr, 's'},
        {"timeout", required_argument, nullptr, 't'},
        {"trace", required_argument, nullptr, 'l'},
        {"reboot", no_argument, nullptr, 'r'},
        {"halt", no_argument, nullptr, 'h'},
        {"help", no_argument, nullptr, 'H'},
        {nullptr, 0, nullptr, 0},
    }};
    for (int option = 0; (option = getopt_long(argc, argv, "", kOptions.data(), nullptr)) != -1;) {
        if (!TakeOption(option, arguments)) return false;
    }
    if (optind + 1 == argc) arguments.module = argv[optind];
    return arguments.help || arguments.module != nullptr;
}

int RunWalk(const char* module, WalkOptions& options) {
    const std::unique_ptr<char, decltype(&free)> path(realpath(module, nullptr), free);
    if (!path) {
        std::fprintf(stderr, "kemd-module-host: %s: %s\n", module, std::strerror(errno));
        return kUsageStatus;
    }
    const std::string unsafe = Unsafe(WalkPath(path.get()));
    if (!unsafe.empty()) std::fprintf(stderr, "note: a host would refuse it: %s\n", unsafe.c_str());
    if (options.settings.empty()) {
        const char* const fileName = std::strrchr(path.get(), '/') + 1;
        options.settings =
            std::string(kModuleSettingsDirectory) + "/" + ModuleName(fileName) + ".ini";
    }
    switch (WalkModule(path.get(), options)) {
        case WalkResult::kClean:
            return 0;
        case WalkResult::kFindings:
            return 1;
        default:
            return kUsageStatus;
    }
}

}  // namespace

int main(int argc, char** argv) {
    // For kemd alone, and so not in the help.
    // What may follow names the module, for those who list processes.
    if (argc >= 2 && std::strcmp(argv[1], "--isolated") == 0) ServeIsolated();
    OpenStandardDescriptors();
    IgnoreFileSizeLimit();
    Arguments arguments;
    if (!Parse(argc, argv, arguments)) {
        std::fputs("Try kemd-module-host --help.\n", stderr);
        return kUsageStatus;
    }
    if (arguments.help) return std::fputs(kHelp, stdout) < 0 ? 1 : 0;
    TraceToStandardError(arguments.traceLevel);
    try {
        return RunWalk(arguments.module, arguments.walk);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kemd-module-host: %s\n", error.what());
        return kUsageStatus;
    }
}
