// kemdctl check: looks for what keeps the daemon from working as meant, and says what to do.
#pragma once

#include "tools/kemdctl/command.h"

int RunCheck(CommandLine& line);
