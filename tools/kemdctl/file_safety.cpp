#include "tools/kemdctl/file_safety.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "tools/kemdctl/text.h"

namespace {

// The path without symbolic links; empty, with errno, when there is nothing.
std::string Resolve(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> resolved(realpath(path.c_str(), nullptr),
                                                          std::free);
    return resolved ? resolved.get() : "";
}

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == path.npos ? "/" : path.substr(0, slash);
}

// Adds an absolute path and all directories above it.
void AddChain(std::set<std::string>& chain, std::string path) {
    while (!path.empty() && chain.insert(path).second && path != "/") path = DirectoryOf(path);
}

}  // namespace

bool CheckOwnerAndMode(Findings& findings, const std::string& path, bool isShared) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        findings.CannotLook(path, errno);
        return false;
    }
    const std::string shown = Printable(path);
    const bool isSticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    const bool isOpen = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !(isShared && isSticky);
    if (status.st_uid != 0) {
        findings.Error(shown + " belongs to user " + std::to_string(status.st_uid),
                       "chown root:root " + shown);
    }
    if (isOpen) {
        findings.Error(shown + " may be written by others than root", "chmod go-w " + shown);
    }
    return status.st_uid == 0 && !isOpen;
}

bool CheckDirectory(Findings& findings, const std::string& path, const std::string& make,
                    bool isShared) {
    const std::string resolved = Resolve(path);
    struct stat status {};
    if (resolved.empty() || stat(resolved.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            findings.Error(Printable(path) + " is missing", make);
        } else {
            findings.CannotLook(path, errno);
        }
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        findings.Error(Printable(path) + " is no directory", "remove it; " + make);
        return false;
    }
    if (!CheckOwnerAndMode(findings, resolved, isShared)) return false;
    findings.Ok(Printable(path) + " is there and safe");
    return true;
}

bool CheckCode(Findings& findings, const std::string& path) {
    const std::string resolved = Resolve(path);
    if (resolved.empty()) {
        findings.CannotLook(path, errno);
        return false;
    }
    // Where it really is, and where the link to it stands. A directory like /tmp is safe here: what
    // belongs to root in it, nobody else can move.
    std::set<std::string> chain;
    AddChain(chain, resolved);
    AddChain(chain, Resolve(DirectoryOf(path)));
    bool isSafe = true;
    for (const std::string& each : chain) {
        isSafe = CheckOwnerAndMode(findings, each, each != resolved) && isSafe;
    }
    return isSafe;
}
