#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <set>

#include "base/text.h"
#include "inventory/drive_identity.h"
#include "inventory/drive_path.h"
#include "inventory/health_questions.h"
#include "inventory/host_inventory.h"
#include "inventory/sources.h"
#include "inventory/storage_adapters.h"
#include "inventory/sys_directory.h"
#include "inventory/udev_database.h"

namespace {

// One drive while it is read.
struct FoundDrive {
    KemdInventoryItem item;
    std::string interface;
    bool isAta = false;
    bool isAsleep = false;  // the kernel has switched it off: a question would switch it on
};

std::span<const uint8_t> AsBytes(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// "sdb" comes before "sdaa", "nvme2n1" before "nvme10n1".
bool ComesBefore(const KemdInventoryItem& one, const KemdInventoryItem& other) {
    const std::string_view driver = std::string_view(one.name).substr(0, 2);
    const std::string_view otherDriver = std::string_view(other.name).substr(0, 2);
    if (driver != otherDriver) return driver < otherDriver;
    if (one.name.size() != other.name.size()) return one.name.size() < other.name.size();
    return one.name < other.name;
}

class DriveScan {
  public:
    explicit DriveScan(KemdInventory& inventory)
        : m_inventory(&inventory),
          m_adapters(inventory),
          m_hasEnclosures(!SysDirectory(inventory, "/sys/class/enclosure").Names().empty()) {}

    void Read();
    void AskHealth(const KemdInventory* last, bool onlyNew);
    void AddItems();

  private:
    void ReadDrive(const std::string& name, const std::string& path);
    void AddSize(const SysDirectory& block, KemdInventoryItem& item);
    static void AddQueue(const SysDirectory& queue, KemdInventoryItem& item);
    void AddHolders(const SysDirectory& block, KemdInventoryItem& item);
    void AddNvme(const SysDirectory& block, const SysDirectory& device, KemdInventoryItem& item);
    void AddScsi(const SysDirectory& device, const DrivePath& path, const UdevRecord& udev,
                 FoundDrive& drive);
    static void AddAtaOrScsiPages(const SysDirectory& device, FoundDrive& drive);
    static void AddMmc(const SysDirectory& device, KemdInventoryItem& item);
    static void AddFromUdev(const UdevRecord& udev, KemdInventoryItem& item);
    void AddEnclosure(const SysDirectory& device, KemdInventoryItem& item);
    void SetId(const DrivePath& path, KemdInventoryItem& item);
    static std::string PlaceId(const DrivePath& path, const KemdInventoryItem& item);

    KemdInventory* m_inventory;
    StorageAdapters m_adapters;
    bool m_hasEnclosures;
    bool m_hasUdev = false;
    std::vector<std::string> m_names;
    std::set<std::string> m_ids;
    std::vector<FoundDrive> m_drives;
};

// In the order of where they sit, not of their names, which may change with each boot: of two paths
// to one drive the same one has the plain id.
void DriveScan::Read() {
    const SysDirectory blocks(*m_inventory, "/sys/block");
    if (!blocks.IsThere()) m_inventory->Note("/sys/block", "not there: no drives");
    m_names = blocks.Names();
    std::vector<std::pair<std::string, std::string>> paths;
    for (const std::string& name : m_names) {
        std::string path = RealPath("/sys/block/" + name);
        // Loop, RAM, device-mapper and md are volumes.
        if (path.empty() || path.starts_with("/sys/devices/virtual/block/")) continue;
        paths.emplace_back(std::move(path), name);
    }
    std::sort(paths.begin(), paths.end());
    for (const auto& [path, name] : paths) ReadDrive(name, path);
    std::sort(m_drives.begin(), m_drives.end(), [](const FoundDrive& one, const FoundDrive& other) {
        return ComesBefore(one.item, other.item);
    });
    if (!m_drives.empty() && !m_hasUdev) NoteNoUdev(*m_inventory);
}

void DriveScan::ReadDrive(const std::string& name, const std::string& path) {
    const SysDirectory block(*m_inventory, path);
    // What the kernel hides is one path of several to an NVMe drive.
    if (!block.IsThere() || block.Text("hidden") == "1") return;
    const SysDirectory device = block.Below("device");
    const DrivePath place(path);
    const std::string number = block.Text("dev").value_or("");
    const UdevRecord udev(*m_inventory, "b" + number);
    m_hasUdev = m_hasUdev || udev.IsThere();
    FoundDrive drive{{ItemKind::kDrive, {}, name, {}, {}}, {}, false, false};
    KemdInventoryItem& item = drive.item;
    std::string node = "/dev/" + name;
    std::replace(node.begin() + 5, node.end(), '!', '/');
    item.Add("device", node);
    item.Add("device_number", number);
    item.Add("type", name.starts_with("sr") ? "rom" : "disk");
    if (name.starts_with("nvme")) {
        drive.interface = "nvme";
        AddNvme(block, device, item);
    } else if (!place.host.empty()) {
        AddScsi(device, place, udev, drive);
    } else {
        drive.interface = name.starts_with("vd")       ? "virtio"
                          : name.starts_with("xvd")    ? "xen"
                          : name.starts_with("mmcblk") ? "mmc"
                          : name.starts_with("fd")     ? "floppy"
                          : name.starts_with("pmem")   ? "nvdimm"
                                                       : "";
        if (drive.interface == "mmc") AddMmc(device, item);
        item.Add("serial", block.Text("serial").value_or(""));
        item.parent = m_adapters.UnitId(place, device.Path(), drive.interface);
    }
    item.Add("interface", drive.interface);
    AddFromUdev(udev, item);
    if (item.Find("serial") == nullptr && !place.usb.empty()) {
        const SysDirectory bridge(*m_inventory, "/sys/bus/usb/devices/" + place.usb);
        item.Add("serial", bridge.Text("serial").value_or(""));
    }
    AddSize(block, item);
    AddQueue(block.Below("queue"), item);
    AddHolders(block, item);
    item.Add("slot", m_inventory->Find(item.parent) == nullptr
                         ? std::string()
                         : m_inventory->Find(item.parent)->Text("slot"));
    drive.isAsleep = device.Text("power/runtime_status") == "suspended";
    SetId(place, item);
    m_drives.push_back(std::move(drive));
}

void DriveScan::AddSize(const SysDirectory& block, KemdInventoryItem& item) {
    constexpr uint64_t kSector = 512;
    const std::optional<uint64_t> sectors = block.Number("size");
    if (sectors && *sectors > std::numeric_limits<uint64_t>::max() / kSector) {
        m_inventory->Note("drive:" + item.name,
                          "a size of " + std::to_string(*sectors) + " sectors is no size");
    } else if (sectors) {
        item.AddNumber("size", *sectors * kSector);
    }
    if (const auto isRemovable = block.Number("removable")) {
        item.AddNumber("removable", *isRemovable);
    }
    if (const auto isReadOnly = block.Number("ro")) item.AddNumber("read_only", *isReadOnly);
}

void DriveScan::AddQueue(const SysDirectory& queue, KemdInventoryItem& item) {
    constexpr uint64_t kSector = 512;
    const auto addNumber = [&](InventoryField field, const char* name) {
        if (const auto number = queue.Number(name)) item.AddNumber(field, *number);
    };
    addNumber("logical_sector_size", "logical_block_size");
    addNumber("physical_sector_size", "physical_block_size");
    addNumber("minimum_io_size", "minimum_io_size");
    addNumber("optimal_io_size", "optimal_io_size");
    addNumber("discard_granularity", "discard_granularity");
    addNumber("discard_max", "discard_max_bytes");
    addNumber("rotational", "rotational");
    addNumber("queue_requests", "nr_requests");
    const std::string schedulers = queue.Text("scheduler").value_or("");
    const size_t open = schedulers.find('[');
    const size_t close = schedulers.find(']');
    if (open != schedulers.npos && close != schedulers.npos && open < close) {
        item.Add("scheduler", schedulers.substr(open + 1, close - open - 1));
    }
    const std::string zoned = queue.Text("zoned").value_or("");
    item.Add("zoned", zoned);
    if (zoned.empty() || zoned == "none") return;
    addNumber("zones", "nr_zones");
    const auto sectors = queue.Number("chunk_sectors");
    if (sectors && *sectors < std::numeric_limits<uint64_t>::max() / kSector) {
        item.AddNumber("zone_size", *sectors * kSector);
    }
}

void DriveScan::AddHolders(const SysDirectory& block, KemdInventoryItem& item) {
    for (const std::string& holder : block.Below("holders").Names()) {
        const SysDirectory mapper(*m_inventory, "/sys/block/" + holder + "/dm");
        const std::string name = mapper.Text("name").value_or(holder);
        item.Add("holders", name);
        if (mapper.Text("uuid").value_or("").starts_with("mpath-")) item.Add("multipath", name);
    }
}

void DriveScan::AddNvme(const SysDirectory& block, const SysDirectory& device,
                        KemdInventoryItem& item) {
    constexpr std::string_view kNoName = "0 -";
    item.Add("model", device.Text("model").value_or(""));
    item.Add("serial", device.Text("serial").value_or(""));
    item.Add("firmware", device.Text("firmware_rev").value_or(""));
    item.Add("wwn", DriveWwn(block.Text("wwid").value_or("")));
    std::string eui = block.Text("eui").value_or("");
    std::erase(eui, ' ');
    const std::string nguid = block.Text("nguid").value_or("");
    if (eui.find_first_not_of(kNoName) != eui.npos) item.Add("eui64", eui);
    if (nguid.find_first_not_of(kNoName) != nguid.npos) item.Add("nguid", nguid);
    if (const auto number = block.Number("nsid")) item.AddNumber("namespace", *number);
    const std::string real = RealPath(device.Path());
    item.parent = m_adapters.NvmeId(real.substr(real.rfind('/') + 1));
    if (!item.parent.empty()) return;
    // "nvme0n1" of a subsystem has the paths "nvme0c0n1", "nvme0c1n1" by the controllers "nvme0"
    // and "nvme1".
    const size_t digits = item.name.find('n', 1);
    const std::string prefix = item.name.substr(0, digits) + "c";
    const std::string suffix = digits == item.name.npos ? "" : item.name.substr(digits);
    for (const std::string& name : m_names) {
        if (!name.starts_with(prefix) || !name.ends_with(suffix)) continue;
        item.Add("nvme_paths", name);
        const size_t length = name.size() - prefix.size() - suffix.size();
        const std::string id = m_adapters.NvmeId("nvme" + name.substr(prefix.size(), length));
        if (item.parent.empty()) item.parent = id;
    }
}

void DriveScan::AddScsi(const SysDirectory& device, const DrivePath& path, const UdevRecord& udev,
                        FoundDrive& drive) {
    KemdInventoryItem& item = drive.item;
    const StorageAdapters::Host* const host = m_adapters.FindHost(path.host);
    drive.interface = host == nullptr ? "scsi" : host->interface;
    if (device.Has("sas_device")) drive.interface = "sas";
    if (host != nullptr) item.parent = host->adapter;
    const std::string vendor = device.Text("vendor").value_or("");
    drive.isAta = vendor == "ATA";
    if (!drive.isAta) item.Add("vendor", vendor);
    AddAtaOrScsiPages(device, drive);
    item.Add("wwn", item.Find("wwn") == nullptr ? DriveWwn(device.Text("wwid").value_or("")) : "");
    if (item.Find("wwn") == nullptr) {
        constexpr size_t kMost = 4096;
        item.Add("wwn", ReadWwnPage(AsBytes(device.Bytes("vpd_pg83", kMost))));
    }
    // SCSI's text is cut after 16 characters; udev has an ATA drive's whole one.
    if (item.Find("model") == nullptr) {
        item.Add("model", drive.isAta ? udev.Property("ID_MODEL_ENC") : "");
    }
    if (item.Find("model") == nullptr) item.Add("model", device.Text("model").value_or(""));
    if (item.Find("firmware") == nullptr && drive.isAta) {
        item.Add("firmware", udev.Property("ID_REVISION"));
    }
    if (item.Find("firmware") == nullptr) item.Add("firmware", device.Text("rev").value_or(""));
    item.Add("state", device.Text("state").value_or(""));
    item.Add("sas_address", device.Text("sas_address").value_or(""));
    item.Add("hctl", path.hctl);
    if (!path.ata.empty()) {
        const SysDirectory port(*m_inventory, "/sys/class/ata_port/" + path.ata);
        item.Add("port", port.Text("port_no").value_or(""));
    }
    if (m_hasEnclosures) AddEnclosure(device, item);
}

void DriveScan::AddAtaOrScsiPages(const SysDirectory& device, FoundDrive& drive) {
    constexpr size_t kMost = 1024;
    KemdInventoryItem& item = drive.item;
    if (drive.isAta) {
        const AtaIdentity ata = ReadAtaIdentity(AsBytes(device.Bytes("vpd_pg89", kMost)));
        item.Add("model", ata.model);
        item.Add("serial", ata.serial);
        item.Add("firmware", ata.firmware);
        item.Add("wwn", ata.wwn);
        if (ata.rotationRate != 0) item.AddNumber("rotation_rate", ata.rotationRate);
    }
    if (item.Find("serial") == nullptr) {
        item.Add("serial", ReadSerialPage(AsBytes(device.Bytes("vpd_pg80", kMost))));
    }
}

void DriveScan::AddMmc(const SysDirectory& device, KemdInventoryItem& item) {
    item.Add("model", device.Text("name").value_or(""));
    item.Add("serial", device.Text("serial").value_or(""));
    item.Add("firmware", device.Text("fwrev").value_or(""));
}

void DriveScan::AddFromUdev(const UdevRecord& udev, KemdInventoryItem& item) {
    const std::string path = udev.Property("ID_PATH");
    if (!path.empty()) item.Add("by_path", "/dev/disk/by-path/" + path);
    const auto addFirst = [&](InventoryField field, std::initializer_list<const char*> names) {
        for (const char* const name : names) {
            if (item.Find(field) == nullptr) item.Add(field, udev.Property(name));
        }
    };
    addFirst("serial", {"SCSI_IDENT_SERIAL", "ID_SCSI_SERIAL", "ID_SERIAL_SHORT"});
    addFirst("wwn", {"ID_WWN_WITH_EXTENSION", "ID_WWN"});
    addFirst("model", {"ID_MODEL_ENC", "ID_MODEL"});
}

void DriveScan::AddEnclosure(const SysDirectory& device, KemdInventoryItem& item) {
    constexpr std::string_view kPrefix = "enclosure_device:";
    for (const std::string& name : device.Names()) {
        if (!name.starts_with(kPrefix)) continue;
        const SysDirectory bay = device.Below(name.c_str());
        const std::string real = RealPath(bay.Path());
        const SysDirectory enclosure(*m_inventory, real.substr(0, real.rfind('/')));
        item.Add("bay", name.substr(kPrefix.size()));
        item.Add("enclosure", enclosure.Text("id").value_or(""));
        return;
    }
}

// Where the drive sits, for one that has no name of its own.
std::string DriveScan::PlaceId(const DrivePath& path, const KemdInventoryItem& item) {
    std::string place = path.Hardware().empty() ? item.name : path.Hardware();
    if (!item.Text("port").empty()) place += "-ata" + item.Text("port");
    const size_t target = path.hctl.find(':');
    if (target != path.hctl.npos) place += "-" + path.hctl.substr(target + 1);
    if (item.Find("namespace") != nullptr) place += "-" + item.Text("namespace");
    return place;
}

void DriveScan::SetId(const DrivePath& path, KemdInventoryItem& item) {
    std::string name = item.Text("wwn");
    if (name.empty() && !item.Text("serial").empty()) {
        const std::string& model = item.Text("model");
        name = (model.empty() ? "" : model + "_") + item.Text("serial");
    }
    if (name.empty()) name = PlaceId(path, item);
    const std::string plain = "drive:" + IdPart(name);
    item.id = plain;
    for (unsigned number = 2; !m_ids.insert(item.id).second; ++number) {
        item.id = plain + "#" + std::to_string(number);
    }
}

// eMMC: read by the kernel when it found the card, in steps of 10 %.
void AddMmcHealth(KemdInventory& inventory, KemdInventoryItem& item) {
    constexpr uint64_t kStep = 10;
    const SysDirectory device(inventory, "/sys/block/" + item.name + "/device");
    const std::optional<std::string> life = device.Text("life_time");
    if (!life) return;
    DriveHealth health;
    for (std::string_view rest = *life; !rest.empty();) {
        const std::string_view word = rest.substr(0, rest.find(' '));
        rest = TrimStart(rest.substr(word.size()));
        uint64_t steps = 0;
        if (word.size() <= 2) continue;
        std::from_chars(word.data() + 2, word.data() + word.size(), steps, 16);
        if (steps == 0 || steps > 11) continue;
        health.percentageUsed = std::max(health.percentageUsed.value_or(0), steps * kStep);
    }
    const uint64_t endOfLife = device.Number("pre_eol_info").value_or(0);
    if (endOfLife >= 1 && endOfLife <= 3) health.isFailing = endOfLife == 3;
    if (endOfLife == 2) health.criticalWarnings.emplace_back("spare blocks at 80 %");
    if (endOfLife == 3) health.criticalWarnings.emplace_back("spare blocks at 90 %");
    AddHealth(item, health);
}

std::optional<HealthLanguage> LanguageOf(const FoundDrive& drive) {
    if (drive.item.Text("type") != "disk") return std::nullopt;
    if (drive.interface == "nvme") return HealthLanguage::kNvme;
    // A stick has nothing to say, and some hang at what they do not know. A bridge passes ATA on or
    // refuses; SCSI's log pages are beyond most.
    if (drive.interface == "usb" && drive.item.Number("removable") != 0) return std::nullopt;
    if (drive.isAta || drive.interface == "usb") return HealthLanguage::kAta;
    const bool isScsi = drive.interface == "scsi" || drive.interface == "sas" ||
                        drive.interface == "fc" || drive.interface == "iscsi";
    if (isScsi) return HealthLanguage::kScsi;
    return std::nullopt;
}

dev_t NumberOf(const std::string& text) {
    unsigned major = 0;
    unsigned minor = 0;
    const char* const end = text.data() + text.size();
    const char* const colon = std::from_chars(text.data(), end, major).ptr;
    if (colon != end) std::from_chars(colon + 1, end, minor);
    return makedev(major, minor);
}

void AddAnswer(KemdInventory& inventory, const HealthAnswer& answer, KemdInventoryItem& item) {
    AddHealth(item, answer.health);
    const std::string subject = "drive:" + item.name + ": health";
    if (answer.isLate) {
        inventory.Note(subject,
                       "no answer within " + std::to_string(kHealthQuestionSeconds) + " s");
    } else if (answer.error == EACCES || answer.error == EPERM) {
        inventory.Note("health of drives", "only root may ask for it");
    } else if (answer.error != 0) {
        inventory.NoteError(subject, answer.error);
    }
}

// The same drive in the last inventory: what has no name of its own may be another one in its
// place.
const KemdInventoryItem* FindLast(const KemdInventory* last, const KemdInventoryItem& item) {
    const KemdInventoryItem* const found = last == nullptr ? nullptr : last->Find(item.id);
    const bool isSame = found != nullptr && found->Text("model") == item.Text("model") &&
                        found->Number("size") == item.Number("size");
    return isSame ? found : nullptr;
}

// Why a drive could not be asked last time is true until it is asked again.
void KeepNotes(const KemdInventory& last, const std::string& lastName, const std::string& name,
               KemdInventory& inventory) {
    for (const std::string_view note : last.notes) {
        const size_t colon = note.find(": ");
        if (note.starts_with("health of drives: ")) {
            inventory.Note(note.substr(0, colon), note.substr(colon + 2));
        } else if (const std::string subject = "drive:" + lastName + ": health";
                   note.starts_with(subject + ": ")) {
            inventory.Note("drive:" + name + ": health", note.substr(subject.size() + 2));
        }
    }
}

void DriveScan::AskHealth(const KemdInventory* last, bool onlyNew) {
    std::vector<HealthTarget> targets;
    std::vector<KemdInventoryItem*> items;
    for (FoundDrive& drive : m_drives) {
        const std::optional<HealthLanguage> language = LanguageOf(drive);
        if (drive.interface == "mmc") AddMmcHealth(*m_inventory, drive.item);
        if (!language) continue;
        const KemdInventoryItem* const was = FindLast(last, drive.item);
        if (onlyNew && was != nullptr && was->Find("health") != nullptr) {
            KeepNotes(*last, was->name, drive.item.name, *m_inventory);
            continue;
        }
        if (drive.isAsleep) {
            drive.item.Add("power_state", "suspended");
            continue;
        }
        targets.push_back(
            {drive.item.Text("device"), NumberOf(drive.item.Text("device_number")), *language});
        items.push_back(&drive.item);
    }
    const std::vector<HealthAnswer> answers = AskForHealth(targets);
    for (size_t i = 0; i < answers.size(); ++i) AddAnswer(*m_inventory, answers[i], *items[i]);
    for (FoundDrive& drive : m_drives) {
        const KemdInventoryItem* const was = FindLast(last, drive.item);
        if (was != nullptr) KeepHealth(*was, last->time, drive.item);
    }
}

void DriveScan::AddItems() {
    for (FoundDrive& drive : m_drives) {
        KemdInventoryItem& item =
            m_inventory->Add(ItemKind::kDrive, drive.item.id, drive.item.name);
        item.parent = std::move(drive.item.parent);
        item.values = std::move(drive.item.values);
    }
}

}  // namespace

void ScanDrives(KemdInventory& inventory, bool withHealth, const KemdInventory* last,
                bool onlyNew) {
    DriveScan scan(inventory);
    scan.Read();
    if (withHealth) scan.AskHealth(last, onlyNew);
    scan.AddItems();
}
