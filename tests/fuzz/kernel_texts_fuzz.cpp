// Arbitrary bytes as what the kernel and udev say about devices and mounts; the first says as what.
#include "inventory/host_inventory.h"
#include "inventory/mount_table.h"
#include "inventory/partition_types.h"
#include "inventory/udev_database.h"
#include "inventory/uevent.h"
#include "tests/fuzz/fuzz.h"

namespace {

void TakeMessage(std::string_view text) {
    const auto event = Uevent::FromMessage(text);
    if (!event) return;
    Require(event->Field("DEVPATH").starts_with('/'), "a device without a path");
    (void)event->Number("PARTN");
}

void TakeRecord(std::string_view text) {
    const UdevRecord record(text);
    Require(record.IsThere(), "a record that is not there");
    KemdInventoryItem item{ItemKind::kPartition, {}, {}, {}, {}};
    item.Add("fs_label", record.Property("ID_FS_LABEL_ENC"));
    item.Add("partition_name", record.Property("ID_PART_ENTRY_NAME"));
    for (const auto& value : item.values) {
        Require(value.text == WithoutControls(value.text), "a control character");
    }
    (void)PartitionTypeName(record.Property("ID_PART_ENTRY_TYPE"));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0]) {
        case 'm':
            for (const MountEntry& mount : ParseMounts(text)) {
                Require(!mount.target.empty() && !mount.type.empty(), "a mount of nothing");
                Require(mount.options.starts_with("ro") || mount.options.starts_with("rw"),
                        "options without access");
            }
            break;
        case 's':
            (void)ParseSwaps(text);
            break;
        case 'e':
            TakeMessage(text);
            break;
        case 'f':
            (void)Uevent::FromFile(text).Number("PARTN");
            break;
        default:
            TakeRecord(text);
    }
    return 0;
}
