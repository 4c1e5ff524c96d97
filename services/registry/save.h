// Writing the registry's file so that at any moment, whatever fails or ends the process, the old or
// the new store is there whole.
#pragma once

#include "services/registry/node.h"

// The tree becomes /etc/orvmon/registry, what stood there registry.old; both are on disk on return.
// Null, or the file at which that failed, with errno and traced; then all files are as they were,
// unless only their directory could not be brought to the disk.
const char* SaveRegistryFile(CRegistryNode& root);
