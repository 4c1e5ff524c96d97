// What the types of partitions are called.
#pragma once

#include <string_view>

// "c12a7328-f81f-11d2-ba4b-00a0c93ec93b" of a GPT gives "EFI System", "0x8e" of an MBR "Linux LVM".
// Empty for a type that is rare.
std::string_view PartitionTypeName(std::string_view type);
