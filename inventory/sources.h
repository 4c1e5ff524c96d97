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
void ScanPorts(KemdInventory& inventory);  // graphics adapters and serial ports
// Storage adapters too. Of a drive that says nothing about its health what the last inventory has
// stays; with `onlyNew` drives that were asked then are not asked.
void ScanDrives(KemdInventory& inventory, bool withHealth, const KemdInventory* last = nullptr,
                bool onlyNew = false);
void ScanInterfaces(KemdInventory& inventory);
void ScanVolumes(KemdInventory& inventory);
// What needs attention, after all sources.
void FindWarnings(KemdInventory& inventory);

// All of it.
void ScanHost(KemdInventory& inventory, uint32_t sections, const KemdInventory* last = nullptr,
              bool onlyNew = false);
