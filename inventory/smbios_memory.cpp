// Memory arrays, modules and ranges.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>

#include "base/text.h"
#include "inventory/smbios_items.h"

namespace {

constexpr size_t kLocator = 0x10;
constexpr size_t kBank = 0x11;

// MiB, or KiB with the highest bit set; a dword of MiB for what does not fit. Nothing: not known.
std::optional<uint64_t> ModuleSize(const SmbiosRecord& record) {
    constexpr uint16_t kUnknown = 0xFFFF;
    constexpr uint16_t kExtended = 0x7FFF;
    const uint16_t size = record.Word(0x0C);
    if (!record.Has(0x0C, 2) || size == kUnknown) return std::nullopt;
    if (size == kExtended && record.Has(0x1C, 4)) {
        return uint64_t{record.Dword(0x1C) & 0x7FFFFFFFU} << 20;
    }
    return (size & 0x8000U) != 0 ? uint64_t{size & 0x7FFFU} << 10 : uint64_t{size} << 20;
}

// A word, or a dword for what does not fit.
uint64_t ModuleSpeed(const SmbiosRecord& record, size_t word, size_t dword) {
    constexpr uint16_t kExtended = 0xFFFF;
    const uint16_t speed = record.Word(word);
    return speed == kExtended ? record.Dword(dword) & 0x7FFFFFFFU : speed;
}

void AddModuleFields(KemdInventoryItem& item, const SmbiosRecord& record) {
    record.AddTexts(item, {{"vendor", 0x17},
                           {"serial", 0x18},
                           {"asset_tag", 0x19},
                           {"part_number", 0x1A},
                           {"firmware", 0x2B}});
    record.AddWord(item, "technology", 0x28, kMemoryTechnologyWords);
    AddKnown(item, "rank", record.Byte(0x1B) & 15U);
    AddKnown(item, "rated_speed", ModuleSpeed(record, 0x15, 0x54));
    AddKnown(item, "configured_speed", ModuleSpeed(record, 0x20, 0x58));
    AddKnown(item, "voltage_min", record.Word(0x22));
    AddKnown(item, "voltage_max", record.Word(0x24));
    AddKnown(item, "voltage", record.Word(0x26));
    AddKnown(item, "nonvolatile_size", record.Qword(0x34), UINT64_MAX);
    AddKnown(item, "volatile_size", record.Qword(0x3C), UINT64_MAX);
}

// "P0 CHANNEL A", "P1_Node0_Channel2_Dimm0", "ChannelB-DIMM0": the letter or number after the word,
// letters counted from A = 0.
std::optional<uint64_t> MemoryChannel(std::string_view text) {
    constexpr std::string_view kWord = "CHANNEL";
    const auto* const found = std::search(
        text.begin(), text.end(), kWord.begin(), kWord.end(),
        [](char a, char b) { return std::toupper(static_cast<unsigned char>(a)) == b; });
    if (found == text.end()) return std::nullopt;
    text.remove_prefix(static_cast<size_t>(found - text.begin()) + kWord.size());
    text = TrimStart(text, " _-");
    uint64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec == std::errc()) return number;
    const bool isLetter = !text.empty() && std::isalpha(static_cast<unsigned char>(text[0])) != 0;
    const bool isAlone = text.size() < 2 || std::isalpha(static_cast<unsigned char>(text[1])) == 0;
    if (!isLetter || !isAlone) return std::nullopt;
    return static_cast<uint64_t>(std::toupper(static_cast<unsigned char>(text[0])) - 'A');
}

}  // namespace

void AddMemoryChannel(KemdInventoryItem& module) {
    auto channel = MemoryChannel(module.Text("bank"));
    if (!channel) channel = MemoryChannel(module.Text("location"));
    if (channel) module.AddNumber("channel", *channel);
}

std::string MemoryModuleName(std::string_view locator, std::string_view bank, bool isRepeated) {
    if (!isRepeated || bank.empty()) return std::string(locator);
    return std::string(bank) + (locator.empty() ? "" : "/") + std::string(locator);
}

void SmbiosItems::AddMemory() {
    AddMemoryArrays();
    AddMemoryModules();
    AddMemoryRanges();
}

void SmbiosItems::AddMemoryArrays() {
    constexpr uint32_t kExtended = 0x80000000;
    for (const SmbiosRecord& record : Records(16)) {
        KemdInventoryItem& item = Add(ItemKind::kMemoryArray, {}, record);
        record.AddWord(item, "location", 0x04, kArrayLocationWords);
        record.AddWord(item, "use", 0x05, kArrayUseWords);
        record.AddWord(item, "error_correction", 0x06, kArrayCorrectionWords);
        const uint32_t capacity = record.Dword(0x07);
        AddKnown(item, "size_max",
                 capacity == kExtended ? record.Qword(0x0F) : uint64_t{capacity} << 10);
        if (record.Has(0x0D, 2)) item.AddNumber("devices", record.Word(0x0D));
    }
}

void SmbiosItems::AddMemoryModules() {
    constexpr uint16_t kUnknownWidth = 0xFFFF;
    const std::vector<SmbiosRecord> records = Records(17);
    std::map<std::string_view, unsigned> locators;
    for (const SmbiosRecord& record : records) ++locators[Trim(record.Text(kLocator))];
    for (const SmbiosRecord& record : records) {
        const std::string_view locator = Trim(record.Text(kLocator));
        const std::string name =
            MemoryModuleName(locator, Trim(record.Text(kBank)), locators[locator] > 1);
        KemdInventoryItem& item = Add(ItemKind::kMemoryModule, name, record);
        const std::optional<uint64_t> size = ModuleSize(record);
        const bool isPopulated = !size || *size != 0;
        if (record.Has(0x04, 2)) SetParent(item, ItemKind::kMemoryArray, record.Word(0x04));
        record.AddTexts(item, {{"location", kLocator}, {"bank", kBank}});
        AddMemoryChannel(item);
        item.AddNumber("populated", isPopulated ? 1 : 0);
        record.AddWord(item, "form_factor", 0x0E, kFormFactorWords);
        record.AddWord(item, "type", 0x12, kMemoryWords);
        AddKnown(item, "total_width", record.Word(0x08), kUnknownWidth);
        AddKnown(item, "data_width", record.Word(0x0A), kUnknownWidth);
        AddFlags(item, "type_detail", kMemoryBits, record.Word(0x13));
        if (!isPopulated) continue;
        if (size) item.AddNumber("size", *size);
        AddModuleFields(item, record);
    }
}

void SmbiosItems::AddMemoryRanges() {
    constexpr uint32_t kExtended = 0xFFFFFFFF;
    for (const SmbiosRecord& record : Records(19)) {
        const bool isExtended = record.Dword(0x04) == kExtended && record.Has(0x0F, 16);
        const uint64_t start = isExtended ? record.Qword(0x0F) : uint64_t{record.Dword(0x04)} << 10;
        const uint64_t last =
            isExtended ? record.Qword(0x17) : (uint64_t{record.Dword(0x08)} << 10) + 1023;
        if (!record.Has(0x04, 8)) continue;
        KemdInventoryItem& item = Add(ItemKind::kMemoryRange, SmbiosHex(start), record);
        item.AddNumber("start_address", start);
        item.AddNumber("end_address", last);
        if (last > start) item.AddNumber("size", last - start + 1);
        if (record.Has(0x0C, 2)) SetParent(item, ItemKind::kMemoryArray, record.Word(0x0C));
    }
}
