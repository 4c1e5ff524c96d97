// What a watch knows of the host, and how it changes: by what the kernel says and by scans. One
// thread. Throws std::bad_alloc alone.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "inventory/difference.h"
#include "inventory/host_inventory.h"
#include "inventory/uevent.h"

class WatchedState {
  public:
    using Deliver = std::function<void(const ItemDifference&)>;

    // Scans.
    WatchedState(uint32_t sections, Deliver deliver);

    // Scans these of its sections again and delivers what differs. `events`, in their order, are
    // what the kernel said since the last time: each device that came or went is delivered, also
    // one that a scan never found.
    void Update(uint32_t sections, const std::vector<Uevent>& events);
    // The same for all, after events were lost.
    void Resynchronise();

    // Which sections an event concerns.
    static uint32_t SectionsOf(const Uevent& event);

  private:
    using Items = std::vector<KemdInventoryItem>;
    // The items of an inventory by the devices that they are.
    using ByKey = std::multimap<std::string, const KemdInventoryItem*>;

    [[nodiscard]] KemdInventory Scanned(uint32_t sections) const;
    void OnCome(const std::string& key, const Uevent& event, const ByKey& next);
    void OnGone(const std::string& key);
    // Items that this one device is.
    [[nodiscard]] static Items ItemsOf(const ByKey& items, const std::string& key);
    [[nodiscard]] static ByKey Keyed(const KemdInventory& inventory);
    [[nodiscard]] Items MadeFrom(const Uevent& event) const;
    void DeliverTouched(const ByKey& next);
    void DeliverOthers(const KemdInventory& next);
    void DeliverNew(const Items& items);
    void DeliverGone(const Items& items);
    void DeliverChanged(const KemdInventoryItem& before, const KemdInventoryItem& after);

    uint32_t m_sections;
    Deliver m_deliver;
    KemdInventory m_state;
    std::map<std::string, Items> m_touched;  // of the current update: as last delivered
    std::map<std::string, Uevent> m_unseen;  // came, but are no items yet
};
