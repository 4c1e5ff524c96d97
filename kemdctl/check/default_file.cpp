#include <cerrno>

#include "base/file_io.h"
#include "base/paths.h"
#include "base/text.h"
#include "kemdctl/check/look_ups.h"
#include "kemdctl/check/path_findings.h"

namespace {

// As a shell counts quotes.
bool HasOpenQuote(std::string_view line) {
    char quote = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        const bool isQuote = c == '"' || c == '\'';
        if (c == '\\' && quote != '\'') {
            ++i;
        } else if (isQuote && (quote == 0 || quote == c)) {
            quote = quote == 0 ? c : '\0';
        }
    }
    return quote != 0;
}

std::string LineName(size_t number) {
    std::string name = kDefaultFile;
    name += ", line ";
    return name += std::to_string(number);
}

void CheckQuotes(Findings& findings) {
    const std::string text = ReadTextFile(kDefaultFile).value_or("");
    std::string_view rest = text;
    for (size_t number = 1; !rest.empty(); ++number) {
        const std::string_view line = TrimStart(TakeLine(rest));
        const bool isComment = line.starts_with('#') || line.starts_with(';');
        if (isComment || !HasOpenQuote(line)) continue;
        findings.Warning(LineName(number) +
                             ": a quote is not closed: the lines below may be taken for its value",
                         "close it on the same line");
    }
}

}  // namespace

void CheckDefaultFile(Findings& findings) {
    const std::string shown = kDefaultFile;
    Variables variables;
    const bool isRead = ReadDefaultFile(variables, [&](size_t line) {
        findings.Warning(LineName(line) + ": not NAME=value",
                         "correct or remove the line; no \"export\", no blanks around the =");
    });
    const int error = errno;
    if (!isRead && IsMasked(shown)) {
        return findings.Ok(shown + " is masked: it leads to /dev/null and sets no variable");
    }
    if (!isRead && (error == EINVAL || error == EISDIR)) {
        return findings.Error(shown + " is not a regular file: no variable is read from it",
                              "put a regular file in its place");
    }
    if (!isRead && error != ENOENT) return findings.CannotLook(shown, error);
    if (isRead) CheckQuotes(findings);
    // Whoever can write or create it chooses the library that kemd loads.
    const bool isSafe = CheckInRootsHands(findings, shown, true);
    if (!isRead) return findings.Ok(shown + " is not there, which is allowed");
    findings.Ok(shown + " is accepted, variables set: " + std::to_string(variables.size()) +
                (isSafe ? ", and safe" : ""));
}
