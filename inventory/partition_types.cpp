#include "inventory/partition_types.h"

#include <algorithm>
#include <array>
#include <utility>

namespace {

using TypeName = std::pair<std::string_view, std::string_view>;

constexpr auto kTypes = std::to_array<TypeName>({
    {"c12a7328-f81f-11d2-ba4b-00a0c93ec93b", "EFI System"},
    {"21686148-6449-6e6f-744e-656564454649", "BIOS boot"},
    {"0fc63daf-8483-4772-8e79-3d69d8477de4", "Linux filesystem"},
    {"0657fd6d-a4ab-43c4-84e5-0933c84b4f4f", "Linux swap"},
    {"e6d6d379-f507-44c2-a23c-238f2a3df928", "Linux LVM"},
    {"a19d880f-05fc-4d3b-a006-743f0f84911e", "Linux RAID"},
    {"933ac7e1-2eb4-4f13-b844-0e14e2aef915", "Linux home"},
    {"3b8f8425-20e0-4f3b-907f-1a25a76f98e8", "Linux server data"},
    {"8da63339-0007-60c0-c436-083ac8230908", "Linux reserved"},
    {"bc13c2ff-59e6-4262-a352-b275fd6f7172", "Linux extended boot"},
    {"44479540-f297-41b2-9af7-d131d5f0458a", "Linux root (x86)"},
    {"4f68bce3-e8cd-4db1-96e7-fbcaf984b709", "Linux root (x86-64)"},
    {"2c7357ed-ebd2-46d9-aec1-23d437ec2bf5", "Linux root verity (x86-64)"},
    {"8484680c-9521-48c6-9c11-b0720656f69e", "Linux /usr (x86-64)"},
    {"77ff5f63-e7b6-4633-acf4-1565b864c0e6", "Linux /usr verity (x86-64)"},
    {"4d21b016-b534-45c2-a9fb-5c16e091fd2d", "Linux variable data"},
    {"7ec6f557-3bc5-4aca-b293-16ef5df639d1", "Linux temporary data"},
    {"773f91ef-66d4-49b5-bd83-d683bf40ad16", "Linux user's home"},
    {"ebd0a0a2-b9e5-4433-87c0-68b6b72699c7", "Microsoft basic data"},
    {"e3c9e316-0b5c-4db8-817d-f92df00215ae", "Microsoft reserved"},
    {"5808c8aa-7e8f-42e0-85d2-e1e90434cfb3", "Microsoft LDM metadata"},
    {"af9b60a0-1431-4f62-bc68-3311714a69ad", "Microsoft LDM data"},
    {"e75caf8f-f680-4cee-afa3-b001e56efc2d", "Microsoft Storage Spaces"},
    {"de94bba4-06d1-4d40-a16a-bfd50179d6ac", "Windows recovery environment"},
    {"aa31e02a-400f-11db-9590-000c2911d1b8", "VMware VMFS"},
    {"9d275380-40ad-11db-bf97-000c2911d1b8", "VMware Diagnostic"},
    {"381cfccc-7288-11e0-92ee-000c2911d0b2", "VMware Virtual SAN"},
    {"516e7cb4-6ecf-11d6-8ff8-00022d09712b", "FreeBSD data"},
    {"516e7cb6-6ecf-11d6-8ff8-00022d09712b", "FreeBSD UFS"},
    {"516e7cba-6ecf-11d6-8ff8-00022d09712b", "FreeBSD ZFS"},
    {"6a898cc3-1dd2-11b2-99a6-080020736631", "Solaris /usr & Apple ZFS"},
    {"7c3457ef-0000-11aa-aa11-00306543ecac", "Apple APFS"},
    {"48465300-0000-11aa-aa11-00306543ecac", "Apple HFS/HFS+"},
    {"9e1a2d38-c612-4316-aa26-8b49521e5a8b", "PowerPC PReP boot"},
    {"0x5", "Extended"},
    {"0x6", "FAT16"},
    {"0x7", "HPFS/NTFS/exFAT"},
    {"0xb", "W95 FAT32"},
    {"0xc", "W95 FAT32 (LBA)"},
    {"0xe", "W95 FAT16 (LBA)"},
    {"0xf", "W95 Ext'd (LBA)"},
    {"0x27", "Hidden NTFS WinRE"},
    {"0x82", "Linux swap / Solaris"},
    {"0x83", "Linux"},
    {"0x85", "Linux extended"},
    {"0x8e", "Linux LVM"},
    {"0xa5", "FreeBSD"},
    {"0xbf", "Solaris"},
    {"0xda", "Non-FS data"},
    {"0xee", "GPT"},
    {"0xef", "EFI (FAT-12/16/32)"},
    {"0xfb", "VMware VMFS"},
    {"0xfc", "VMware VMKCORE"},
    {"0xfd", "Linux raid autodetect"},
});

}  // namespace

std::string_view PartitionTypeName(std::string_view type) {
    const auto* const found = std::find_if(
        kTypes.begin(), kTypes.end(), [type](const auto& known) { return known.first == type; });
    return found == kTypes.end() ? std::string_view() : found->second;
}
