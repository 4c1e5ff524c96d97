// kemdctl: the administrator's side of kemd. What can be done is in the table.
#include <exception>
#include <new>
#include <string>

#include "daemon/version.h"
#include "kemdctl/check/check_command.h"
#include "kemdctl/inventory/inventory_command.h"
#include "kemdctl/prepare/prepare_command.h"
#include "kemdctl/registry/registry_command.h"
#include "kemdctl/status/status_command.h"
#include "kemdctl/trace/trace_command.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/text.h"

namespace {

struct Command {
    std::string_view name;
    const char* summary;
    int (*run)(CommandLine& line);
};
constexpr Command kCommands[] = {
    {"check", "look for what keeps kemd from working, and say what to do", RunCheck},
    {"inventory", "show the firmware's tables and which slot holds a PCI device", RunInventory},
    {"prepare", "keep a crash's trace, clean up; the service runs it before a start", RunPrepare},
    {"registry", "read, change, check and restore the suite's registry", RunRegistry},
    {"status", "show whether kemd runs, its lock, its trace and its modules", RunStatus},
    {"trace", "show the records of its trace files in one order", RunTrace},
};

void WriteHelp() {
    Write("usage: kemdctl COMMAND ...\n\n");
    for (const Command& command : kCommands) {
        const std::string blanks(12 - command.name.size(), ' ');
        Write("  " + std::string(command.name) + blanks + command.summary + "\n");
    }
    Write(
        "\n"
        "  --help      shows this, or the help of COMMAND\n"
        "  --version   shows the version\n"
        "  --json      results as JSON, where a command has them\n"
        "\n"
        "Options may stand anywhere; -- ends them. Exit status: 0 yes or done, 1 no (not\n"
        "there, findings), 2 an error, which is told on standard error, 3 (status only)\n"
        "kemd does not run.\n");
}

int Run(CommandLine& line) {
    if (line.Has("--version")) {
        Write(std::string("kemdctl ") + kPackageVersion + "\n");
        return kYes;
    }
    const std::string_view name = line.TakeCommand();
    for (const Command& command : kCommands) {
        if (command.name == name) return command.run(line);
    }
    if (name.empty() && line.Has("--help")) {
        WriteHelp();
        return kYes;
    }
    if (!name.empty()) Complain("unknown command %s", Printable(name).c_str());
    Complain("see kemdctl --help");
    return kError;
}

}  // namespace

int main(int argc, char** argv) try {
    PrepareStreams();
    CommandLine line(argc, argv);
    const int result = Run(line);
    return FinishOutput() ? result : kError;
} catch (const std::bad_alloc&) {
    Complain("there is not enough memory: the output is not whole");
    return kError;
} catch (const std::exception& error) {
    Complain("%s", error.what());
    return kError;
}
