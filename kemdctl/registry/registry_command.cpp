#include "kemdctl/registry/registry_command.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string>

#include "kemdctl/commands.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

struct Subcommand {
    std::string_view name;
    size_t minWords;
    size_t maxWords;
    std::array<std::string_view, 2> options;
    int (*run)(const CommandLine& line);
};
constexpr Subcommand kSubcommands[] = {
    {"get", 2, 2, {"--json", "--expand"}, RegistryGet},
    {"list", 0, 1, {"--json", "-r"}, RegistryList},
    {"set", 4, 4, {}, RegistrySet},
    {"delete", 1, 2, {}, RegistryDelete},
    {"export", 0, 1, {}, RegistryExport},
    {"import", 1, 1, {"--force"}, RegistryImport},
    {"check", 1, 1, {"--json"}, RegistryCheck},
    {"restore", 0, 0, {"--default"}, RegistryRestore},
};

constexpr const char* kHelp =
    R"(usage: kemdctl registry SUBCOMMAND ...

  get [--expand] KEY VALUE   prints a value's data; --expand replaces %NAME%
  list [-r] [KEY]            shows subkeys and values; -r: and all below
  set KEY VALUE TYPE DATA    stores a value and makes missing keys; TYPE is
                             string, expand, number or binary (hex digits)
  delete KEY [VALUE]         deletes a value, or a key with all below it
  export [FILE]              writes the store as a registry file
  import [--force] FILE|-    replaces the root keys that FILE has; a file with
                             findings only with --force
  check FILE                 says what in a file is skipped or misread
  restore [--default]        makes registry.old, or registry.default, the store

--json with get, list and check. Options may stand anywhere; -- ends them.
KEY has backslashes or slashes between its parts: HKEY_LOCAL_MACHINE/SOFTWARE.
Without KEY, list shows the root keys. VALUE may be empty.

The store is /etc/orvmon/registry. The modules of a running kemd keep a copy of
their own and may write over a change when they save next.
Exit status: 0 yes or done, 1 no (not there, findings), 2 error.
)";

int UsageError(std::string what, std::string_view word = "") {
    if (!word.empty()) what += " " + Printable(word);
    Complain("%s; see kemdctl registry --help", what.c_str());
    return kError;
}

}  // namespace

int RunRegistry(CommandLine& line, ReportWriter& report) {
    report.SetJson(false);  // its JSON is still its own
    if (line.Has("--help")) {
        Write(kHelp);
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
    return found->run(line);
}
