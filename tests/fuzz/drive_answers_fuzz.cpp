// Feeds arbitrary bytes, after one that chooses, to what reads answers of drives and paths of
// sysfs.
#include <span>

#include "inventory/drive_health.h"
#include "inventory/drive_identity.h"
#include "inventory/drive_path.h"
#include "inventory/item.h"
#include "tests/fuzz/fuzz.h"

static void CheckHealth(const DriveHealth& health) {
    KemdInventoryItem item{ItemKind::kDrive, {}, {}, {}, {}};
    AddHealth(item, health);
    Require(item.Find("health") != nullptr, "no verdict");
    Require(item.Number("temperature") <= 200, "a temperature that is none");
    Require(health.criticalWarnings.size() <= 1024, "more warnings than bytes");
}

static void CheckIdentity(DriveBytes bytes) {
    const AtaIdentity identity = ReadAtaIdentity(bytes);
    Require(identity.model.size() <= 40 && identity.serial.size() <= 20 &&
                identity.firmware.size() <= 8,
            "longer than its field");
    Require(identity.wwn.empty() || identity.wwn.starts_with("0x5"), "a name that is none");
    Require(ReadSerialPage(bytes).size() <= bytes.size(), "longer than its page");
    Require(ReadWwnPage(bytes).size() <= 4 + 2 * bytes.size(), "a name longer than its page");
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    // A copy of its own: one byte beyond it is found.
    const std::vector<uint8_t> copy(data + 1, data + size);
    const DriveBytes bytes(copy);
    const std::string text(copy.begin(), copy.end());
    DriveHealth health;
    switch (data[0]) {
        case 'N':
            (void)TakeNvmeHealth(bytes, health);
            break;
        case 'A':
            TakeAtaAttributes(bytes, health);
            for (const uint8_t page : AtaStatisticsPages(bytes)) {
                TakeAtaStatistics(bytes, page, health);
            }
            for (unsigned page = 0; page < 8; ++page) {
                TakeAtaStatistics(bytes, static_cast<uint8_t>(page), health);
            }
            break;
        case 'S':
            for (const uint8_t page : ScsiLogPages(bytes)) TakeScsiLog(bytes, page, health);
            for (const uint8_t page : {0x2F, 0x0D, 0x11}) TakeScsiLog(bytes, page, health);
            break;
        case 'R':
            if (const auto registers = FindAtaRegisters(bytes)) {
                health.powerState = AtaPowerState(*registers);
                health.isFailing = IsAtaFailing(*registers);
            }
            if (const auto sense = FindSense(bytes)) health.powerState = ScsiPowerState(*sense);
            break;
        case 'I':
            CheckIdentity(bytes);
            break;
        case 'P': {
            const DrivePath path(text);
            Require(path.unit.size() <= text.size(), "a unit longer than its path");
            Require(IdPart(path.Hardware()).find('/') == std::string::npos, "an id with a slash");
            Require(DriveWwn(text).size() <= text.size(), "a name longer than its text");
            break;
        }
        default:
            return 0;
    }
    CheckHealth(health);
    return 0;
}
