#include "inventory/sources.h"

void ScanSystem(KemdInventory& /*inventory*/, uint32_t /*sections*/) {}
