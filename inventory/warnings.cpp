// What needs attention, from the items that the sources found.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

#include "inventory/host_inventory.h"
#include "inventory/sources.h"

namespace {

using Item = KemdInventoryItem;
using Items = std::vector<const Item*>;

std::vector<std::string> Values(const Item& item, InventoryField field) {
    std::vector<std::string> texts;
    for (const auto& value : item.values) {
        if (value.field == field) texts.push_back(value.text);
    }
    return texts;
}

template <typename Texts>
std::string Joined(const Texts& texts) {
    std::string all;
    for (const std::string& text : texts) all += (all.empty() ? "" : ", ") + text;
    return all;
}

// "8", "2.5": of what is counted in thousandths.
std::string Thousands(uint64_t number) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", static_cast<double>(number) / 1000);
    return text;
}

class Warnings {
  public:
    explicit Warnings(KemdInventory& inventory) : m_inventory(inventory) {}
    void Links();
    void MemorySpeed();
    void MemoryChannels();
    void DriveHealth();
    // Of what is there several times.
    void Firmware(ItemKind kind, const char* word);
    void Volumes();
    void Processors();
    void Notes();

  private:
    [[nodiscard]] Items Of(ItemKind kind) const {
        Items items;
        for (const Item& item : m_inventory.items) {
            if (item.kind == kind) items.push_back(&item);
        }
        return items;
    }
    void Warn(std::string text) { m_inventory.warnings.push_back(std::move(text)); }
    void Link(const Item& item);

    KemdInventory& m_inventory;
};

void Warnings::Link(const Item& item) {
    const std::string subject = "PCI " + item.name;
    const auto most = [&item](InventoryField own, InventoryField port) {
        const uint64_t below = item.Number(port);
        return below == 0 ? item.Number(own) : std::min(item.Number(own), below);
    };
    for (const std::string& what : Values(item, "link_degraded")) {
        if (what == "width") {
            Warn(subject + " runs with " + item.Text("link_width") + " of " +
                 std::to_string(most("link_width_max", "port_width_max")) + " lanes");
        }
        // Display adapters slow their link down while they are idle.
        constexpr std::string_view kDisplay = "03";
        if (what == "speed" && !item.Text("class_id").starts_with(kDisplay)) {
            Warn(subject + " runs at " + Thousands(item.Number("link_speed")) + " of " +
                 Thousands(most("link_speed_max", "port_speed_max")) + " GT/s");
        }
    }
    // A port of an older generation is no fault of this machine; one with too few lanes may be
    // the wrong slot.
    for (const std::string& what : Values(item, "link_limited")) {
        if (what != "width") continue;
        Warn(subject + " has " + item.Text("link_width_max") + " lanes, its slot only " +
             item.Text("port_width_max"));
    }
}

void Warnings::Links() {
    for (const Item* const item : Of(ItemKind::kPci)) Link(*item);
}

void Warnings::MemorySpeed() {
    std::map<std::pair<uint64_t, uint64_t>, std::vector<std::string>> slow;
    for (const Item* const item : Of(ItemKind::kMemoryModule)) {
        const uint64_t rated = item->Number("rated_speed");
        const uint64_t configured = item->Number("configured_speed");
        if (configured != 0 && configured < rated) slow[{configured, rated}].push_back(item->name);
    }
    for (const auto& [speeds, names] : slow) {
        Warn("memory runs at " + std::to_string(speeds.first) + " of " +
             std::to_string(speeds.second) + " MT/s: " + Joined(names));
    }
}

void Warnings::MemoryChannels() {
    struct Channels {
        std::set<uint64_t> all;
        std::set<uint64_t> used;
    };
    std::map<std::string, Channels> arrays;
    for (const Item* const item : Of(ItemKind::kMemoryModule)) {
        if (item->Find("channel") == nullptr) continue;
        Channels& channels = arrays[item->parent];
        channels.all.insert(item->Number("channel"));
        if (item->Number("size") > 0) channels.used.insert(item->Number("channel"));
    }
    for (const auto& [id, channels] : arrays) {
        if (channels.used.size() != 1 || channels.all.size() == 1) continue;
        const Item* const array = arrays.size() > 1 ? m_inventory.Find(id) : nullptr;
        Warn("memory is in one of " + std::to_string(channels.all.size()) + " channels only" +
             (array != nullptr ? ": " + array->name : ""));
    }
}

