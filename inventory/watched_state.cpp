#include "inventory/watched_state.h"

#include <algorithm>
#include <array>
#include <utility>

#include "inventory/sources.h"
#include "inventory/volumes.h"

namespace {

struct SubsystemSections {
    std::string_view subsystem;
    uint32_t sections;
};
constexpr auto kSubsystems = std::to_array<SubsystemSections>({
    {"block", KEMD_INVENTORY_DRIVES | KEMD_INVENTORY_VOLUMES},
    {"mmc", KEMD_INVENTORY_DRIVES},
    {"nvme", KEMD_INVENTORY_DRIVES},
    {"pci", KEMD_INVENTORY_PCI},
    {"scsi", KEMD_INVENTORY_DRIVES},
    {"scsi_host", KEMD_INVENTORY_DRIVES},
    {"usb", KEMD_INVENTORY_USB},
});

std::string LastName(std::string_view path) {
    return std::string(path.substr(path.rfind('/') + 1));
}

// What an event and an item of the same device have in common; empty for those without events of
// their own.
std::string KeyOf(const Uevent& event) {
    const std::string_view subsystem = event.Field("SUBSYSTEM");
    const std::string name = LastName(event.Field("DEVPATH"));
    if (subsystem == "block") return "block:" + name;
    if (subsystem == "pci") return "pci:" + name;
    if (subsystem == "usb" && event.Field("DEVTYPE") == "usb_device") return "usb:" + name;
    return {};
}

std::string KeyOf(const KemdInventoryItem& item) {
    switch (item.kind) {
        case ItemKind::kPci:
        case ItemKind::kUsb:
            return item.id;
        case ItemKind::kDrive:
        case ItemKind::kPartition:
        case ItemKind::kVolume: {
            const std::string& device = item.Text("device");
            return device.empty() ? std::string() : "block:" + KernelName(device);
        }
        default:
            return {};
    }
}

ItemKind KindOf(const Uevent& event) {
    const std::string_view subsystem = event.Field("SUBSYSTEM");
    if (subsystem == "pci") return ItemKind::kPci;
    if (subsystem == "usb") return ItemKind::kUsb;
    if (event.Field("DEVTYPE") == "partition") return ItemKind::kPartition;
    const bool isVirtual = event.Field("DEVPATH").starts_with("/devices/virtual/block/");
    return isVirtual ? ItemKind::kVolume : ItemKind::kDrive;
}

const KemdInventoryItem* FindKind(const std::vector<KemdInventoryItem>& items, ItemKind kind) {
    const auto found = std::find_if(items.begin(), items.end(),
                                    [kind](const auto& item) { return item.kind == kind; });
    return found == items.end() ? nullptr : &*found;
}

void ScanSections(KemdInventory& inventory, uint32_t sections) {
    if ((sections & KEMD_INVENTORY_PCI) != 0) ScanPci(inventory);
    if ((sections & KEMD_INVENTORY_USB) != 0) ScanUsb(inventory);
    if ((sections & KEMD_INVENTORY_DRIVES) != 0) ScanDrives(inventory, false);
    if ((sections & KEMD_INVENTORY_VOLUMES) != 0) ScanVolumes(inventory);
}

}  // namespace

WatchedState::WatchedState(uint32_t sections, Deliver deliver)
    : m_sections(sections & (KEMD_INVENTORY_PCI | KEMD_INVENTORY_USB | KEMD_INVENTORY_DRIVES |
                             KEMD_INVENTORY_VOLUMES)),
      m_deliver(std::move(deliver)) {
    m_state = Scanned(m_sections);
}

uint32_t WatchedState::SectionsOf(const Uevent& event) {
    const auto* const found = std::find_if(
        kSubsystems.begin(), kSubsystems.end(),
        [&](const auto& entry) { return entry.subsystem == event.Field("SUBSYSTEM"); });
    return found == kSubsystems.end() ? 0 : found->sections;
}

// The items of other sections stay: they are the parents of what is found.
KemdInventory WatchedState::Scanned(uint32_t sections) const {
    KemdInventory next;
    next.sections = m_sections;
    for (const KemdInventoryItem& item : m_state.items) {
        if ((KindSection(item.kind) & sections) == 0) next.Append(item);
    }
    ScanSections(next, sections);
    return next;
}

WatchedState::ByKey WatchedState::Keyed(const KemdInventory& inventory) {
    ByKey items;
    for (const KemdInventoryItem& item : inventory.items) {
        std::string key = KeyOf(item);
        if (!key.empty()) items.emplace(std::move(key), &item);
    }
    return items;
}

WatchedState::Items WatchedState::ItemsOf(const ByKey& items, const std::string& key) {
    Items found;
    const auto [begin, end] = items.equal_range(key);
    for (auto each = begin; each != end; ++each) found.push_back(*each->second);
    return found;
}

