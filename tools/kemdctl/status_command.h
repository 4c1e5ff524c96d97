// kemdctl status: whether the daemon runs, and what its files tell about it.
#pragma once

#include "tools/kemdctl/command.h"

int RunStatus(CommandLine& line);
