// Processors and caches.
#include <array>

#include "inventory/smbios_items.h"

namespace {

constexpr uint16_t kNoHandle = 0xFFFF;
constexpr std::array<size_t, 3> kCacheHandles = {0x1A, 0x1C, 0x1E};

// A byte, and a word for what does not fit into it.
uint64_t Count(const SmbiosRecord& record, size_t byte, size_t word) {
    constexpr uint8_t kInWord = 0xFF;
    const uint8_t small = record.Byte(byte);
    return small == kInWord && record.Has(word, 2) ? record.Word(word) : small;
}

// Tenths of a volt, or a bit for each voltage that the socket takes.
void AddVoltage(KemdInventoryItem& item, uint8_t code) {
    constexpr uint8_t kIsVoltage = 0x80;
    constexpr std::array<uint64_t, 3> kLegacy = {5000, 3300, 2900};
    if ((code & kIsVoltage) != 0) {
        AddKnown(item, "voltage", uint64_t{code & 0x7FU} * 100);
        return;
    }
    for (size_t bit = 0; bit < kLegacy.size(); ++bit) {
        if ((code >> bit & 1) != 0) item.AddNumber("voltage", kLegacy.at(bit));
    }
}

// KiB, or 64 KiB with the highest bit set, in a dword or, in older tables, a word.
uint64_t CacheSize(const SmbiosRecord& record, size_t word, size_t dword) {
    constexpr uint32_t kLargeUnit = 0x80000000;
    const uint32_t small = record.Word(word);
    const bool isWide = record.Has(dword, 4) && record.Dword(dword) != 0;
    const uint32_t size =
        isWide ? record.Dword(dword) : (small & 0x8000U) << 16 | (small & 0x7FFFU);
    return uint64_t{size & ~kLargeUnit} << ((size & kLargeUnit) != 0 ? 16 : 10);
}

}  // namespace

void SmbiosItems::AddProcessors() {
    for (const SmbiosRecord& record : Records(4)) {
        KemdInventoryItem& item = Add(ItemKind::kProcessor, record.Text(0x04), record);
        const bool isPopulated = (record.Byte(0x18) & 0x40) != 0;
        record.AddWord(item, "type", 0x05, kProcessorWords);
        item.AddNumber("populated", isPopulated ? 1 : 0);
        record.AddWord(item, "socket_type", 0x19, kSocketWords);
        record.AddTexts(item, {{"vendor", 0x07},
                               {"model", 0x10},
                               {"serial", 0x20},
                               {"asset_tag", 0x21},
                               {"part_number", 0x22}});
        if (isPopulated) {
            item.Add("status", SmbiosWord(kProcessorStatusWords, record.Byte(0x18) & 7));
        }
        AddVoltage(item, record.Byte(0x11));
        AddKnown(item, "bus_clock", record.Word(0x12));
        AddKnown(item, "max_speed", record.Word(0x14));
        AddKnown(item, "current_speed", record.Word(0x16));
        AddKnown(item, "cores", Count(record, 0x23, 0x2A));
        AddKnown(item, "cores_enabled", Count(record, 0x24, 0x2C));
        AddKnown(item, "threads", Count(record, 0x25, 0x2E));
        AddFlags(item, "characteristics", kProcessorBits, record.Word(0x26));
    }
}

void SmbiosItems::AddCaches() {
    // The configuration: level, socketed, location, enabled, mode.
    constexpr size_t kConfiguration = 0x05;
    for (const SmbiosRecord& record : Records(7)) {
        KemdInventoryItem& item = Add(ItemKind::kCache, record.Text(0x04), record);
        const uint16_t configuration = record.Word(kConfiguration);
        if (record.Has(kConfiguration, 2)) {
            item.AddNumber("level", (configuration & 7U) + 1);
            item.AddNumber("enabled", configuration >> 7 & 1);
            item.Add("location", SmbiosWord(kCacheLocationWords, configuration >> 5 & 3));
            item.Add("mode", SmbiosWord(kCacheModeWords, configuration >> 8 & 3));
        }
        if (record.Has(0x09, 2)) item.AddNumber("size", CacheSize(record, 0x09, 0x17));
        AddKnown(item, "size_max", CacheSize(record, 0x07, 0x13));
        record.AddWord(item, "error_correction", 0x10, kCacheCorrectionWords);
        record.AddWord(item, "type", 0x11, kCacheWords);
        record.AddWord(item, "associativity", 0x12, kAssociativityWords);
    }
}

void SmbiosItems::LinkCaches() {
    for (const SmbiosRecord& record : Records(4)) {
        KemdInventoryItem* const processor = FindByHandle(ItemKind::kProcessor, record.Handle());
        if (processor == nullptr || processor->Find("caches") != nullptr) continue;
        for (const size_t offset : kCacheHandles) {
            const uint16_t handle = record.Has(offset, 2) ? record.Word(offset) : kNoHandle;
            KemdInventoryItem* const cache = FindByHandle(ItemKind::kCache, handle);
            if (cache == nullptr) continue;
            processor->Add("caches", cache->id);
            cache->parent = processor->id;
        }
    }
}
