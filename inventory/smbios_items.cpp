#include "inventory/smbios_items.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "base/text.h"

namespace {

// More structures of one type than the largest machine has.
constexpr size_t kMostStructures = 1024;

// "BIOS ROM Size": units of 64 KiB, or a word with a unit of its own.
uint64_t RomSize(const SmbiosRecord& record) {
    constexpr uint8_t kExtended = 0xFF;
    if (record.Byte(0x09) != kExtended) return (uint64_t{record.Byte(0x09)} + 1) << 16;
    const uint16_t extended = record.Word(0x18);
    const unsigned unit = extended >> 14;
    if (unit > 1) return 0;
    return uint64_t{extended & 0x3FFFU} << (unit == 0 ? 20 : 30);
}

// Two numbers of a release; both 255 stand for none.
std::string Release(uint8_t major, uint8_t minor) {
    if (major == 0xFF || minor == 0xFF) return {};
    return std::to_string(major) + "." + std::to_string(minor);
}

const char* BootStatus(uint8_t code) {
    if (code >= 192) return "Product-specific";
    return code >= 128 ? "OEM-specific" : nullptr;
}

// Hypervisors hand secrets to a machine in such strings: only their names are shown.
std::string_view WithoutSecret(std::string_view text) {
    return text.starts_with("io.systemd.credential") ? text.substr(0, text.find('=')) : text;
}

}  // namespace

std::string SmbiosHex(uint64_t number) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "0x%016llx", static_cast<unsigned long long>(number));
    return text.data();
}

std::string SmbiosPciAddress(uint16_t segment, uint8_t bus, uint8_t deviceFunction) {
    constexpr uint8_t kNone = 0xFF;
    if (bus == kNone && deviceFunction == kNone) return {};
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%04x:%02x:%02x.%x", segment, bus, deviceFunction >> 3,
                  deviceFunction & 7);
    return text.data();
}

std::vector<SmbiosRecord> SmbiosItems::Records(uint8_t type) {
    std::vector<SmbiosRecord> records;
    const auto found = m_smbios.Structures().find(type);
    if (found == m_smbios.Structures().end()) return records;
    const size_t count = std::min(found->second.size(), kMostStructures);
    if (count < found->second.size()) {
        m_inventory.Note("SMBIOS tables", std::to_string(found->second.size()) +
                                              " structures of type " + std::to_string(type) +
                                              ": the first " + std::to_string(count) + " are used");
    }
    records.reserve(count);
    for (size_t i = 0; i < count; ++i) records.emplace_back(m_smbios, found->second[i]);
    return records;
}

KemdInventoryItem& SmbiosItems::Add(ItemKind kind, std::string_view name,
                                    const SmbiosRecord& record) {
    const unsigned number = ++m_counts[kind];
    std::string text(Trim(WithoutControls(std::string(name))));
    if (text.empty()) text = std::to_string(number);
    std::string id = std::string(KindWord(kind)) + ":" + text;
    // Firmware repeats names: counted here, since asking for each id in turn takes long.
    const unsigned repeated = ++m_names[id];
    if (repeated > 1) id += "#" + std::to_string(repeated);
    KemdInventoryItem& item = m_inventory.Add(kind, std::move(id), std::move(text));
    m_byHandle.try_emplace(record.Handle(), &item);
    return item;
}

KemdInventoryItem* SmbiosItems::FindByHandle(ItemKind kind, uint16_t handle) const {
    const auto found = m_byHandle.find(handle);
    const bool isFound = found != m_byHandle.end() && found->second->kind == kind;
    return isFound ? found->second : nullptr;
}

void SmbiosItems::SetParent(KemdInventoryItem& item, ItemKind kind, uint16_t handle) const {
    const KemdInventoryItem* const parent = FindByHandle(kind, handle);
    if (parent != nullptr) item.parent = parent->id;
}

void SmbiosItems::AddFirmware() {
    constexpr uint64_t kNotSupported = 1U << 3;
    for (const SmbiosRecord& record : Records(0)) {
        KemdInventoryItem& item = Add(ItemKind::kFirmware, "BIOS", record);
        record.AddTexts(item, {{"vendor", 0x04}, {"version", 0x05}, {"date", 0x08}});
        if (record.Has(0x09)) AddKnown(item, "rom_size", RomSize(record));
        if (record.Has(0x14, 2)) item.Add("release", Release(record.Byte(0x14), record.Byte(0x15)));
        if (record.Has(0x16, 2)) {
            item.Add("controller_release", Release(record.Byte(0x16), record.Byte(0x17)));
        }
        const uint64_t bits = record.Qword(0x0A);
        if ((bits & kNotSupported) == 0) {
            AddFlags(item, "characteristics", kFirmwareBits, bits & UINT32_MAX);
        } else {
            item.Add("characteristics", "BIOS characteristics not supported");
        }
        AddFlags(item, "characteristics", kFirmwareBits1, record.Byte(0x12));
        AddFlags(item, "characteristics", kFirmwareBits2, record.Byte(0x13));
    }
}

