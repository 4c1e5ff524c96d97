// Who could change what the daemon is about to load. Modules run as root, so anyone who may write
// or replace one is root.
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

// Walks the path name by name and follows at most 40 links. Safe is a name that belongs to root
// and, unless it is a link, that no other user may write. In a directory like /tmp no other user
// can move what belongs to root: the path may lead through one if the next name exists, and may end
// there only with `mayBeShared`.
PathReport WalkPath(const std::string& path, bool mayBeShared = false);

// Empty when the walk reached the end without a fault; otherwise the error, or the last fault.
std::string Unsafe(const PathReport& report);
