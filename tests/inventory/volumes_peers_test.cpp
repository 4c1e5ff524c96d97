// Partitions, volumes and mounts beside lsblk, blkid, findmnt, lvs and mdadm.
#include <map>
#include <set>

#include "inventory/host_inventory.h"
#include "inventory/sources.h"
#include "tests/inventory/peers.h"
#include "tests/world.h"

namespace {

struct Column {
    const char* name;  // of the peer
    InventoryField field;
    bool isOfUdev;  // where there is no udev only the peer, which reads the disk, knows it
    uint64_t unit = 1;
};

std::string TextOf(const JsonValue* value, uint64_t unit) {
    if (value == nullptr) return {};
    if (value->kind == JsonValue::kFlag) return value->flag ? "1" : "0";
    if (value->kind == JsonValue::kNumber) return std::to_string(std::stoull(value->text) * unit);
    return WithoutControls(value->text);
}

std::set<std::string> Texts(const JsonValue* list) {
    std::set<std::string> texts;
    for (const JsonValue& value : list == nullptr ? std::vector<JsonValue>() : list->elements) {
        if (value.kind == JsonValue::kText) texts.insert(WithoutControls(value.text));
    }
    return texts;
}

std::set<std::string> Texts(const KemdInventoryItem& item, InventoryField field) {
    std::set<std::string> texts;
    for (const auto& value : item.values) {
        if (value.field == field) texts.insert(value.text);
    }
    return texts;
}

class VolumesPeersTest : public testing::Test {
  protected:
    VolumesPeersTest() : m_hasUdev(access("/run/udev/data", F_OK) == 0) {
        ScanHost(m_inventory, KEMD_INVENTORY_DRIVES | KEMD_INVENTORY_VOLUMES);
    }

    const KemdInventoryItem* Device(const std::string& name) {
        for (const KemdInventoryItem& item : m_inventory.items) {
            const bool isBlock =
                item.kind == ItemKind::kPartition || item.kind == ItemKind::kVolume;
            if (isBlock && item.Text("device") == "/dev/" + name) return &item;
        }
        return nullptr;
    }
    void Compare(const KemdInventoryItem& item, const Column& column, const std::string& text) {
        if (column.isOfUdev && !m_hasUdev) return;
        EXPECT_EQ(item.Text(column.field), text) << item.name << " " << column.name;
        ++m_compared;
    }
    void CompareRow(const JsonValue& row);
    void CompareRows(const JsonValue& rows, const std::string& parent);
    void CompareSpace(const JsonValue& row, const KemdInventoryItem& item);

