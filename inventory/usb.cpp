#include "inventory/sources.h"

void ScanUsb(KemdInventory& /*inventory*/) {}
