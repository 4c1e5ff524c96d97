// Errors of disks: commands of SCSI and SATA disks that failed, and errors that ext4 found. Other
// drivers count none.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <string>

#include "performance/slow_source.h"

namespace {

struct ErrorsTask : SlowTask {
    struct Errors {
        std::string disk;
        uint64_t count;
    };

    void Run() override {
        found.clear();
        Read("/sys/block", "/device/ioerr_cnt");  // as 0x1f
        Read("/sys/fs/ext4", "/errors_count");
    }
    std::vector<Errors> found;

  private:
    // A file system without a partition has the name of its disk.
    void Add(const char* disk, uint64_t count) {
        const auto place = std::find_if(found.begin(), found.end(),
                                        [&](const Errors& errors) { return errors.disk == disk; });
        if (place == found.end()) {
            found.push_back({disk, count});
        } else {
            place->count += count;
        }
    }
    void Read(const std::string& directory, const char* file) {
        const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(directory.c_str()), closedir);
        if (entries == nullptr) return;
        while (const dirent* const entry = readdir(entries.get())) {
            if (entry->d_name[0] == '.') continue;
            const std::string path = directory + "/" + entry->d_name + file;
            const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
            std::array<char, 32> text{};
            if (!fd.IsOpen() || read(fd.Get(), text.data(), text.size() - 1) <= 0) continue;
            Add(entry->d_name, std::strtoull(text.data(), nullptr, 0));
        }
    }
};

constexpr SeriesRow kErrorRow = {
    "disk_errors", "", "Commands that failed, or errors of its file system", SeriesKind::kCounter};

struct FailingDisk {
    explicit FailingDisk(std::string_view text) : name(text) {}
    void Clear(SeriesTable& table) const { series.Clear(table); }
    void Remove(SeriesTable& table) { series.Remove(table); }
    std::string name;
    LazySeries series;
};

class DiskErrorSource : public SlowSource {
  public:
    void Start(SampleContext& context, SlowWorker& worker) override {
        m_task.Start(worker, context.now);
    }
    void Collect(SampleContext& context) override {
        if (m_task.IsOverdue(context.now)) m_disks.Clear(context.table);
        if (!m_task.Take()) return;
        m_disks.Begin();
        for (const auto& [name, count] : m_task.Result().found) {
            FailingDisk& disk = m_disks.Next(name);
            disk.series.Set(context.table, kErrorRow, "disk", disk.name, count);
        }
        m_disks.End(context.table);
    }
    void AddNotes(std::vector<std::string>& /*notes*/) const override {}

  private:
    PendingTask<ErrorsTask> m_task;
    DeviceList<FailingDisk> m_disks;
};

}  // namespace

void AddDiskErrorSource(SlowSources& sources) {
    sources.push_back(std::make_unique<DiskErrorSource>());
}
