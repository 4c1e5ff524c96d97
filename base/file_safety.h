// Who could change what the daemon is about to load. Modules run as root, so whoever may write one,
// or put another one in its place, is root.
//
// The walk goes by names, before anything is opened: where only root may write, no other user can
// change what a name stands for in the meantime.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

// A file, directory or symbolic link that others than root may change.
struct PathFault {
    std::string path;  // without links
    struct stat status;
};

// What a walk from / to a path met.
struct PathReport {
    std::string resolved;           // the path without links; those after an error stay
    int error = 0;                  // errno that ended the walk early; 0: it came to the end
    struct stat status {};          // of the last file or directory that it came to
    std::vector<PathFault> faults;  // on the way, from / on; none: all is in the hands of root
};

// Walks the path name by name and follows links, 40 at most. Each name belongs to root; what is no
// link is writable by no other user. A directory like /tmp, where no other user can move what
// belongs to root, may be passed, but not be the end, unless `mayBeShared`, nor lack the next name.
PathReport WalkPath(const std::string& path, bool mayBeShared = false);

// Empty when the walk came to the end and met no fault. Else the one next to the end, or the error.
std::string Unsafe(const PathReport& report);
