// kemd-module-host --isolated: a process of its own for one module of the daemon.
#pragma once

// Serves the calls of base/isolated_protocol.h until the daemon's end of the socket is closed.
[[noreturn]] void ServeIsolated();
