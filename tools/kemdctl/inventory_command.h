// kemdctl inventory: the firmware's tables and the slots of PCI devices.
#pragma once

#include "tools/kemdctl/command.h"

int RunInventory(CommandLine& line);
