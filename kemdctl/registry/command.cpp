#include "kemdctl/registry/command.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "kemdctl/commands.h"
#include "kemdctl/ui/text.h"

namespace {

void WriteHelp() {
    Write("usage: kemdctl registry SUBCOMMAND ...\n");
    for (const Subcommand& subcommand : kSubcommands) Write(subcommand.help);
    Write(R"(

Options may stand anywhere; -- ends them.
KEY has backslashes or slashes between its parts: HKEY_LOCAL_MACHINE/SOFTWARE.
Without KEY, list shows the root keys. VALUE may be empty.

The store is /etc/orvmon/registry. The modules of a running kemd keep a copy of
their own and may write over a change when they save next.
Exit status: 0 yes or done, 1 no (not there, findings), 2 error.
)");
}

int UsageError(std::string what, std::string_view word = "") {
    if (!word.empty()) what += " " + Printable(word);
    Complain("%s; see kemdctl registry --help", what.c_str());
    return kError;
}

}  // namespace

int RunRegistry(CommandLine& line, ReportWriter& report) {
    if (line.Has("--help")) {
        WriteHelp();
        return kYes;
    }
    const std::string_view name = line.TakeCommand();
    const auto* const found =
        std::find_if(std::begin(kSubcommands), std::end(kSubcommands),
                     [name](const Subcommand& subcommand) { return subcommand.name == name; });
    if (found == std::end(kSubcommands)) {
        return name.empty() ? UsageError("a subcommand is missing")
                            : UsageError("unknown subcommand", name);
    }
    if (!line.HasOnly(found->options)) return UsageError("these options do not fit", name);
    if (line.words.size() < found->minWords) return UsageError("too few words for", name);
    if (line.words.size() > found->maxWords) return UsageError("too many words for", name);
    return found->run(line, report);
}
