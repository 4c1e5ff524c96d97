#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/file_io.h"
#include "base/paths.h"
#include "kemdctl/check/look_ups.h"
#include "kemdctl/check/path_findings.h"
#include "kemdctl/ui/text.h"
#include "trace/config_file.h"

namespace {

constexpr const char* kModule = "kemd";
constexpr const char* kGlobalSection = "GlobalDebugSettings";
constexpr const char* kGlobalName = "global_trace.ini";

// The text of a file that the daemon accepts; otherwise a finding says why it does not.
std::optional<std::string> Accept(Findings& findings, const std::string& path) {
    auto text = ReadConfigFile(path.c_str());
    if (text) return text;
    if (IsMasked(path)) {
        findings.Ok(Printable(path) + " is masked: it leads to /dev/null and is ignored");
        return std::nullopt;
    }
    const bool isRegular = OpenRegularFile(path.c_str(), O_RDONLY).IsOpen();
    const int error = errno;
    const std::string shown = Printable(path) + " is ignored: ";
    if (!isRegular && (error == EACCES || error == EPERM)) {
        findings.CannotLook(path, error);
    } else if (!isRegular) {
        const bool isSpecial = error == EINVAL || error == EISDIR;
        findings.Error(shown + (isSpecial ? "not a regular file" : std::strerror(error)),
                       "put a regular file in its place, or remove the name " + ShellQuoted(path));
    } else {
        findings.Error(shown + "its last section is not [EndOfFile]",
                       "write [EndOfFile] as its last line");
    }
    return std::nullopt;
}

void CheckGlobalFile(Findings& findings, const std::string& path, const std::string& text) {
    if (const auto section = FindConfigSection(text, kGlobalSection)) {
        CheckTraceSection(findings, path, *section, true);
    } else {
        findings.Warning(Printable(path) + " has no section [GlobalDebugSettings]",
                         "add it, with DynamicUpdate = 0 or more, or remove the file");
    }
}

// Takes the files in the daemon's order. `supplier` is the file that supplied the module's section.
void CheckFile(Findings& findings, const std::string& name, std::string& supplier) {
    const std::string path = std::string(kTraceConfigDirectory) + "/" + name;
    const std::string shown = Printable(path);
    const auto text = Accept(findings, path);
    // Whoever can write it chooses the directory that kemd writes into.
    (void)CheckInRootsHands(findings, path, true);
    if (!text) return;
    if (name == kGlobalName) CheckGlobalFile(findings, path, *text);
    const auto section = FindConfigSection(*text, kModule);
    if (!section) {
        findings.Ok(shown + " is accepted" +
                    (name == kGlobalName ? "" : ", it has no section [kemd]"));
    } else if (supplier.empty()) {
        supplier = shown;
        findings.Ok(shown + " is accepted and supplies the section [kemd]");
        CheckTraceSection(findings, path, *section, false);
    } else {
        findings.Warning(
            "the section [kemd] of " + shown + " is ignored: " + supplier + " comes first",
            "keep one of them; a name counts when it holds \".ini\" anywhere");
    }
}

}  // namespace

void CheckTraceConfig(Findings& findings, const DaemonFacts& daemon) {
    const std::string directory = kTraceConfigDirectory;
    const auto names = ListConfigFiles();
    const int error = errno;
    if (!names && error == ENOENT) {
        findings.Ok(directory + " is not there: variables and defaults apply");
    } else if (!names && error == ENOTDIR) {
        findings.Error(directory + " is not a directory",
                       "remove it and install the package again");
    } else if (!names) {
        findings.CannotLook(directory, error);
    } else if (names->empty()) {
        findings.Error(directory +
                           " holds no .ini file: kemd would read nothing, not even its "
                           "variables, and write its log to /log.kemd",
                       "put a kemd.ini with the lines [kemd] and [EndOfFile] there, or remove the "
                       "directory");
    }
    std::string supplier;
    if (names) {
        for (const std::string& name : *names) CheckFile(findings, name, supplier);
    }
    CheckDefaultFile(findings);
    CheckTraceLimits(findings, daemon.environment, TraceSettings(daemon.environment));
}