    KemdInventory m_inventory;
    bool m_hasUdev;
    int m_compared = 0;
    std::set<std::string> m_seen;
};

constexpr Column kLsblk[] = {
    {"maj:min", "device_number", false},
    {"size", "size", false},
    {"ro", "read_only", false},
    {"state", "state", false},
    {"start", "partition_start", false, 512},
    {"fsver", "fs_version", true},
    {"label", "fs_label", true},
    {"uuid", "fs_uuid", true},
    {"parttype", "partition_type", true},
    {"parttypename", "partition_type_name", true},
    {"partlabel", "partition_name", true},
    {"partuuid", "partition_uuid", true},
    {"partflags", "partition_flags", true},
};

void VolumesPeersTest::CompareSpace(const JsonValue& row, const KemdInventoryItem& item) {
    // lsblk takes one of the mounts.
    bool isFound = row.TextOf("fssize").empty() && !row.NumberOf("fssize");
    for (const std::string& target : Texts(item, "mountpoints")) {
        const KemdInventoryItem* const mount = m_inventory.Find("mount:" + target);
        // It shows the size of what hides a mount.
        const std::string size = mount == nullptr ? "" : mount->Text("fs_size");
        isFound = isFound || (mount != nullptr && mount->parent == item.id &&
                              (size.empty() || size == TextOf(row.Find("fssize"), 1)));
    }
    EXPECT_TRUE(isFound) << item.name;
}

void VolumesPeersTest::CompareRow(const JsonValue& row) {
    const std::string_view type = row.TextOf("type");
    const bool isDrive = type == "disk" || type == "rom";
    const KemdInventoryItem* const item = Device(std::string(row.TextOf("kname")));
    // A drive is an item here when it is used whole; memory that is not set up is none.
    const bool isUsed =
        !Texts(row.Find("mountpoints")).empty() || (m_hasUdev && !row.TextOf("fstype").empty());
    if (item == nullptr && (isDrive || row.NumberOf("size") == 0) && !isUsed) return;
    ASSERT_NE(item, nullptr) << row.TextOf("kname");
    m_seen.insert(item->id);
    for (const Column& column : kLsblk) {
        // Only the device mapper has one there.
        const bool isState = std::string_view(column.name) == "state";
        if (!isState || item->Text("device").starts_with("/dev/dm-"))
            Compare(*item, column, TextOf(row.Find(column.name), column.unit));
    }
    if (!row.TextOf("fstype").empty()) {
        Compare(*item, {"fstype", "fs_type", false}, TextOf(row.Find("fstype"), 1));
    }
    if (type.starts_with("raid") || type == "lvm" || type == "crypt" || type == "mpath") {
        Compare(*item, {"type", "type", false}, std::string(type));
    }
    const bool isMapped = item->Text("device").starts_with("/dev/dm-");
    EXPECT_EQ(isMapped ? item->name : row.TextOf("name"), row.TextOf("name"));
    EXPECT_EQ(Texts(*item, "mountpoints"), Texts(row.Find("mountpoints"))) << item->name;
    CompareSpace(row, *item);
}

void VolumesPeersTest::CompareRows(const JsonValue& rows, const std::string& parent) {
    for (const JsonValue& row : rows.elements) {
        CompareRow(row);
        const std::string name(row.TextOf("kname"));
        const KemdInventoryItem* const item = Device(name);
        const KemdInventoryItem* const above = Device(parent);
        if (item != nullptr && above != nullptr && !parent.empty()) {
            const bool isPart = item->kind == ItemKind::kPartition;
            const std::set<std::string> members = Texts(*item, "members");
            EXPECT_TRUE(isPart ? item->parent == above->id : members.contains(above->id))
                << name << " in " << parent;
        }
        const JsonValue* const children = row.Find("children");
        if (children != nullptr) CompareRows(*children, name);
    }
}

}  // namespace

TEST_F(VolumesPeersTest, LsblkSeesTheSameBlockDevices) {
    NEED_PEER("lsblk");
    const JsonValue document = PeerJson(
        "lsblk -J -b -o NAME,KNAME,MAJ:MIN,SIZE,RO,STATE,START,TYPE,FSTYPE,FSVER,LABEL,UUID,PARTTYPE,"
        "PARTTYPENAME,PARTLABEL,PARTUUID,PARTFLAGS,MOUNTPOINTS,FSSIZE");
    const JsonValue* const rows = document.Find("blockdevices");
    ASSERT_NE(rows, nullptr);
    CompareRows(*rows, "");
    EXPECT_GT(m_compared, 0);
    for (const KemdInventoryItem& item : m_inventory.items) {
        const bool isBlock = item.Find("device_number") != nullptr &&
                             KindSection(item.kind) == KEMD_INVENTORY_VOLUMES;
        EXPECT_TRUE(!isBlock || m_seen.contains(item.id)) << item.id;
    }
}

TEST_F(VolumesPeersTest, BlkidReadsTheSameFromTheDisks) {
    NEED_PEER("blkid");
    if (!m_hasUdev) GTEST_SKIP() << "not compared: no udev";
    constexpr Column kColumns[] = {
        {"TYPE", "fs_type", true},
        {"UUID", "fs_uuid", true},
        {"LABEL", "fs_label", true},
        {"PARTUUID", "partition_uuid", true},
    };
    std::istringstream lines(
        PeerText("blkid -c /dev/null -s TYPE -s UUID -s LABEL -s PARTUUID -o export"));
    const KemdInventoryItem* item = nullptr;
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        if (equals == line.npos) continue;
        const std::string key = line.substr(0, equals);
        std::string value = line.substr(equals + 1);
        std::erase(value, '\\');
        if (key == "DEVNAME") {
            std::istringstream(PeerText("lsblk -dno KNAME " + value)) >> value;
            item = Device(value);
        }
        for (const Column& column : kColumns) {
            // udev does not look at compressed memory.
            const bool isKnown = item != nullptr && item->Text("type") != "zram";
            if (isKnown && key == column.name) Compare(*item, column, value);
        }
    }
    EXPECT_GT(m_compared, 0);
}

