// What the init system hears from the daemon: that it is ready, that it stops. One datagram each to
// the socket that NOTIFY_SOCKET names; nothing at all when the variable is unset. Initial thread.
#pragma once

// Start-up is complete.
void NotifyReady();
// A stop is decided. Only the first call tells.
void NotifyStopping();
