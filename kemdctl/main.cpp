// kemdctl: the administrator's side of kemd. Its commands are the table in commands.h.
#include <exception>
#include <new>
#include <string>

#include "base/version.h"
#include "kemdctl/commands.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

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
        "Options may be anywhere; -- ends them. Exit status: 0 yes or done, 1 no (not\n"
        "there, findings), 2 an error, reported on standard error, 3 (status and\n"
        "modules) kemd does not run.\n");
}

int Run(CommandLine& line, ReportWriter& report) {
    if (line.Has("--version")) {
        Write(std::string("kemdctl ") + kPackageVersion + "\n");
        return kYes;
    }
    const std::string_view name = line.TakeCommand();
    for (const Command& command : kCommands) {
        const bool isIt = command.name == name || command.shortName == name;
        if (isIt && !name.empty()) return command.run(line, report);
    }
    if (name.empty() && line.Has("--help")) {
        WriteHelp();
        return kYes;
    }
    if (!name.empty()) Complain("unknown command %s", Printable(name).c_str());
    Complain(name.empty() ? "a command is missing; see kemdctl --help" : "see kemdctl --help");
    return kError;
}

int RunGuarded(CommandLine& line, ReportWriter& report) try {
    return Run(line, report);
} catch (const std::bad_alloc&) {
    Complain("there is not enough memory: the output is not whole");
    return kError;
} catch (const std::exception& error) {
    Complain("%s", error.what());
    return kError;
}

}  // namespace

int main(int argc, char** argv) try {
    PrepareStreams();
    CommandLine line(argc, argv);
    ReportWriter report(line.Has("--json"));
    const int result = RunGuarded(line, report);
    report.Finish(result);
    return FinishOutput() ? result : kError;
} catch (const std::bad_alloc&) {
    Complain("there is not enough memory");
    return kError;
}