TEST_F(VolumesPeersTest, FindmntSeesTheSameMounts) {
    NEED_PEER("findmnt");
    constexpr Column kColumns[] = {
        {"target", "target", false}, {"fstype", "fs_type", false}, {"options", "options", false}};
    const JsonValue document =
        PeerJson("findmnt -J -l -b -o TARGET,SOURCE,FSTYPE,OPTIONS,SIZE,FSROOT");
    const JsonValue* const rows = document.Find("filesystems");
    ASSERT_NE(rows, nullptr);
    std::map<std::string, int> targets;
    size_t count = 0;
    for (const JsonValue& row : rows->elements) {
        const std::string target = WithoutControls(std::string(row.TextOf("target")));
        const int number = ++targets[target];
        const KemdInventoryItem* const item =
            m_inventory.Find("mount:" + target + (number > 1 ? "#" + std::to_string(number) : ""));
        EXPECT_EQ(item == nullptr, row.NumberOf("size").value_or(0) == 0) << target;
        if (item == nullptr) {
            --targets[target];
            continue;
        }
        ++count;
        for (const Column& column : kColumns) {
            Compare(*item, column, TextOf(row.Find(column.name), 1));
        }
        const std::string& root = item->Text("fs_root");
        EXPECT_EQ(item->Text("source") + (root.empty() ? "" : "[" + root + "]"),
                  row.TextOf("source"));
        if (item->Find("fs_size") != nullptr) {
            Compare(*item, {"size", "fs_size", false}, TextOf(row.Find("size"), 1));
        }
    }
    const auto mounts =
        std::count_if(m_inventory.items.begin(), m_inventory.items.end(),
                      [](const auto& item) { return item.kind == ItemKind::kMount; });
    EXPECT_EQ(static_cast<size_t>(mounts), count);
}

TEST_F(VolumesPeersTest, LvsAndMdadmKnowTheSameNames) {
    NEED_PEER("lvs");
    NEED_PEER("mdadm");
    const JsonValue document =
        PeerJson("lvs --reportformat json -o vg_name,lv_name,origin,lv_size --units b --nosuffix");
    const JsonValue* const reports = document.Find("report");
    ASSERT_TRUE(reports != nullptr && !reports->elements.empty());
    for (const JsonValue& row : reports->elements[0].Find("lv")->elements) {
        if (!row.TextOf("origin").empty()) continue;  // the size of a snapshot is what it may hold
        std::set<std::string> found;
        for (const KemdInventoryItem& item : m_inventory.items) {
            const bool isSame = item.Text("volume_group") == row.TextOf("vg_name") &&
                                item.Text("logical_volume") == row.TextOf("lv_name");
            if (isSame) found.insert(item.Text("size"));
        }
        EXPECT_EQ(found, std::set<std::string>{std::string(row.TextOf("lv_size"))});
    }
    for (const KemdInventoryItem& item : m_inventory.items) {
        if (!item.Text("type").starts_with("raid")) continue;
        const std::string text = PeerText("mdadm --detail --export " + item.Text("device"));
        for (const std::string& line :
             {"MD_LEVEL=" + item.Text("type"), "MD_DEVICES=" + item.Text("raid_disks"),
              "MD_METADATA=" + item.Text("metadata_version"), "MD_UUID=" + item.Text("uuid")}) {
            EXPECT_TRUE(Contains(text, line + "\n")) << line << " is not in " << text;
        }
    }
}
