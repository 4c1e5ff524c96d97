// Where items come from. Each source adds the items of its sections; what it cannot read is absent,
// and a note says why. A later one may look at the items of those before it. May throw
// std::bad_alloc alone.
#pragma once

#include <cstdint>

struct KemdInventory;

// In this order.
void ScanSystem(KemdInventory& inventory, uint32_t sections);  // also memory, and slots
void ScanPci(KemdInventory& inventory);
void ScanUsb(KemdInventory& inventory);
void ScanPorts(KemdInventory& inventory);                    // graphics adapters and serial ports
void ScanDrives(KemdInventory& inventory, bool withHealth);  // storage adapters too
void ScanInterfaces(KemdInventory& inventory);
void ScanVolumes(KemdInventory& inventory);
// What needs attention, after all sources.
void FindWarnings(KemdInventory& inventory);

// All of it.
void ScanHost(KemdInventory& inventory, uint32_t sections);
