// kemdctl status: whether the daemon runs, and what its files tell about it.
#pragma once

#include "kemdctl/ui/command.h"

int RunStatus(CommandLine& line);
