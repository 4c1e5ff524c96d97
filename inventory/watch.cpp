#include <cerrno>

#include "kemd/inventory.h"

int KemdInventoryWatchOpen(KemdInventoryWatch** /*watch*/, uint32_t /*sections*/,
                           KemdInventoryOnChange /*onChange*/, void* /*user*/) {
    return ENOSYS;
}

void KemdInventoryWatchClose(KemdInventoryWatch* /*watch*/) {}
