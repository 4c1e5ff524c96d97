// kemdctl check: looks for what keeps the daemon from working as meant, and says what to do.
#pragma once

#include "kemdctl/ui/command.h"

int RunCheck(CommandLine& line);
