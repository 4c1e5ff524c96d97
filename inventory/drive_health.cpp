#include "inventory/drive_health.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>
#include <limits>
#include <string_view>

#include "inventory/item.h"
#include "inventory/table_field.h"

namespace {

// Beyond it a temperature is no measurement.
constexpr uint64_t kHottest = 200;

void SetTemperature(int64_t celsius, std::optional<uint64_t>& temperature) {
    if (celsius >= 0 && celsius <= static_cast<int64_t>(kHottest)) {
        temperature = static_cast<uint64_t>(celsius);
    }
}

// Counters that do not fit stay at the largest number.
uint64_t Times(uint64_t number, uint64_t unit) {
    uint64_t product = 0;
    return __builtin_mul_overflow(number, unit, &product) ? std::numeric_limits<uint64_t>::max()
                                                          : product;
}

uint64_t ReadCounter(DriveBytes page, size_t offset) {
    return ReadQword(page, offset + 8) == 0 ? ReadQword(page, offset)
                                            : std::numeric_limits<uint64_t>::max();
}

uint16_t ReadBigWord(DriveBytes bytes, size_t offset) {
    return static_cast<uint16_t>(ReadByte(bytes, offset) << 8 | ReadByte(bytes, offset + 1));
}

DriveBytes From(DriveBytes bytes, size_t offset) {
    return bytes.subspan(std::min(offset, bytes.size()));
}

// A statistic is there when the drive supports it and says that it is valid.
std::optional<uint64_t> Statistic(DriveBytes page, size_t offset, uint64_t mask) {
    constexpr uint8_t kSupportedAndValid = 0xC0;
    if ((ReadByte(page, offset + 7) & kSupportedAndValid) != kSupportedAndValid) {
        return std::nullopt;
    }
    return ReadQword(page, offset) & mask;
}

constexpr uint8_t kAtaGeneral = 1;
constexpr uint8_t kAtaErrors = 4;
constexpr uint8_t kAtaTemperature = 5;
constexpr uint8_t kAtaSolidState = 7;

constexpr uint8_t kScsiTemperature = 0x0D;
constexpr uint8_t kScsiSolidState = 0x11;
constexpr uint8_t kScsiInformationalExceptions = 0x2F;

void TakeScsiExceptions(DriveBytes parameter, DriveHealth& health) {
    constexpr uint8_t kWarning = 0x0B;
    constexpr uint8_t kFailurePrediction = 0x5D;
    if (parameter.size() < 6) return;
    health.isFailing = parameter[4] == kFailurePrediction;
    if (parameter[4] == kFailurePrediction) {
        health.criticalWarnings.emplace_back("failure predicted");
    } else if (parameter[4] == kWarning) {
        health.criticalWarnings.emplace_back(parameter[5] == 1 ? "temperature" : "drive warns");
    }
    constexpr uint8_t kNoTemperature = 0xFF;
    const uint8_t temperature = ReadByte(parameter, 6);
    if (temperature != 0 && temperature != kNoTemperature && !health.temperature) {
        SetTemperature(temperature, health.temperature);
    }
}

std::string UtcTime(int64_t seconds) {
    const time_t time = seconds;
    struct tm parts {};
    std::array<char, 64> text{};
    if (gmtime_r(&time, &parts) == nullptr) return "";
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

}  // namespace

void AddHealth(KemdInventoryItem& drive, const DriveHealth& health) {
    drive.Add("power_state", health.powerState);
    const char* const verdict = !health.isFailing   ? "unknown"
                                : *health.isFailing ? "failing"
                                                    : "ok";
    drive.Add("health", verdict);
    for (const std::string& warning : health.criticalWarnings) {
        drive.Add("critical_warning", warning);
    }
    const auto addNumber = [&](InventoryField field, const std::optional<uint64_t>& number) {
        if (number) drive.AddNumber(field, *number);
    };
    addNumber("temperature", health.temperature);
    addNumber("percentage_used", health.percentageUsed);
    addNumber("spare", health.spare);
    addNumber("spare_threshold", health.spareThreshold);
    addNumber("media_errors", health.mediaErrors);
    addNumber("unsafe_shutdowns", health.unsafeShutdowns);
    addNumber("power_cycles", health.powerCycles);
    addNumber("power_on_hours", health.powerOnHours);
    addNumber("data_read", health.bytesRead);
    addNumber("data_written", health.bytesWritten);
}

bool IsOfHealth(InventoryField field) {
    constexpr auto kFields = std::to_array<InventoryField>(
        {"health", "health_time", "critical_warning", "temperature", "percentage_used", "spare",
         "spare_threshold", "media_errors", "unsafe_shutdowns", "power_cycles", "power_on_hours",
         "data_read", "data_written"});
    return std::find(kFields.begin(), kFields.end(), field) != kFields.end();
}

void KeepHealth(const KemdInventoryItem& last, int64_t lastTime, KemdInventoryItem& drive) {
    const auto isAnswer = [](const KemdInventoryItem::Value& value) {
        return IsOfHealth(value.field) && value.text != "unknown";
    };
    if (last.Find("health") == nullptr ||
        std::any_of(drive.values.begin(), drive.values.end(), isAnswer)) {
        return;
    }
    std::erase_if(drive.values, [](const auto& value) { return IsOfHealth(value.field); });
    std::copy_if(last.values.begin(), last.values.end(), std::back_inserter(drive.values),
                 [](const auto& value) { return IsOfHealth(value.field); });
    const bool hasAnswer = std::any_of(last.values.begin(), last.values.end(), isAnswer);
    if (hasAnswer && last.Find("health_time") == nullptr) {
        drive.Add("health_time", UtcTime(lastTime));
    }
}

bool TakeNvmeHealth(DriveBytes page, DriveHealth& health) {
    constexpr size_t kPageSize = 512;
    constexpr int kKelvin = 273;
    constexpr uint64_t kDataUnit = 512000;
    constexpr uint8_t kTemperatureBit = 2;
    constexpr auto kWarnings = std::to_array<const char*>(
        {"spare below its threshold", "temperature", "reliability degraded", "media read-only",
         "backup of volatile memory failed", "persistent memory region read-only"});
    if (page.size() < kPageSize) return false;
    for (size_t bit = 0; bit < kWarnings.size(); ++bit) {
        if ((page[0] >> bit & 1) != 0) health.criticalWarnings.emplace_back(kWarnings[bit]);
    }
    health.isFailing = (page[0] & ~kTemperatureBit) != 0;
    const uint16_t kelvin = ReadWord(page, 1);
    if (kelvin != 0) SetTemperature(kelvin - kKelvin, health.temperature);
    health.spare = page[3];
    health.spareThreshold = page[4];
    health.percentageUsed = page[5];
    health.bytesRead = Times(ReadCounter(page, 32), kDataUnit);
    health.bytesWritten = Times(ReadCounter(page, 48), kDataUnit);
    health.powerCycles = ReadCounter(page, 112);
    health.powerOnHours = ReadCounter(page, 128);
    health.unsafeShutdowns = ReadCounter(page, 144);
    health.mediaErrors = ReadCounter(page, 160);
    return true;
}

bool AtaRegisters::IsError() const {
    constexpr uint8_t kErrorOrFault = 0x21;
    return (status & kErrorOrFault) != 0;
}

std::optional<AtaRegisters> FindAtaRegisters(DriveBytes sense) {
    constexpr uint8_t kFixed = 0x70;
    constexpr uint8_t kDescriptors = 0x72;
    constexpr uint8_t kAtaReturn = 0x09;
    constexpr size_t kAtaReturnSize = 14;
    const uint8_t format = ReadByte(sense, 0) & 0x7F;
    // 00h/1Dh: "ATA pass-through information available".
    if (format == kFixed && ReadBigWord(sense, 12) == 0x001D) {
        return AtaRegisters{ReadByte(sense, 4), ReadByte(sense, 6), ReadByte(sense, 10),
                            ReadByte(sense, 11)};
    }
    if (format != kDescriptors) return std::nullopt;
    const size_t end = std::min<size_t>(sense.size(), 8 + ReadByte(sense, 7));
    for (size_t at = 8; at + 2 <= end; at += 2 + sense[at + 1]) {
        if (sense[at] != kAtaReturn || at + kAtaReturnSize > end) continue;
        return AtaRegisters{sense[at + 13], sense[at + 5], sense[at + 9], sense[at + 11]};
    }
    return std::nullopt;
}

const char* AtaPowerState(const AtaRegisters& registers) {
    // 0x40: a drive with a cache in flash whose platters stand still.
    if (registers.count <= 1 || registers.count == 0x40) return "standby";
    return registers.count >= 0x80 && registers.count <= 0x83 ? "idle" : "active";
}

std::optional<bool> IsAtaFailing(const AtaRegisters& registers) {
    if (registers.lbaMid == 0x4F && registers.lbaHigh == 0xC2) return false;
    if (registers.lbaMid == 0xF4 && registers.lbaHigh == 0x2C) return true;
    return std::nullopt;
}

void TakeAtaAttributes(DriveBytes data, DriveHealth& health) {
    constexpr size_t kSize = 512;
    constexpr size_t kAttributes = 30;
    constexpr uint8_t kAirflowTemperature = 190;
    constexpr uint8_t kTemperature = 194;
    uint8_t sum = 0;
    for (const uint8_t byte : data) sum = static_cast<uint8_t>(sum + byte);
    if (data.size() != kSize || sum != 0 || health.temperature) return;
    // The lowest byte of the raw value; others hold the lowest and the highest.
    constexpr size_t kRaw = 5;
    std::array<uint8_t, 256> raw{};
    for (size_t i = 0; i < kAttributes; ++i) raw[data[2 + i * 12]] = data[2 + i * 12 + kRaw];
    const uint8_t temperature =
        raw[kTemperature] != 0 ? raw[kTemperature] : raw[kAirflowTemperature];
    if (temperature != 0) SetTemperature(temperature, health.temperature);
}

std::vector<uint8_t> AtaStatisticsPages(DriveBytes page0) {
    std::vector<uint8_t> pages;
    const DriveBytes list =
        From(page0, 9).first(std::min<size_t>(From(page0, 9).size(), ReadByte(page0, 8)));
    for (const uint8_t page : {kAtaGeneral, kAtaErrors, kAtaTemperature, kAtaSolidState}) {
        if (std::find(list.begin(), list.end(), page) != list.end()) pages.push_back(page);
    }
    return pages;
}

void TakeAtaStatistics(DriveBytes page, uint8_t number, DriveHealth& health) {
    constexpr uint64_t kByte = 0xFF;
    constexpr uint64_t kDword = 0xFFFFFFFF;
    constexpr uint64_t kSixBytes = 0xFFFFFFFFFFFF;
    constexpr uint64_t kSector = 512;
    if (page.size() < 512 || ReadByte(page, 2) != number) return;
    if (number == kAtaGeneral) {
        health.powerCycles = Statistic(page, 8, kDword);
        health.powerOnHours = Statistic(page, 16, kDword);
        const std::optional<uint64_t> written = Statistic(page, 24, kSixBytes);
        const std::optional<uint64_t> read = Statistic(page, 40, kSixBytes);
        if (written) health.bytesWritten = Times(*written, kSector);
        if (read) health.bytesRead = Times(*read, kSector);
    } else if (number == kAtaErrors) {
        health.mediaErrors = Statistic(page, 8, kDword);
    } else if (number == kAtaTemperature) {
        const std::optional<uint64_t> temperature = Statistic(page, 8, kByte);
        if (temperature) SetTemperature(static_cast<int8_t>(*temperature), health.temperature);
    } else if (number == kAtaSolidState) {
        health.percentageUsed = Statistic(page, 8, kByte);
    }
}

std::optional<SenseCode> FindSense(DriveBytes sense) {
    const uint8_t format = ReadByte(sense, 0) & 0x7F;
    const auto key = [&](size_t offset) {
        return static_cast<uint8_t>(ReadByte(sense, offset) & 0x0F);
    };
    if (format == 0x70 || format == 0x71) {
        return SenseCode{key(2), ReadByte(sense, 12), ReadByte(sense, 13)};
    }
    if (format == 0x72 || format == 0x73) {
        return SenseCode{key(1), ReadByte(sense, 2), ReadByte(sense, 3)};
    }
    return std::nullopt;
}

const char* ScsiPowerState(const SenseCode& sense) {
    constexpr uint8_t kNotReady = 0x04;
    constexpr uint8_t kStartNeeded = 0x02;
    constexpr uint8_t kLowPower = 0x5E;
    // Standby and standby_y, by timer and by command.
    constexpr auto kStandby = std::to_array<uint8_t>({0x02, 0x04, 0x09, 0x0A});
    const bool isStopped = sense.code == kNotReady && sense.qualifier == kStartNeeded;
    const bool isStandby = sense.code == kLowPower && std::find(kStandby.begin(), kStandby.end(),
                                                                sense.qualifier) != kStandby.end();
    return isStopped || isStandby ? "standby" : "active";
}

std::vector<uint8_t> ScsiLogPages(DriveBytes page0) {
    std::vector<uint8_t> pages;
    const DriveBytes list =
        From(page0, 4).first(std::min<size_t>(From(page0, 4).size(), ReadBigWord(page0, 2)));
    for (const uint8_t page : {kScsiInformationalExceptions, kScsiTemperature, kScsiSolidState}) {
        if (std::find(list.begin(), list.end(), page) != list.end()) pages.push_back(page);
    }
    return pages;
}

void TakeScsiLog(DriveBytes page, uint8_t number, DriveHealth& health) {
    constexpr uint8_t kPageMask = 0x3F;
    constexpr uint8_t kNoTemperature = 0xFF;
    if ((ReadByte(page, 0) & kPageMask) != number) return;
    const DriveBytes all = page.first(std::min<size_t>(page.size(), 4 + ReadBigWord(page, 2)));
    for (DriveBytes rest = From(all, 4); rest.size() >= 4;) {
        const size_t size = std::min<size_t>(rest.size(), 4 + size_t{rest[3]});
        const DriveBytes parameter = rest.first(size);
        const uint16_t code = ReadBigWord(parameter, 0);
        rest = rest.subspan(size);
        if (number == kScsiInformationalExceptions && code == 0) {
            TakeScsiExceptions(parameter, health);
        } else if (number == kScsiTemperature && code == 0 && size >= 6 &&
                   parameter[5] != kNoTemperature) {
            SetTemperature(parameter[5], health.temperature);
        } else if (number == kScsiSolidState && code == 1 && size >= 8) {
            health.percentageUsed = parameter[7];
        }
    }
}
