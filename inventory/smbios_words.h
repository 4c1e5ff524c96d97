// The words for the codes in SMBIOS structures: DMTF DSP0134, 3.8.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Words of consecutive codes, and of single ones beyond them.
struct SmbiosWords {
    struct Other {
        uint8_t code;
        const char* word;
    };
    uint8_t first;
    std::string_view words;  // with "|" between them
    std::span<const Other> others = {};
};

// "unknown (0x7f)" for a code that the tables lack.
std::string SmbiosWord(const SmbiosWords& words, uint8_t code);

// Words for bits, from the lowest on; empty for one without a meaning.
struct SmbiosBits {
    std::string_view words;
};
std::vector<std::string_view> SmbiosFlags(SmbiosBits bits, uint64_t value);

extern const SmbiosWords kWakeUpWords;
extern const SmbiosWords kBootStatusWords;
extern const SmbiosWords kBoardWords;
extern const SmbiosWords kChassisWords;
extern const SmbiosWords kStateWords;
extern const SmbiosWords kSecurityWords;
extern const SmbiosWords kProcessorWords;
extern const SmbiosWords kProcessorStatusWords;
extern const SmbiosWords kSocketWords;
extern const SmbiosWords kCacheModeWords;
extern const SmbiosWords kCacheLocationWords;
extern const SmbiosWords kCacheCorrectionWords;
extern const SmbiosWords kCacheWords;
extern const SmbiosWords kAssociativityWords;
extern const SmbiosWords kConnectorWords;
extern const SmbiosWords kPortWords;
extern const SmbiosWords kSlotWidthWords;
extern const SmbiosWords kSlotUsageWords;
extern const SmbiosWords kSlotLengthWords;
extern const SmbiosWords kOnboardWords;
extern const SmbiosWords kChemistryWords;
extern const SmbiosWords kArrayLocationWords;
extern const SmbiosWords kArrayUseWords;
extern const SmbiosWords kArrayCorrectionWords;
extern const SmbiosWords kFormFactorWords;
extern const SmbiosWords kMemoryWords;
extern const SmbiosWords kMemoryTechnologyWords;
extern const SmbiosWords kIpmiWords;
extern const SmbiosWords kHostInterfaceWords;
extern const SmbiosWords kHostProtocolWords;
extern const SmbiosWords kSupplyWords;
extern const SmbiosWords kSupplyStatusWords;
extern const SmbiosWords kSupplyRangeWords;

extern const SmbiosBits kFirmwareBits;   // "BIOS Characteristics"
extern const SmbiosBits kFirmwareBits1;  // "BIOS Characteristics Extension Byte 1"
extern const SmbiosBits kFirmwareBits2;
extern const SmbiosBits kBoardBits;
extern const SmbiosBits kProcessorBits;
extern const SmbiosBits kSlotBits1;
extern const SmbiosBits kSlotBits2;
extern const SmbiosBits kMemoryBits;
