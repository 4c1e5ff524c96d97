// What else SMBIOS has of a machine: connectors, batteries, power supplies, management controllers,
// the TPM, onboard devices.
#include <array>
#include <cstdio>

#include "inventory/smbios_items.h"

namespace {

std::string Format(const char* format, unsigned long long number) {
    std::array<char, 64> text{};
    // NOLINTNEXTLINE(clang-diagnostic-format-nonliteral): all callers are below
    std::snprintf(text.data(), text.size(), format, number);
    return text.data();
}

// Days, months and years since 1980 in one word.
std::string PackedDate(uint16_t word) {
    if (word == 0) return {};
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%04u-%02u-%02u", 1980U + (word >> 9), word >> 5 & 15U,
                  word & 31U);
    return text.data();
}

}  // namespace

void SmbiosItems::AddConnectors() {
    for (const SmbiosRecord& record : Records(8)) {
        const std::string_view internal = record.Text(0x04);
        const std::string_view external = record.Text(0x06);
        KemdInventoryItem& item =
            Add(ItemKind::kConnector, external.empty() ? internal : external, record);
        record.AddTexts(item, {{"internal_name", 0x04}, {"external_name", 0x06}});
        record.AddWord(item, "internal_connector", 0x05, kConnectorWords);
        record.AddWord(item, "external_connector", 0x07, kConnectorWords);
        record.AddWord(item, "type", 0x08, kPortWords);
    }
}

void SmbiosItems::AddBatteries() {
    constexpr uint8_t kElsewhere = 0x02;  // the chemistry is given as a text
    for (const SmbiosRecord& record : Records(22)) {
        KemdInventoryItem& item = Add(ItemKind::kBattery, record.Text(0x08), record);
        record.AddTexts(item, {{"location", 0x04},
                               {"vendor", 0x05},
                               {"date", 0x06},
                               {"serial", 0x07},
                               {"model", 0x08},
                               {"version", 0x0E}});
        if (record.Byte(0x07) == 0 && record.Has(0x10, 2)) {
            item.Add("serial", Format("%04llX", record.Word(0x10)));
        }
        if (record.Byte(0x06) == 0) item.Add("date", PackedDate(record.Word(0x12)));
        if (record.Byte(0x09) == kElsewhere && !record.Text(0x14).empty()) {
            item.Add("chemistry", record.Text(0x14));
        } else {
            record.AddWord(item, "chemistry", 0x09, kChemistryWords);
        }
        const uint64_t factor = record.Has(0x15) ? record.Byte(0x15) : 1;
        AddKnown(item, "capacity", record.Word(0x0A) * factor);
        AddKnown(item, "voltage", record.Word(0x0C));
    }
}

void SmbiosItems::AddPowerSupplies() {
    constexpr uint16_t kUnknownPower = 0x8000;
    for (const SmbiosRecord& record : Records(39)) {
        const std::string_view location = record.Text(0x05);
        KemdInventoryItem& item =
            Add(ItemKind::kPowerSupply, location.empty() ? record.Text(0x06) : location, record);
        record.AddTexts(item, {{"location", 0x05},
                               {"model", 0x06},
                               {"vendor", 0x07},
                               {"serial", 0x08},
                               {"asset_tag", 0x09},
                               {"part_number", 0x0A},
                               {"version", 0x0B}});
        AddKnown(item, "power_max", record.Word(0x0C), kUnknownPower);
        if (!record.Has(0x0E, 2)) continue;
        const uint16_t bits = record.Word(0x0E);
        const bool isPresent = (bits & 2) != 0;
        item.AddNumber("present", isPresent ? 1 : 0);
        item.AddNumber("hot_replaceable", bits & 1);
        item.AddNumber("plugged", (bits & 4) != 0 ? 0 : 1);
        item.Add("input_range", SmbiosWord(kSupplyRangeWords, bits >> 3 & 15));
        if (isPresent) item.Add("status", SmbiosWord(kSupplyStatusWords, bits >> 7 & 7));
        item.Add("type", SmbiosWord(kSupplyWords, bits >> 10 & 15));
    }
}

