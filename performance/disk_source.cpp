// /proc/diskstats: whole disks, RAID and device mapper.
#include "performance/source.h"
#include "performance/text_cursor.h"

namespace {

constexpr SeriesRow Milliseconds(const char* name, const char* help) {
    return {name, "seconds", help, SeriesKind::kCounter, 1, 1000};
}
constexpr SeriesRow Sectors(const char* name, const char* help) {
    return {name, "bytes", help, SeriesKind::kCounter, 512};
}
// The numbers after the name, in the kernel's order; those without a name are not kept. 11 before
// Linux 4.18, 15 before 5.5, then 17. The milliseconds have 32 bits.
constexpr SeriesRow kDiskRows[] = {
    {"disk_reads", "", "Reads completed"},
    {},
    Sectors("disk_read_bytes", "Bytes read"),
    Milliseconds("disk_read_seconds", "Time of all reads together"),
    {"disk_writes", "", "Writes completed"},
    {},
    Sectors("disk_written_bytes", "Bytes written"),
    Milliseconds("disk_write_seconds", "Time of all writes together"),
    {"disk_in_flight", "", "Requests that are being served", SeriesKind::kGauge},
    Milliseconds("disk_busy_seconds", "Time in which a request was being served"),
    Milliseconds("disk_queue_seconds", "Time of all requests together"),
    {"disk_discards", "", "Discards completed"},
    {},
    Sectors("disk_discarded_bytes", "Bytes discarded"),
    Milliseconds("disk_discard_seconds", "Time of all discards together"),
    {"disk_flushes", "", "Flushes completed"},
    Milliseconds("disk_flush_seconds", "Time of all flushes together"),
};
constexpr size_t kReads = 0;
constexpr size_t kWrites = 4;
constexpr bool HasMilliseconds(const SeriesRow& row) {
    return row.divide == 1000;
}

using Numbers = std::array<uint64_t, std::size(kDiskRows)>;

// A 32-bit counter as a 64-bit one.
uint64_t Extend(uint64_t last, uint64_t now) {
    constexpr uint64_t kRange = uint64_t{1} << 32;
    if (now >= kRange) return now;  // a driver that counts with 64 bits
    const auto forward = static_cast<uint32_t>(now - last);
    if (forward < kRange / 2) return last + forward;
    const auto back = static_cast<uint32_t>(last - now);
    return back <= last ? last - back : now;
}

// "sda1" of "sda", "nvme0n1p1" of "nvme0n1".
bool IsPartition(std::string_view name, std::string_view disk) {
    if (disk.empty() || !name.starts_with(disk)) return false;
    name.remove_prefix(disk.size());
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (isDigit(disk.back())) {
        if (!name.starts_with('p')) return false;
        name.remove_prefix(1);
    }
    return !name.empty() && std::all_of(name.begin(), name.end(), isDigit);
}

// A line: a disk, or a partition, which is skipped.
class Disk {
  public:
    explicit Disk(std::string_view device) : name(device) {}

    void Read(SeriesTable& table, TextCursor& line) {
        Numbers numbers;
        size_t count = 0;
        while (count < numbers.size() && line.Number(numbers[count])) ++count;
        if (count <= kWrites) return Clear(table);
        // Loop devices and the like that nobody uses.
        if (m_count == 0 && numbers[kReads] == 0 && numbers[kWrites] == 0) return;
        // Statistics that were cleared, or another device of this name.
        const bool isReset =
            m_count == 0 || numbers[kReads] < m_last[kReads] || numbers[kWrites] < m_last[kWrites];
        for (size_t i = 0; i < count; ++i) {
            if (kDiskRows[i].name == nullptr) continue;
            if (HasMilliseconds(kDiskRows[i]) && !isReset)
                numbers[i] = Extend(m_last[i], numbers[i]);
            m_series[i].Set(table, kDiskRows[i], "disk", name, numbers[i]);
        }
        m_last = numbers;
        m_count = count;
    }
    void Clear(SeriesTable& table) const {
        for (const LazySeries& series : m_series) series.Clear(table);
    }
    void Remove(SeriesTable& table) {
        for (LazySeries& series : m_series) series.Remove(table);
    }

    std::string name;
    enum { kNew, kDisk, kPartition } role = kNew;

  private:
    std::array<LazySeries, std::size(kDiskRows)> m_series;
    Numbers m_last{};
    size_t m_count = 0;  // of numbers; 0: it was not used yet
};

class DiskSource : public Source {
  public:
    void Sample(SampleContext& context) override {
        const std::string_view text = m_file.Read(context);
        if (text.empty()) return m_lines.Clear(context.table);
        m_lines.Begin();
        std::string_view disk;  // partitions follow their disk
        for (TextCursor cursor(text); !cursor.AtEnd(); cursor.NextLine()) {
            uint64_t ignored = 0;
            if (!cursor.Number(ignored) || !cursor.Number(ignored)) continue;
            const std::string_view name = cursor.Word();
            Disk& line = m_lines.Next(name);
            if (line.role == Disk::kNew) {
                line.role = IsPartition(name, disk) ? Disk::kPartition : Disk::kDisk;
            }
            if (line.role == Disk::kPartition) continue;
            disk = name;
            line.Read(context.table, cursor);
        }
        m_lines.End(context.table);
    }
    void AddNotes(std::vector<std::string>& notes) const override {
        m_file.AddNote(notes, "disk_*");
    }

  private:
    SourceFile m_file{"/proc/diskstats", true};
    DeviceList<Disk> m_lines;
};

}  // namespace

void AddDiskSource(Sources& sources) {
    sources.push_back(std::make_unique<DiskSource>());
}
