#include "performance/history_format.h"

#include <algorithm>

namespace {

constexpr uint64_t RoundDown(uint64_t size) {
    return size / kPage * kPage;
}

}  // namespace

FileHead MakeFileHead(uint64_t size, const std::string& host) {
    constexpr uint64_t kUsualSlot = 512 << 10;
    constexpr uint64_t kMostSlot = 16 << 20;
    FileHead head;
    kHistoryMagic.copy(head.magic.data(), head.magic.size());
    head.version = kHistoryVersion;
    head.size = RoundDown(size);
    SetFixedText(head.host, host);
    auto& areas = head.areas;
    areas[kSamples].size = RoundDown(size / 2);
    areas[kDefinitions].size = RoundDown(size / 32);
    areas[kMarks].size = RoundDown(size / 128);
    areas[kProcessNotes].size = RoundDown(size / 64);
    uint64_t left = head.size - kPage;
    for (const AreaPlace& area : areas) left -= area.size;
    areas[kMinutes].size = RoundDown(left / 100 * 67);
    areas[kHours].size = left - areas[kMinutes].size;
    uint64_t offset = kPage;
    for (uint32_t i = 0; i < kAreas; ++i) {
        areas[i].offset = offset;
        offset += areas[i].size;
        if (i >= kLogs) continue;
        // Thousands of series fill a slot after few rows, and short blocks compress badly: who
        // makes the file larger for them gets larger slots, too.
        const uint64_t most = std::clamp(areas[i].size / 64, kUsualSlot, kMostSlot);
        areas[i].slot = RoundDown(std::clamp(areas[i].size / 8, 4 * kPage, most));
    }
    head.checksum = Crc32c(&head, sizeof head);
    return head;
}

std::string CheckFileHead(const FileHead& head) {
    if (std::string_view(head.magic.data(), head.magic.size()) != kHistoryMagic) {
        return "not a history of the performance monitor";
    }
    if (head.version > kHistoryVersion) {
        return "a history of format " + std::to_string(head.version) + ", newer than " +
               std::to_string(kHistoryVersion) + ": use the kemd that wrote it, or a newer one";
    }
    if (head.version < kHistoryVersion) {
        return "a history of format " + std::to_string(head.version) + ", which no release wrote";
    }
    FileHead plain = head;
    plain.checksum = 0;
    bool isSound = head.checksum == Crc32c(&plain, sizeof plain);
    for (const AreaPlace& area : head.areas) {
        isSound = isSound && area.offset >= kPage && area.offset <= head.size &&
                  area.size <= head.size - area.offset && area.slot <= area.size / 4;
    }
    return isSound ? "" : "the head of the history is damaged";
}
