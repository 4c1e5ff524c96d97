// Expansion slots, joined with the slot map.
#include "inventory/smbios_items.h"
#include "inventory/smbios_names.h"
#include "kemd/pci_slot_map.h"

namespace {

constexpr uint8_t kTypeOfSlot = 0x05;
constexpr size_t kPeerSize = 5;

std::string TypeWord(uint8_t type) {
    const std::string name = SlotTypeName(type);
    const bool isNamed = type != 0 && !name.starts_with("code ");
    return isNamed ? name : SmbiosWord({}, type);
}

void AddPeers(KemdInventoryItem& item, const SmbiosRecord& record) {
    const uint8_t count = record.Byte(0x12);
    for (size_t i = 0; i < count && record.Has(0x13 + i * kPeerSize, kPeerSize); ++i) {
        const size_t peer = 0x13 + i * kPeerSize;
        item.Add("peer_addresses",
                 SmbiosPciAddress(record.Word(peer), record.Byte(peer + 2), record.Byte(peer + 3)));
    }
}

// Whether the address is that of the bus and device, whatever its function.
bool IsAt(const KemdInventoryItem& slot, const std::string& address) {
    const size_t length = address.size() - 1;
    return slot.Text("bus_address").compare(0, length, address, 0, length) == 0;
}

}  // namespace

void SmbiosItems::AddSlots() {
    constexpr uint8_t kUnknown = 1;
    for (const SmbiosRecord& record : Records(9)) {
        KemdInventoryItem& item = Add(ItemKind::kSlot, record.Text(0x04), record);
        if (record.Has(kTypeOfSlot)) item.Add("type", TypeWord(record.Byte(kTypeOfSlot)));
        record.AddWord(item, "width", 0x06, kSlotWidthWords);
        record.AddWord(item, "usage", 0x07, kSlotUsageWords);
        record.AddWord(item, "length", 0x08, kSlotLengthWords);
        if (record.Has(0x09)) item.AddNumber("number", record.Byte(0x09));
        if ((record.Byte(0x0B) & kUnknown) == 0) {
            AddFlags(item, "characteristics", kSlotBits1, record.Byte(0x0B));
            AddFlags(item, "characteristics", kSlotBits2, record.Byte(0x0C));
        }
        if (record.Has(0x0D, 4)) {
            item.Add("bus_address",
                     SmbiosPciAddress(record.Word(0x0D), record.Byte(0x0F), record.Byte(0x10)));
        }
        AddPeers(item, record);
    }
}

// Older firmware gives slots no address, and the routing table has slots that SMBIOS lacks.
void JoinSlotMap(KemdInventory& inventory, const CPciSlotMap::Slots& slots, PciSlotSource source) {
    if (source != PciSlotSource::kIrqRoutingTable) return;  // the items are what it was made of
    for (const PciSlotData& slot : slots) {
        if (slot.slot == 0) continue;  // on board
        const std::string address = SmbiosPciAddress(0, slot.bus, uint8_t(slot.device << 3));
        KemdInventoryItem* found = nullptr;
        for (KemdInventoryItem& item : inventory.items) {
            if (item.kind != ItemKind::kSlot) continue;
            const bool isNumbered = item.Find("number") != nullptr &&
                                    item.Find("bus_address") == nullptr &&
                                    item.Number("number") == slot.slot;
            if (IsAt(item, address) || isNumbered) found = &item;
        }
        if (found == nullptr) {
            const std::string number = std::to_string(slot.slot);
            found = &inventory.Add(ItemKind::kSlot, "slot:" + number, number);
            found->AddNumber("number", slot.slot);
            if (slot.type != 0) found->Add("type", TypeWord(slot.type));
        }
        if (found->Find("bus_address") == nullptr) found->Add("bus_address", address);
    }
}