void Warnings::DriveHealth() {
    constexpr uint64_t kUsedUp = 100;
    for (const Item* const item : Of(ItemKind::kDrive)) {
        const std::string& model = item->Text("model");
        std::string subject = "drive " + item->name;
        if (!model.empty()) subject.append(" (").append(model).append(")");
        const std::string reasons = Joined(Values(*item, "critical_warning"));
        const bool isFailing = item->Text("health") == "failing";
        if (isFailing || !reasons.empty()) {
            std::string text = subject + (isFailing ? " is failing" : " warns");
            Warn(text.append(reasons.empty() ? "" : ": ").append(reasons));
        }
        if (item->Number("percentage_used") >= kUsedUp) {
            Warn(subject + " has used " + item->Text("percentage_used") + " % of its life");
        }
    }
}

void Warnings::Firmware(ItemKind kind, const char* word) {
    std::map<std::string, std::map<std::string, std::vector<std::string>>> models;
    for (const Item* const item : Of(kind)) {
        const std::string& firmware = item->Text("firmware");
        const std::string& model = item->Text("model");
        if (model.empty() || firmware.empty()) continue;
        std::string name = item->Text("vendor");
        name.append(name.empty() ? "" : " ").append(model);
        models[name][firmware].push_back(item->name);
    }
    for (const auto& [model, versions] : models) {
        if (versions.size() < 2) continue;
        std::vector<std::string> texts;
        for (const auto& [version, names] : versions) {
            texts.push_back(version);
            texts.back().append(" (").append(Joined(names)).append(")");
        }
        Warn(std::string(word) + " " + model + " have different firmware: " + Joined(texts));
    }
}

void Warnings::Volumes() {
    for (const Item* const item : Of(ItemKind::kVolume)) {
        const std::string failed = Joined(Values(*item, "failed_members"));
        const uint64_t missing = item->Number("degraded");
        if (missing == 0 && failed.empty()) continue;
        std::string text = "volume " + item->name + " is degraded";
        if (missing > 0) {
            text += ": " + std::to_string(missing) + " of " + item->Text("raid_disks") + " missing";
        }
        if (!failed.empty()) text.append(": failed ").append(failed);
        Warn(std::move(text));
    }
}

void Warnings::Processors() {
    for (const Item* const item : Of(ItemKind::kKernel)) {
        std::vector<std::string> open;
        for (const std::string& text : Values(*item, "vulnerabilities")) {
            // "mds: Vulnerable; SMT ...", "itlb_multihit: KVM: Vulnerable"
            const size_t end = text.find(": Vulnerable");
            if (end != text.npos) open.push_back(text.substr(0, text.find(':')));
        }
        if (!open.empty()) Warn("processor vulnerabilities are not mitigated: " + Joined(open));
    }
    for (const Item* const item : Of(ItemKind::kCpu)) {
        const std::vector<std::string> versions = Values(*item, "microcode");
        if (versions.size() > 1) Warn("processors run different microcode: " + Joined(versions));
    }
}

// Rights, and what a machine does not have, are no faults.
void Warnings::Notes() {
    const std::string faults[] = {std::strerror(EIO), std::strerror(EREMOTEIO), "no answer within",
                                  "broken"};
    for (const std::string& note : m_inventory.notes) {
        const bool isFault = std::any_of(
            std::begin(faults), std::end(faults),
            [&note](const std::string& fault) { return note.find(fault) != std::string::npos; });
        if (isFault) Warn("cannot be read: " + note);
    }
}

}  // namespace

void FindWarnings(KemdInventory& inventory) {
    Warnings warnings(inventory);
    warnings.DriveHealth();
    warnings.Volumes();
    warnings.Notes();
    warnings.Links();
    warnings.MemorySpeed();
    warnings.MemoryChannels();
    warnings.Firmware(ItemKind::kDrive, "drives");
    warnings.Firmware(ItemKind::kStorageAdapter, "storage adapters");
    warnings.Firmware(ItemKind::kInterface, "interfaces");
    warnings.Processors();
}
