// What drives answer when they are asked for their health. Bytes come from drives: nothing is
// believed beyond their length. Pure functions; any thread. May throw std::bad_alloc.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

class InventoryField;
struct KemdInventoryItem;

struct DriveHealth {
    std::string powerState;         // "active", "idle", "standby"; empty: not known
    std::optional<bool> isFailing;  // nothing: the drive gave no verdict
    std::vector<std::string> criticalWarnings;
    std::optional<uint64_t> temperature;  // degrees Celsius
    std::optional<uint64_t> percentageUsed;
    std::optional<uint64_t> spare;           // percent
    std::optional<uint64_t> spareThreshold;  // percent
    std::optional<uint64_t> mediaErrors;
    std::optional<uint64_t> unsafeShutdowns;
    std::optional<uint64_t> powerCycles;
    std::optional<uint64_t> powerOnHours;
    std::optional<uint64_t> bytesRead;
    std::optional<uint64_t> bytesWritten;
};

// Adds the fields of what is known.
void AddHealth(KemdInventoryItem& drive, const DriveHealth& health);
// Of AddHealth's fields all but the power state, which is that of the moment.
bool IsOfHealth(InventoryField field);
// Takes over what the drive said at `lastTime`, in seconds since 1970, or before it, unless it says
// something now.
void KeepHealth(const KemdInventoryItem& last, int64_t lastTime, KemdInventoryItem& drive);

using DriveBytes = std::span<const uint8_t>;

// SMART / health information, log page 02h. False when it is cut.
bool TakeNvmeHealth(DriveBytes page, DriveHealth& health);

// What an ATA command left in the drive's registers, as a SCSI device returns them in sense data.
struct AtaRegisters {
    uint8_t status;
    uint8_t count;
    uint8_t lbaMid;
    uint8_t lbaHigh;

    [[nodiscard]] bool IsError() const;
};
std::optional<AtaRegisters> FindAtaRegisters(DriveBytes sense);
// The answer of CHECK POWER MODE.
const char* AtaPowerState(const AtaRegisters& registers);
// The answer of SMART RETURN STATUS; nothing when it is neither of the two that there are.
std::optional<bool> IsAtaFailing(const AtaRegisters& registers);
// The attributes that SMART READ DATA brings: temperature.
void TakeAtaAttributes(DriveBytes data, DriveHealth& health);
// One page of the device statistics log.
void TakeAtaStatistics(DriveBytes page, uint8_t number, DriveHealth& health);
// Pages of the device statistics log that TakeAtaStatistics knows and its page 0 lists.
std::vector<uint8_t> AtaStatisticsPages(DriveBytes page0);

struct SenseCode {
    uint8_t key;
    uint8_t code;
    uint8_t qualifier;
};
// Nothing when the bytes are no sense data.
std::optional<SenseCode> FindSense(DriveBytes sense);
// "standby" for a drive that a question could wake, otherwise "active".
const char* ScsiPowerState(const SenseCode& sense);
// LOG SENSE pages that TakeScsiLog knows and page 0 lists.
std::vector<uint8_t> ScsiLogPages(DriveBytes page0);
void TakeScsiLog(DriveBytes page, uint8_t number, DriveHealth& health);
