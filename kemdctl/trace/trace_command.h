// kemdctl trace: the daemon's trace, in the order in which it was written.
#pragma once

#include "kemdctl/ui/command.h"

int RunTrace(CommandLine& line);
