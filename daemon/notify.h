// What the init system hears from the daemon: that it is ready, that it stops, what is wrong. One
// datagram each to the socket that NOTIFY_SOCKET names, with a text for the line "Status:" of
// `systemctl status`; nothing at all when the variable is unset. Initial thread.
#pragma once

#include "kemd/api.h"

// Start-up is complete.
void NotifyReady();
// A stop is decided. Only the first call tells.
void NotifyStopping();
// What a start fails from or goes without: one line on standard error, which is the journal under
// systemd and nothing in the background, and the init system's status text.
void ReportStart(const char* format, ...) KEMD_PRINTF(1, 2);
