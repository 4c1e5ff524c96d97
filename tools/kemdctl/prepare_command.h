// kemdctl prepare: what the service does before it starts the daemon.
#pragma once

#include "tools/kemdctl/command.h"

int RunPrepare(CommandLine& line);