void SmbiosItems::AddManagementControllers() {
    constexpr uint8_t kSsif = 4;
    for (const SmbiosRecord& record : Records(38)) {
        KemdInventoryItem& item = Add(ItemKind::kManagementController, "IPMI", record);
        record.AddWord(item, "interface_type", 0x04, kIpmiWords);
        const uint8_t revision = record.Byte(0x05);  // two decimal digits
        item.Add("version", std::to_string(revision >> 4) + "." + std::to_string(revision & 15));
        if (record.Has(0x06)) item.Add("i2c_address", Format("0x%02llx", record.Byte(0x06) >> 1));
        const uint64_t base = record.Qword(0x08);
        // The base address of older structures has no lowest bit; 0x10 brings it.
        const uint64_t address = (base & ~uint64_t{1}) | (record.Byte(0x10) >> 4 & 1);
        if (record.Byte(0x04) == kSsif) {
            item.Add("base_address", Format("0x%02llX (SMBus)", base >> 1 & 0x7F));
        } else if (record.Has(0x08, 8)) {
            item.Add(
                "base_address",
                Format((base & 1) != 0 ? "0x%016llX (I/O)" : "0x%016llX (Memory-mapped)", address));
        }
        AddKnown(item, "irq", record.Byte(0x11));
    }
    for (const SmbiosRecord& record : Records(42)) AddHostInterface(record);
}

// The interface's own data, then a count of protocols, each with a type, a length and data.
void SmbiosItems::AddHostInterface(const SmbiosRecord& record) {
    KemdInventoryItem& item = Add(ItemKind::kManagementController, "host interface", record);
    record.AddWord(item, "interface_type", 0x04, kHostInterfaceWords);
    size_t offset = size_t{0x06} + record.Byte(0x05);
    const uint8_t count = record.Byte(offset++);
    for (uint8_t i = 0; i < count && record.Has(offset, 2); ++i) {
        record.AddWord(item, "protocols", offset, kHostProtocolWords);
        offset += size_t{2} + record.Byte(offset + 1);
    }
}

void SmbiosItems::AddTpm() {
    for (const SmbiosRecord& record : Records(43)) {
        KemdInventoryItem& item = Add(ItemKind::kTpm, {}, record);
        std::string vendor;
        for (size_t offset = 0x04; offset < 0x08 && record.Byte(offset) != 0; ++offset) {
            const uint8_t byte = record.Byte(offset);
            vendor += byte > ' ' && byte < 0x7F ? static_cast<char>(byte) : '.';
        }
        item.Add("vendor", vendor);
        item.Add("model", record.Text(0x12));
        if (!record.Has(0x08, 2)) continue;
        const uint8_t major = record.Byte(0x08);
        item.Add("version", std::to_string(major) + "." + std::to_string(record.Byte(0x09)));
        if (!record.Has(0x0A, 4)) continue;
        // That of a TPM 1.x stands in two bytes of its version structure.
        const unsigned first = major >= 2 ? record.Word(0x0C) : record.Byte(0x0C);
        const unsigned second = major >= 2 ? record.Word(0x0A) : record.Byte(0x0D);
        item.Add("firmware", std::to_string(first) + "." + std::to_string(second));
    }
}

void SmbiosItems::AddOnboardDevices() {
    constexpr uint8_t kEnabled = 0x80;
    for (const SmbiosRecord& record : Records(41)) {
        KemdInventoryItem& item = Add(ItemKind::kOnboardDevice, record.Text(0x04), record);
        if (record.Has(0x05)) {
            const auto code = static_cast<uint8_t>(record.Byte(0x05) & ~kEnabled);
            item.Add("type", SmbiosWord(kOnboardWords, code));
            item.AddNumber("enabled", (record.Byte(0x05) & kEnabled) != 0 ? 1 : 0);
        }
        if (record.Has(0x06)) item.AddNumber("number", record.Byte(0x06));
        if (record.Has(0x07, 4)) {
            item.Add("bus_address",
                     SmbiosPciAddress(record.Word(0x07), record.Byte(0x09), record.Byte(0x0A)));
        }
    }
}
