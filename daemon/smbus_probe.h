// Introduces the daemon to the system-management bus driver and traces what the driver knows.
#pragma once

// Warns when the daemon is older than the driver. A missing driver or a failing request is traced
// and otherwise of no consequence.
void DiscoverSmbusDriverInfo();