// From 2.6 on the first three numbers are little-endian; before that the bytes stood as they are.
void SmbiosItems::AddUuid(KemdInventoryItem& item, const SmbiosRecord& record) const {
    constexpr size_t kUuid = 0x08;
    constexpr uint64_t kAllSet = UINT64_MAX;
    const uint64_t low = record.Qword(kUuid);
    const uint64_t high = record.Qword(kUuid + 8);
    if (!record.Has(kUuid, 16) || (low == 0 && high == 0) || (low == kAllSet && high == kAllSet)) {
        return;
    }
    const SmbiosRevision revision = m_smbios.Revision();
    const bool isSwapped = revision.major > 2 || (revision.major == 2 && revision.minor >= 6);
    constexpr std::array<uint8_t, 16> kPlain = {0, 1, 2,  3,  4,  5,  6,  7,
                                                8, 9, 10, 11, 12, 13, 14, 15};
    constexpr std::array<uint8_t, 16> kSwapped = {3, 2, 1,  0,  5,  4,  7,  6,
                                                  8, 9, 10, 11, 12, 13, 14, 15};
    std::string text;
    for (const uint8_t position : isSwapped ? kSwapped : kPlain) {
        if (text.size() == 8 || text.size() == 13 || text.size() == 18 || text.size() == 23) {
            text += '-';
        }
        std::array<char, 4> byte{};
        std::snprintf(byte.data(), byte.size(), "%02x", record.Byte(kUuid + position));
        text += byte.data();
    }
    item.Add("uuid", text);
}

void SmbiosItems::AddSystemItem() {
    const std::vector<SmbiosRecord> systems = Records(1);
    if (systems.empty()) return;
    const SmbiosRecord& record = systems.front();
    KemdInventoryItem& item = Add(ItemKind::kSystem, "host", record);
    record.AddTexts(item, {{"vendor", 0x04},
                           {"model", 0x05},
                           {"version", 0x06},
                           {"serial", 0x07},
                           {"sku", 0x19},
                           {"family", 0x1A}});
    if (!item.Text("model").empty()) item.name = item.Text("model");
    AddUuid(item, record);
    record.AddWord(item, "wake_up", 0x18, kWakeUpWords);
    for (const SmbiosRecord& strings : Records(11)) {
        for (uint8_t number = 1; number != 0 && number <= strings.Byte(0x04); ++number) {
            item.Add("oem_strings", WithoutSecret(strings.String(number)));
        }
    }
    for (const SmbiosRecord& boot : Records(32)) {
        if (!boot.Has(0x0A)) continue;
        const char* const range = BootStatus(boot.Byte(0x0A));
        item.Add("boot_status",
                 range != nullptr ? range : SmbiosWord(kBootStatusWords, boot.Byte(0x0A)));
    }
}

void SmbiosItems::AddChassis() {
    constexpr uint8_t kLock = 0x80;
    for (const SmbiosRecord& record : Records(3)) {
        KemdInventoryItem& item = Add(ItemKind::kChassis, {}, record);
        record.AddTexts(
            item, {{"vendor", 0x04}, {"version", 0x06}, {"serial", 0x07}, {"asset_tag", 0x08}});
        if (record.Has(0x05)) {
            const auto code = static_cast<uint8_t>(record.Byte(0x05) & ~kLock);
            item.Add("type", SmbiosWord(kChassisWords, code));
            item.AddNumber("locked", (record.Byte(0x05) & kLock) != 0 ? 1 : 0);
        }
        record.AddWord(item, "boot_up_state", 0x09, kStateWords);
        record.AddWord(item, "power_supply_state", 0x0A, kStateWords);
        record.AddWord(item, "thermal_state", 0x0B, kStateWords);
        record.AddWord(item, "security", 0x0C, kSecurityWords);
        AddKnown(item, "height", record.Byte(0x11));
        AddKnown(item, "power_cords", record.Byte(0x12));
        const size_t contained = size_t{record.Byte(0x13)} * record.Byte(0x14);
        item.Add("sku", record.Text(0x15 + contained));
    }
}

void SmbiosItems::AddBoards() {
    for (const SmbiosRecord& record : Records(2)) {
        KemdInventoryItem& item = Add(ItemKind::kBoard, {}, record);
        record.AddTexts(item, {{"vendor", 0x04},
                               {"model", 0x05},
                               {"version", 0x06},
                               {"serial", 0x07},
                               {"asset_tag", 0x08},
                               {"location", 0x0A}});
        if (!item.Text("model").empty()) item.name = item.Text("model");
        AddFlags(item, "characteristics", kBoardBits, record.Byte(0x09));
        record.AddWord(item, "type", 0x0D, kBoardWords);
        if (record.Has(0x0B, 2)) SetParent(item, ItemKind::kChassis, record.Word(0x0B));
    }
}

void SmbiosItems::AddSystem() {
    AddFirmware();
    AddSystemItem();
    AddChassis();
    AddBoards();
    AddProcessors();
    AddCaches();
    LinkCaches();
    AddConnectors();
    AddBatteries();
    AddPowerSupplies();
    AddManagementControllers();
    AddTpm();
    AddOnboardDevices();
}
