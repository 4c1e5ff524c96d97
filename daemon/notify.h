// What the daemon reports to the init system: that it is ready, that it stops, what is wrong. Each
// is one datagram to the socket that NOTIFY_SOCKET names, with a text for the line "Status:" of
// `systemctl status`; nothing when the variable is unset. Initial thread.
#pragma once

#include "kemd/api.h"

// Start-up is complete.
void NotifyReady();
// A stop is decided. Only the first call sends.
void NotifyStopping();
// Why a start fails, or what it has to do without: one line on standard error (the journal under
// systemd, /dev/null in the background), and the init system's status text.
void ReportStart(const char* format, ...) KEMD_PRINTF(1, 2);
