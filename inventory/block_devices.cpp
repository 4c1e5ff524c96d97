// Partitions and volumes.
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "inventory/host_inventory.h"
#include "inventory/partition_types.h"
#include "inventory/sources.h"
#include "inventory/sys_directory.h"
#include "inventory/udev_database.h"
#include "inventory/uevent.h"
#include "inventory/volumes.h"

namespace {

constexpr uint64_t kSector = 512;  // the kernel's unit, whatever the drive has

std::string LowerCase(std::string text) {
    for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
    return text;
}

// A device of /sys/class/block.
struct Block {
    Block(KemdInventory& inventory, const std::string& kernelName)
        : name(kernelName),
          directory(inventory, "/sys/class/block/" + kernelName),
          event(Uevent::FromFile(directory.Text("uevent").value_or(""))) {
        std::array<char, PATH_MAX> target;  // NOLINT(cppcoreguidelines-pro-type-member-init)
        const ssize_t length = readlink(directory.Path().c_str(), target.data(), target.size());
        if (length > 0) path.assign(target.data(), static_cast<size_t>(length));
    }
    // Made by the kernel from other devices, files or memory.
    [[nodiscard]] bool IsVirtual() const {
        return path.find("/devices/virtual/block/") != path.npos;
    }
    [[nodiscard]] bool IsPartition() const { return event.Field("DEVTYPE") == "partition"; }
    // "../../devices/.../block/sda/sda1" gives "sda".
    [[nodiscard]] std::string Disk() const {
        const size_t end = path.rfind('/');
        if (end == path.npos || end == 0) return {};
        const size_t begin = path.rfind('/', end - 1);
        return begin == path.npos ? std::string() : path.substr(begin + 1, end - begin - 1);
    }
    [[nodiscard]] std::string Number() const {
        return std::string(event.Field("MAJOR")) + ":" + std::string(event.Field("MINOR"));
    }

    std::string name;
    SysDirectory directory;
    Uevent event;
    std::string path;  // where the link leads
};

void AddText(KemdInventoryItem& item, InventoryField field, const SysDirectory& directory,
             const char* name) {
    item.Add(field, directory.Text(name).value_or(""));
}

void AddFigure(KemdInventoryItem& item, InventoryField field, const SysDirectory& directory,
               const char* name, uint64_t unit = 1) {
    const auto number = directory.Number(name);
    if (number && *number <= UINT64_MAX / unit) item.AddNumber(field, *number * unit);
}

void AddFilesystem(KemdInventoryItem& item, const UdevRecord& record) {
    item.Add("fs_type", record.Property("ID_FS_TYPE"));
    item.Add("fs_version", record.Property("ID_FS_VERSION"));
    item.Add("fs_label", record.Property("ID_FS_LABEL_ENC"));
    item.Add("fs_uuid", record.Property("ID_FS_UUID_ENC"));
}

// What all have.
void AddCommon(KemdInventoryItem& item, const Block& block, const UdevRecord& record) {
    item.Add("device", DeviceNode(block.name));
    item.Add("device_number", block.Number());
    AddFigure(item, "size", block.directory, "size", kSector);
    if (const auto isReadOnly = block.directory.Number("ro")) {
        item.AddNumber("read_only", *isReadOnly);
    }
    AddFilesystem(item, record);
}

// "vg--1-root" of the device mapper is "root" in "vg-1". A third part names a layer of the volume,
// which is a device of its own.
void AddLogicalVolume(KemdInventoryItem& item, std::string_view mapperName) {
    std::vector<std::string> parts(1);
    for (size_t i = 0; i < mapperName.size(); ++i) {
        const bool isDash = mapperName[i] == '-';
        const bool isDouble = isDash && mapperName.substr(i + 1).starts_with('-');
        if (isDash && !isDouble) {
            parts.emplace_back();
            continue;
        }
        parts.back() += mapperName[i];
        if (isDouble) ++i;
    }
    item.Add("volume_group", parts[0]);
    if (parts.size() == 2) item.Add("logical_volume", parts[1]);
}

class BlockScan {
  public:
    explicit BlockScan(KemdInventory& inventory) : m_inventory(&inventory) {}

