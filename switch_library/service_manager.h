// What the service manager shows about the modules. Nothing here allocates, fails or waits.
#pragma once

#include "kemd/api.h"

// The line "Status:" of `systemctl status`. Nothing without NOTIFY_SOCKET; dropped if it cannot be
// sent at once.
void ShowStatus(const char* format, ...) KEMD_PRINTF(1, 2);

// A line in the journal, if standard error leads there; never into a terminal or a file.
void WriteToJournal(const char* format, ...) KEMD_PRINTF(1, 2);
