#include "kemdctl/inventory/slots.h"

#include <algorithm>

#include "base/text.h"
#include "kemdctl/ui/text.h"

namespace {

using Bytes = std::span<const uint8_t>;

// Offsets of the fields that identify a slot, by DMTF DSP0134.
struct Layout {
    uint8_t structure;
    size_t label;  // string number
    size_t number;
    size_t bus;
    size_t deviceFunction;  // the last of these fields
};
constexpr Layout kSystemSlot = {9, 0x04, 0x09, 0x0F, 0x10};
constexpr Layout kOnboardDevice = {41, 0x04, 0x06, 0x09, 0x0A};

struct Name {
    uint8_t bus;
    uint8_t device;
    uint8_t number;
    bool isOnboard;
    std::string label;
};

std::string TextOf(const CSMBios& smbios, size_t position, uint8_t number) {
    SmbiosWalk walk(Bytes(smbios.Data().table).subspan(position));
    SmbiosStructure structure;
    std::string found;
    if (!walk.ReadHeader(structure) || !walk.SkipFormatted(structure)) return found;
    int count = 0;
    (void)walk.SkipStrings([&](std::string_view text) {
        if (++count == number) found = text;
    });
    return std::string(TrimEnd(found, " "));  // some firmware pads it
}

std::vector<size_t> PositionsOf(const CSMBios& smbios, const Layout& layout) {
    const auto found = smbios.Structures().find(layout.structure);
    return found != smbios.Structures().end() ? found->second : std::vector<size_t>();
}

std::vector<Name> GatherNames(const CSMBios& smbios) {
    std::vector<Name> names;
    for (const Layout& layout : {kSystemSlot, kOnboardDevice}) {
        for (const size_t position : PositionsOf(smbios, layout)) {
            const Bytes bytes = smbios.Formatted(position);
            if (bytes.size() <= layout.deviceFunction) continue;
            names.push_back({bytes[layout.bus],
                             static_cast<uint8_t>(bytes[layout.deviceFunction] >> 3),
                             bytes[layout.number], layout.structure == kOnboardDevice.structure,
                             TextOf(smbios, position, bytes[layout.label])});
        }
    }
    return names;
}

}  // namespace

SlotRows MakeSlotRows(const CPciSlotMap::Slots& slots, PciSlotSource source,
                      const CSMBios& smbios) {
    const bool isOwn = source == PciSlotSource::kSmbios;
    std::vector<Name> names = GatherNames(smbios);
    SlotRows rows;
    for (const PciSlotData& slot : slots) {
        // A routing table gives the number 0 to what is on board.
        SlotRow row = {slot, !isOwn && slot.slot == 0, ""};
        const auto name = std::find_if(names.begin(), names.end(), [&](const Name& each) {
            return each.bus == slot.bus && each.device == slot.device &&
                   (!isOwn || each.number == slot.slot);
        });
        if (name != names.end()) {
            row.isOnboard = row.isOnboard || (isOwn && name->isOnboard);
            row.label = name->label;
            if (isOwn) names.erase(name);  // the next row may be another function of the device
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

const SlotRow* FindSlotRow(const SlotRows& rows, uint8_t bus, uint8_t device) {
    const auto find = [&rows](auto matches) {
        const auto found = std::find_if(rows.begin(), rows.end(), matches);
        return found != rows.end() ? &*found : nullptr;
    };
    const SlotRow* const exact =
        find([&](const SlotRow& row) { return row.data.Matches(bus, device, false); });
    if (exact != nullptr) return exact;
    return find(
        [&](const SlotRow& row) { return row.data.Matches(bus, device, row.data.IsSerialBus()); });
}

std::string WhyNoSlots(const CSMBios& smbios) {
    const SmbiosRevision revision = smbios.Revision();
    const size_t count = PositionsOf(smbios, kSystemSlot).size();
    const bool isOld = revision.major < 2 || (revision.major == 2 && revision.minor < 6);
    if (isOld) {
        return "the tables are of SMBIOS " + std::to_string(revision.major) + "." +
               std::to_string(revision.minor) +
               ", and only those from 2.6 on say which device is in which slot";
    }
    if (count == 0) return "the tables describe no slot";
    return "none of the " + Counted(count, "slot") + " in the tables names its bus";
}
