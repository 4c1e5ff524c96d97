// kemdctl prepare: what the service does before it starts the daemon.
#pragma once

#include "kemdctl/ui/command.h"

int RunPrepare(CommandLine& line);
