// Who could change what the daemon is about to load. Modules run as root, so whoever may write one
// is root.
//
// Looked at before the file is opened, by its name: in a directory that only root may write nobody
// else can put another file in its place meanwhile.
#pragma once

#include <string>

// Empty when `path`, links followed, belongs to root and neither its group nor others may write it.
// Else what was found and what is wanted; also when there is nothing to look at.
std::string UnsafePath(const std::string& path);

// The same for a module's file and for the directory that the file, links followed, lies in.
std::string UnsafeModule(const std::string& path);
