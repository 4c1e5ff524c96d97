// The registry's files: reading one, and writing the live one so that at any moment, whatever fails
// or ends the process, the old or the new store is there whole.
#pragma once

#include "services/registry/file_text.h"

ParsedRegistry LoadRegistryFile(const char* path);

// Whether a file that could not be opened for this reason is missing or none that could ever be
// read, so that the next generation takes its place. Any other reason may be gone the next time.
bool IsNoRegistryFile(int error);

// Parses one file into the key. 0, or why it was not read whole, ENODATA when it holds no registry.
int RestoreRegistryFile(const char* path, CRegistryNode& node);

// The tree becomes /etc/orvmon/registry, what stood there registry.old; both are on disk on return.
// Null, or the file at which that failed, with errno and traced; then all files are as they were,
// unless only their directory could not be brought to the disk.
const char* SaveRegistryFile(CRegistryNode& root);