    BlockItems Run() {
        FindDrives();
        SysDirectory classes(*m_inventory, "/sys/class/block");
        if (!classes.IsThere()) {
            m_inventory->Note("/sys/class/block", "not there: no partitions and no volumes");
        }
        const SysDirectory database(*m_inventory, "/run/udev/data");
        if (classes.IsThere() && !database.IsThere()) NoteNoUdev(*m_inventory);
        std::vector<std::string> names = classes.Names();
        // sda2 before sda10.
        std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
            return strverscmp(a.c_str(), b.c_str()) < 0;
        });
        // Partitions need the item that they are in, members may be anything.
        std::vector<Block> partitions;
        for (const std::string& name : names) {
            Block block(*m_inventory, name);
            if (block.event.Field("MAJOR").empty()) continue;  // a path that the kernel hides
            if (block.IsPartition()) {
                partitions.push_back(std::move(block));
            } else {
                AddDisk(block);
            }
        }
        for (const Block& partition : partitions) AddPartition(partition);
        for (const auto& [id, directory] : m_volumes) AddMembers(id, directory);
        return std::move(m_items);
    }

  private:
    void FindDrives() {
        KemdInventory scratch;
        const bool hasDrives = (m_inventory->sections & KEMD_INVENTORY_DRIVES) != 0;
        if (!hasDrives) ScanDrives(scratch, false);
        for (const KemdInventoryItem& item : (hasDrives ? *m_inventory : scratch).items) {
            if (item.kind == ItemKind::kDrive)
                m_items.drives[KernelName(item.Text("device"))] = item.id;
        }
    }

    void Remember(const Block& block, const std::string& id) {
        m_items.ids[block.name] = id;
        m_items.numbers[block.Number()] = block.name;
    }

    void AddDisk(const Block& block) {
        const UdevRecord record(*m_inventory, "b" + block.Number());
        if (block.IsVirtual()) return AddVolume(block, record);
        // A drive that the source of drives does not know has an empty id.
        Remember(block, m_items.drives[block.name]);
        const bool isUsedWhole =
            !record.Property("ID_FS_TYPE").empty() && record.Property("ID_PART_TABLE_TYPE").empty();
        if (isUsedWhole) (void)AddWholeDrive(*m_inventory, m_items, block.name);
    }

    void AddVolume(const Block& block, const UdevRecord& record) {
        const std::string_view name = block.name;
        const bool isArray = block.directory.Has("md");
        const uint64_t size = block.directory.Number("size").value_or(0);
        // Not set up, or memory that nothing uses. An array that did not start is worth a look.
        if ((size == 0 && !isArray) || name.starts_with("ram")) return;
        KemdInventoryItem& item =
            m_inventory->Add(ItemKind::kVolume, VolumeId(block, record), block.name);
        AddCommon(item, block, record);
        Remember(block, item.id);
        m_volumes.emplace_back(item.id, block.directory.Path());
        if (isArray) return AddArray(item, block.directory.Below("md"), record);
        const SysDirectory mapper = block.directory.Below("dm");
        if (mapper.IsThere()) return AddMapped(item, mapper);
        const SysDirectory loop = block.directory.Below("loop");
        if (loop.IsThere()) return AddLoop(item, loop);
        const SysDirectory bcache = block.directory.Below("bcache");
        if (bcache.IsThere()) return AddCached(item, bcache);
        const bool isCompressed = name.starts_with("zram");
        if (isCompressed) return AddCompressed(item, block.directory);
        item.Set("type", "disk");
    }

    [[nodiscard]] static std::string VolumeId(const Block& block, const UdevRecord& record) {
        std::string id = record.Property("MD_UUID");
        if (!id.empty()) return "volume:md-" + id;
        id = block.directory.Below("dm").Text("uuid").value_or("");
        if (id.empty()) id = block.directory.Below("dm").Text("name").value_or("");
        if (id.empty()) id = block.directory.Below("loop").Text("backing_file").value_or("");
        return "volume:" + (id.empty() ? block.name : id);
    }

    void AddArray(KemdInventoryItem& item, const SysDirectory& array, const UdevRecord& record) {
        const std::string name = record.Property("MD_DEVNAME");
        if (!name.empty()) item.name = name;
        item.Add("type", array.Text("level").value_or("md"));
        item.Add("uuid", record.Property("MD_UUID"));
        AddText(item, "metadata_version", array, "metadata_version");
        // Whether it is written to at this moment is of no interest.
        const std::string state = array.Text("array_state").value_or("");
        const bool isUp =
            state == "clean" || state.starts_with("active") || state.starts_with("write");
        item.Add("state", isUp ? "active" : state);
        AddFigure(item, "raid_disks", array, "raid_disks");
        AddFigure(item, "degraded", array, "degraded");
        AddFigure(item, "chunk_size", array, "chunk_size");
        AddText(item, "sync_action", array, "sync_action");
        AddProgress(item, array.Text("sync_completed").value_or(""));
    }

    // "1024 / 4096"; "none" while nothing is synchronised.
    static void AddProgress(KemdInventoryItem& item, const std::string& text) {
        unsigned long long done = 0;
        unsigned long long all = 0;
        const bool isBusy = sscanf(text.c_str(), "%llu / %llu", &done, &all) == 2 && all != 0;
        constexpr double kWhole = 100;
        if (isBusy && done <= all) {
            const double share = static_cast<double>(done) / static_cast<double>(all);
            item.AddNumber("sync_percent", static_cast<uint64_t>(kWhole * share));
        }
    }

    void AddMapped(KemdInventoryItem& item, const SysDirectory& mapper) {
        const std::string uuid = mapper.Text("uuid").value_or("");
        const std::string name = mapper.Text("name").value_or("");
        // The uuid begins with who made the device: "LVM-", "CRYPT-LUKS2-", "mpath-", "part1-".
        std::string type = LowerCase(uuid.substr(0, uuid.find('-')));
        if (type.starts_with("part")) type = "part";
        item.Add("type", type.empty() ? "dm" : type);
        item.Add("uuid", uuid);
        item.Add("state", mapper.Number("suspended").value_or(0) != 0 ? "suspended" : "running");
        if (!name.empty()) {
            item.name = name;
            m_items.mapped[name] = KernelName(item.Text("device"));
        }
        if (type == "lvm") AddLogicalVolume(item, name);
        if (type == "crypt") {
            const std::string rest = uuid.substr(uuid.find('-') + 1);
            item.Add("encryption", rest.substr(0, rest.find('-')));
        }
    }

    static void AddLoop(KemdInventoryItem& item, const SysDirectory& loop) {
        item.Set("type", "loop");
        AddText(item, "backing_file", loop, "backing_file");
        AddFigure(item, "offset", loop, "offset");
    }

    static void AddCached(KemdInventoryItem& item, const SysDirectory& bcache) {
        item.Set("type", "bcache");
        const auto chosen = [&](InventoryField field, const char* name) {
            AddChosen(item, field, bcache.Text(name).value_or(""));
        };
        chosen("cache_mode", "cache_mode");
        const std::string state = bcache.Text("state").value_or("");
        item.Add("state", state == "clean" || state == "dirty" ? "active" : state);
    }

    static void AddCompressed(KemdInventoryItem& item, const SysDirectory& directory) {
        item.Set("type", "zram");
        AddChosen(item, "algorithm", directory.Text("comp_algorithm").value_or(""));
        unsigned long long used = 0;
        const std::string figures = directory.Text("mm_stat").value_or("");
        if (sscanf(figures.c_str(), "%*u %*u %llu", &used) == 1) {
            item.AddNumber("memory_used", used);
        }
    }

    // "lzo [lz4] zstd"
    static void AddChosen(KemdInventoryItem& item, InventoryField field, std::string_view text) {
        const size_t begin = text.find('[');
        const size_t end = text.find(']');
        const bool isMarked = begin != text.npos && end != text.npos && begin < end;
        item.Add(field, isMarked ? text.substr(begin + 1, end - begin - 1) : text);
    }

    // Of a partition's disk: a drive, or a volume.
    [[nodiscard]] std::string DiskId(const std::string& name) const {
        const auto drive = m_items.drives.find(name);
        if (drive != m_items.drives.end()) return drive->second;
        const auto volume = m_items.ids.find(name);
        return volume == m_items.ids.end() ? "" : volume->second;
    }

    void AddPartition(const Block& block) {
        const UdevRecord record(*m_inventory, "b" + block.Number());
        const std::string parent = DiskId(block.Disk());
        const std::string number(block.event.Field("PARTN"));
        const std::string id =
            parent.empty() ? "partition:" + block.name
                           : "partition:" + parent.substr(parent.find(':') + 1) + "-" + number;
        KemdInventoryItem& item = m_inventory->Add(ItemKind::kPartition, id, block.name);
        item.parent = parent;
        Remember(block, item.id);
        AddCommon(item, block, record);
        if (const auto position = block.event.Number("PARTN")) {
            item.AddNumber("partition_number", *position);
        }
        AddFigure(item, "partition_start", block.directory, "start", kSector);
        item.Add("partition_table", record.Property("ID_PART_ENTRY_SCHEME"));
        const std::string name = record.Property("ID_PART_ENTRY_NAME");
        item.Add("partition_name", name.empty() ? block.event.Field("PARTNAME") : name);
        const std::string type = record.Property("ID_PART_ENTRY_TYPE");
        item.Add("partition_type", type);
        item.Add("partition_type_name", PartitionTypeName(type));
        item.Add("partition_flags", record.Property("ID_PART_ENTRY_FLAGS"));
        const std::string uuid = record.Property("ID_PART_ENTRY_UUID");
        item.Add("partition_uuid", uuid.empty() ? block.event.Field("PARTUUID") : uuid);
    }

    // Ids of what a volume is made of.
    void AddMembers(const std::string& id, const std::string& path) {
        KemdInventoryItem& item = *m_inventory->Find(id);
        const SysDirectory directory(*m_inventory, path);
        const auto add = [&](InventoryField field, const std::string& name) {
            const auto member = m_items.ids.find(name);
            const bool isKnown = member != m_items.ids.end() && !member->second.empty();
            item.Add(field, isKnown ? member->second : name);
        };
        for (const std::string& name : directory.Below("slaves").Names()) add("members", name);
        const SysDirectory array = directory.Below("md");
        for (const std::string& name : array.Names()) {
            constexpr std::string_view kPrefix = "dev-";
            if (!name.starts_with(kPrefix)) continue;
            const std::string state = array.Below(name.c_str()).Text("state").value_or("");
            const std::string member = name.substr(kPrefix.size());
            if (state.find("faulty") != state.npos) add("failed_members", member);
            if (state.find("spare") != state.npos) add("spare_members", member);
        }
    }

    KemdInventory* m_inventory;
    BlockItems m_items;
    std::vector<std::pair<std::string, std::string>> m_volumes;  // id, directory
};

constexpr std::string_view kNodes = "/dev/";

}  // namespace

std::string KernelName(std::string_view node) {
    if (node.starts_with(kNodes)) node.remove_prefix(kNodes.size());
    std::string name(node);
    std::replace(name.begin(), name.end(), '/', '!');
    return name;
}

std::string DeviceNode(std::string_view kernelName) {
    std::string node(kNodes);
    node += kernelName;
    std::replace(node.begin(), node.end(), '!', '/');
    return node;
}

KemdInventoryItem& AddWholeDrive(KemdInventory& inventory, BlockItems& blocks,
                                 const std::string& name) {
    const Block block(inventory, name);
    const std::string drive = blocks.drives[name];
    KemdInventoryItem& item =
        inventory.Add(ItemKind::kVolume,
                      "volume:" + (drive.empty() ? name : drive.substr(drive.find(':') + 1)), name);
    item.parent = drive;
    item.Add("type", "disk");
    AddCommon(item, block, UdevRecord(inventory, "b" + block.Number()));
    blocks.ids[name] = item.id;
    return item;
}

BlockItems ScanBlockDevices(KemdInventory& inventory) {
    return BlockScan(inventory).Run();
}
