// The registry's files: reading one, and replacing the live one so that at any moment, whatever
// fails or ends the process, either the old or the new store exists whole.
#pragma once

#include "services/registry/file_text.h"

// Reads one file. Traces why it cannot be opened or holds no registry; a read error is up to the
// caller.
ParsedRegistry LoadRegistryFile(const char* path);

// Whether this error of open means that the file is missing or can never be read, so that the next
// generation takes its place. Other errors may be gone the next time.
bool IsNoRegistryFile(int error);

// Reads one file into the key. Returns 0, ENODATA when the file holds no registry, or the error
// that kept it from being read whole.
int RestoreRegistryFile(const char* path, CRegistryNode& node);

// Writes the tree to /etc/orvmon/registry; the former file becomes registry.old. Both are on disk
// on return. Returns null, or the path of the file at which it failed, with errno set and the
// reason traced. The files are then unchanged, unless only syncing their directory failed.
const char* SaveRegistryFile(CRegistryNode& root);
