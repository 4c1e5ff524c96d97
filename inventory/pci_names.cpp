// What items of other sections say of the PCI function that they belong to.
#include <algorithm>
#include <charconv>

#include "inventory/host_inventory.h"
#include "inventory/id_names.h"
#include "inventory/pci_function.h"
#include "inventory/sys_directory.h"

std::vector<PciNames> NamePciFunctions(KemdInventory& inventory,
                                       const std::vector<std::optional<PciAddress>>& addresses) {
    struct Ids {
        uint16_t vendor = 0;
        uint16_t device = 0;
    };
    IdNames names;
    std::vector<Ids> wanted(addresses.size());
    for (size_t i = 0; i < addresses.size(); ++i) {
        if (!addresses[i] || inventory.Find(addresses[i]->Id()) != nullptr) continue;
        const SysDirectory directory(inventory, "/sys/bus/pci/devices/" + addresses[i]->Text());
        wanted[i].vendor = static_cast<uint16_t>(directory.Number("vendor").value_or(0));
        wanted[i].device = static_cast<uint16_t>(directory.Number("device").value_or(0));
        if (wanted[i].vendor != 0) names.WantDevice(wanted[i].vendor, wanted[i].device);
    }
    names.ReadPci(inventory);
    std::vector<PciNames> found(addresses.size());
    for (size_t i = 0; i < addresses.size(); ++i) {
        if (!addresses[i]) continue;
        const KemdInventoryItem* const item = inventory.Find(addresses[i]->Id());
        found[i].vendor = item != nullptr ? item->Text("vendor") : names.Vendor(wanted[i].vendor);
        found[i].device = item != nullptr ? item->Text("device")
                                          : names.Device(wanted[i].vendor, wanted[i].device);
    }
    return found;
}

unsigned PciSlotNumber(const CPciSlotMap::Slots& slots, PciSlotSource source,
                       const PciAddress& address, bool isBelowBridge) {
    const auto fits = [&](const PciSlotData& slot) {
        const bool isOnboard =
            slot.slot == 0 || (source == PciSlotSource::kSmbios && slot.type == 0);
        // Of a serial slot some firmwares give the port instead of the bus below it. So on a root
        // bus, which no slot has for its own, the device counts.
        return !isOnboard &&
               slot.Matches(address.bus, address.device, isBelowBridge && slot.IsSerialBus());
    };
    const auto found = std::find_if(slots.begin(), slots.end(), fits);
    return address.segment != 0 || found == slots.end() ? 0 : found->slot;
}

unsigned PciSlotOf(const KemdInventory& inventory, const PciAddress& address) {
    if (const KemdInventoryItem* const item = inventory.Find(address.Id())) {
        const std::string& text = item->Text("slot");
        unsigned slot = 0;
        (void)std::from_chars(text.data(), text.data() + text.size(), slot);
        return slot;
    }
    return PciSlotNumber(CPciSlotMap::GetSlotMapping(), CPciSlotMap::Source(), address, true);
}