WatchedState::Items WatchedState::MadeFrom(const Uevent& event) const {
    const ItemKind kind = KindOf(event);
    if ((KindSection(kind) & m_sections) == 0) return {};
    const std::string name = LastName(event.Field("DEVPATH"));
    KemdInventoryItem item{kind, std::string(KindWord(kind)) + ":" + name, name, {}, {}};
    if (event.Field("SUBSYSTEM") == "block") {
        item.Add("device", DeviceNode(name));
        item.Add("partition_name", event.Field("PARTNAME"));
    }
    if (const auto number = event.Number("PARTN")) item.AddNumber("partition_number", *number);
    item.Add("driver", event.Field("DRIVER"));
    return {std::move(item)};
}

void WatchedState::Update(uint32_t sections, const std::vector<Uevent>& events) {
    sections &= m_sections;
    if (sections == 0) return;
    KemdInventory next = Scanned(sections);
    const ByKey before = Keyed(m_state);
    const ByKey after = Keyed(next);
    m_touched.clear();
    for (const Uevent& event : events) {
        const std::string key = KeyOf(event);
        const std::string_view action = event.Field("ACTION");
        if (key.empty() || (action != "add" && action != "remove")) continue;
        if (!m_touched.contains(key)) m_touched.emplace(key, ItemsOf(before, key));
        if (action == "add") {
            OnCome(key, event, after);
        } else {
            OnGone(key);
        }
    }
    DeliverTouched(after);
    DeliverOthers(next);
    std::erase_if(m_unseen, [&](const auto& entry) { return after.contains(entry.first); });
    m_state = std::move(next);
}

void WatchedState::Resynchronise() {
    m_unseen.clear();
    Update(m_sections, {});
}

void WatchedState::OnCome(const std::string& key, const Uevent& event, const ByKey& next) {
    Items& items = m_touched[key];
    if (!items.empty()) return;  // a scan was faster
    items = ItemsOf(next, key);
    if (items.empty()) m_unseen.insert_or_assign(key, event);
    DeliverNew(items);
}

void WatchedState::OnGone(const std::string& key) {
    Items items = std::exchange(m_touched[key], {});
    // It came and went between two scans.
    const auto unseen = m_unseen.extract(key);
    if (items.empty() && !unseen.empty()) {
        items = MadeFrom(unseen.mapped());
        DeliverNew(items);
    }
    DeliverGone(items);
}

void WatchedState::DeliverTouched(const ByKey& next) {
    for (const auto& [key, delivered] : m_touched) {
        const Items now = ItemsOf(next, key);
        for (const KemdInventoryItem& item : delivered) {
            if (FindKind(now, item.kind) == nullptr) DeliverGone({item});
        }
        for (const KemdInventoryItem& item : now) {
            const KemdInventoryItem* const before = FindKind(delivered, item.kind);
            if (before == nullptr) DeliverNew({item});
            if (before != nullptr) DeliverChanged(*before, item);
        }
    }
}

void WatchedState::DeliverOthers(const KemdInventory& next) {
    std::vector<ItemDifference> differences = CompareInventories(m_state, next, false);
    std::erase_if(differences, [this](const ItemDifference& difference) {
        const auto* const item =
            difference.before != nullptr ? difference.before : difference.after;
        return m_touched.contains(KeyOf(*item));
    });
    // An id becomes another one when more is known of the device: that is a change.
    const auto isSameDevice = [](const KemdInventoryItem& a, const KemdInventoryItem& b) {
        return a.kind == b.kind && !KeyOf(a).empty() && KeyOf(a) == KeyOf(b);
    };
    for (ItemDifference& gone : differences) {
        if (gone.before == nullptr || gone.after != nullptr) continue;
        const auto same = std::find_if(differences.begin(), differences.end(), [&](const auto& d) {
            return d.before == nullptr && d.after != nullptr &&
                   isSameDevice(*gone.before, *d.after);
        });
        if (same == differences.end()) continue;
        gone.after = std::exchange(same->after, nullptr);
        gone.fields = CompareItems(*gone.before, *gone.after, false);
    }
    for (const ItemDifference& difference : differences) {
        if (difference.before != nullptr || difference.after != nullptr) m_deliver(difference);
    }
}

void WatchedState::DeliverNew(const Items& items) {
    for (const KemdInventoryItem& item : items) m_deliver({nullptr, &item, {}});
}

void WatchedState::DeliverGone(const Items& items) {
    for (const KemdInventoryItem& item : items) m_deliver({&item, nullptr, {}});
}

void WatchedState::DeliverChanged(const KemdInventoryItem& before, const KemdInventoryItem& after) {
    std::vector<FieldDifference> fields = CompareItems(before, after, false);
    if (!fields.empty()) m_deliver({&before, &after, std::move(fields)});
}
