#include "inventory/sources.h"

void ScanDrives(KemdInventory& /*inventory*/, bool /*withHealth*/) {}
