#include "kemdctl/check/path_findings.h"

#include <sys/sysmacros.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "base/file_safety.h"
#include "kemdctl/ui/text.h"

namespace {

// A device, a pipe or a socket, which the caller reports as not a file. Advice to change the owner
// or mode of a device would do harm: the name that leads there is wrong.
bool IsSpecial(const struct stat& status) {
    return !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode);
}

void AddFaults(Findings& findings, const PathReport& report) {
    for (const auto& [path, status] : report.faults) {
        if (IsSpecial(status)) continue;
        const std::string shown = Printable(path);
        const std::string name = ShellQuoted(path);
        const bool isLink = S_ISLNK(status.st_mode);
        if (status.st_uid != 0) {
            findings.Error(shown + " belongs to user " + std::to_string(status.st_uid),
                           (isLink ? "chown -h root:root " : "chown root:root ") + name);
        }
        if (!isLink && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
            findings.Error(shown + " may be written by others than root", "chmod go-w " + name);
        }
    }
}

std::string OwnerAndMode(const struct stat& status) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "owner %u, mode %04o", status.st_uid,
                  status.st_mode & 07777U);
    return text.data();
}

}  // namespace

bool IsMasked(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISCHR(status.st_mode) &&
           status.st_rdev == makedev(1, 3);
}

bool CheckDirectory(Findings& findings, const std::string& path, bool isShared) {
    const PathReport report = WalkPath(path, isShared);
    const std::string shown = Printable(path);
    const std::string make = "install -d -m 755 " + ShellQuoted(report.resolved);
    AddFaults(findings, report);
    if (report.error == ENOENT) {
        findings.Error(shown + " is missing", make);
    } else if (IsSpecial(report.status)) {
        findings.Error(shown + " is not a directory, it leads to " + Printable(report.resolved),
                       "make it lead to a directory, or configure one that is not a link");
    } else if (report.error == ENOTDIR || (report.error == 0 && !S_ISDIR(report.status.st_mode))) {
        findings.Error(shown + " is not a directory", "remove what is in its place; " + make);
    } else if (report.error != 0) {
        findings.CannotLook(path, report.error);
    } else if (report.faults.empty()) {
        findings.Ok(shown + " is there and safe: " + OwnerAndMode(report.status));
        return true;
    }
    return false;
}

bool CheckInRootsHands(Findings& findings, const std::string& path, bool mayBeMissing) {
    const PathReport report = WalkPath(path);
    AddFaults(findings, report);
    const bool isMissing = report.error == ENOENT || report.error == ENOTDIR;
    if (report.error != 0 && !(isMissing && mayBeMissing)) findings.CannotLook(path, report.error);
    return report.error == 0 && report.faults.empty();
}
