// kemdctl inventory: the firmware's tables and the slots of PCI devices.
#pragma once

#include "kemdctl/ui/command.h"

int RunInventory(CommandLine& line);
