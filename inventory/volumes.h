// Parts of the source of volumes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

struct KemdInventory;
struct KemdInventoryItem;

// The block devices of the host by their kernel names ("sda1").
struct BlockItems {
    using Names = std::map<std::string, std::string, std::less<>>;

    Names ids;     // of the items that hold them; empty for an unknown drive
    Names drives;  // of those the drives
    Names mapped;  // the device mapper's name to the kernel's
    std::map<std::string, std::string> numbers;  // "8:1" to the kernel's name
};

// "/dev/cciss/c0d0" is "cciss!c0d0" to the kernel, and back.
std::string KernelName(std::string_view node);
std::string DeviceNode(std::string_view kernelName);

// Partitions and volumes; `inventory` has the drives, if it has that section.
BlockItems ScanBlockDevices(KemdInventory& inventory);
// The volume that a drive with a file system of its own is.
KemdInventoryItem& AddWholeDrive(KemdInventory& inventory, BlockItems& blocks,
                                 const std::string& name);
// Mounts and swap space, which also say what block devices are used for.
void ScanMounts(KemdInventory& inventory, BlockItems& blocks);
