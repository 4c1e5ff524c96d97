// What the kernel knows of the system, and what it says of the firmware when the tables cannot be
// read.
#pragma once

#include <string>
#include <string_view>

#include "inventory/host_inventory.h"

// From /sys/class/dmi/id: firmware, system, board and chassis, as the tables give them.
void AddDmiItems(KemdInventory& inventory);
// The memory modules that udev has read from the tables.
void AddUdevMemory(KemdInventory& inventory);
// After the firmware's: adds to its item, or one of its own for each.
void AddTpmDevices(KemdInventory& inventory);
// After the firmware's, whose texts tell virtual machines.
void AddKernel(KemdInventory& inventory);
void AddCpus(KemdInventory& inventory);
void AddNumaNodes(KemdInventory& inventory);

// In the words of systemd-detect-virt; "none".
std::string DetectMachine(const KemdInventory& inventory, std::string_view hypervisorSignature);
// Empty outside of containers.
std::string DetectContainer();
// The 12 bytes of CPUID; empty without a hypervisor.
std::string HypervisorSignature();
// "KVM"; the signature itself for others than the usual ones.
std::string HypervisorName(std::string_view signature);
