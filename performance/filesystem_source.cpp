// Space and inodes of local file systems.
#include <fcntl.h>
#include <poll.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "base/line_reader.h"
#include "performance/slow_source.h"
#include "performance/text_cursor.h"

namespace {

// Of the network, of the kernel, in memory, made of other file systems, or images that are always
// full. Types in user space ("fuse.NAME") are of all kinds, but for fuseblk, which has a disk.
constexpr std::string_view kOtherTypes[] = {
    "9p",     "afs",         "anon_inodefs", "aufs",      "autofs",      "bdev",     "beegfs",
    "binder", "binfmt_misc", "bpf",          "ceph",      "cgroup",      "cgroup2",  "cifs",
    "coda",   "configfs",    "cpuset",       "cramfs",    "debugfs",     "devpts",   "devtmpfs",
    "dlm",    "ecryptfs",    "efivarfs",     "erofs",     "fuse",        "fusectl",  "glusterfs",
    "gpfs",   "hugetlbfs",   "inotifyfs",    "iso9660",   "lustre",      "mqueue",   "ncpfs",
    "nfs",    "nfs4",        "nfsd",         "nsfs",      "ocfs2_dlmfs", "orangefs", "overlay",
    "panfs",  "pipefs",      "proc",         "pstore",    "pvfs2",       "ramfs",    "resctrl",
    "romfs",  "rpc_pipefs",  "securityfs",   "selinuxfs", "shiftfs",     "smackfs",  "smb2",
    "smb3",   "smbfs",       "sockfs",       "squashfs",  "sysfs",       "tmpfs",    "tracefs",
    "udf",    "vboxsf",      "virtiofs",     "vmhgfs",
};

bool IsLocal(std::string_view type, std::string_view mount) {
    if (type == "overlay" && mount == "/") return true;  // the root of a container
    return !type.starts_with("fuse.") &&
           std::find(std::begin(kOtherTypes), std::end(kOtherTypes), type) == std::end(kOtherTypes);
}

// "\040" is a blank, as are other bytes below.
std::string Unescaped(std::string_view text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            const int byte = (text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + text[i + 3] - '0';
            result += static_cast<char>(byte);
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

struct SpaceTask : SlowTask {
    explicit SpaceTask(std::string mount) : path(std::move(mount)) {}
    void Run() override { error = statvfs(path.c_str(), &space) == 0 ? 0 : errno; }

    const std::string path;
    struct statvfs space {};
    int error = 0;
};

constexpr SeriesRow Gauge(const char* name, const char* unit, const char* help) {
    return {name, unit, help, SeriesKind::kGauge};
}
constexpr SeriesRow kFileSystemRows[] = {
    Gauge("filesystem_size_bytes", "bytes", "Size"),
    Gauge("filesystem_free_bytes", "bytes", "Free space, what is kept for root included"),
    Gauge("filesystem_available_bytes", "bytes", "Space that ordinary users can have"),
    Gauge("filesystem_inodes", "", "Files that it can hold"),
    Gauge("filesystem_inodes_free", "", "Of those the ones that are free"),
};

class Mount {
  public:
    explicit Mount(std::string_view path) : name(path), m_task(std::string(path)) {}

    void Start(SlowWorker& worker, int64_t now) { m_task.Start(worker, now); }
    void Collect(SeriesTable& table, int64_t now) {
        m_isOverdue = m_task.IsOverdue(now);
        if (m_isOverdue) Clear(table);
        if (!m_task.Take()) return;
        m_error = m_task.Result().error;
        const struct statvfs& space = m_task.Result().space;
        if (m_error != 0) return Clear(table);
        const uint64_t values[] = {space.f_blocks * space.f_frsize, space.f_bfree * space.f_frsize,
                                   space.f_bavail * space.f_frsize, space.f_files, space.f_ffree};
        // Without a fixed number of inodes: btrfs, FAT.
        const size_t count = space.f_files == 0 ? 3 : m_series.size();
        for (size_t i = 0; i < count; ++i) {
            m_series[i].Set(table, kFileSystemRows[i], "mount", name, values[i]);
        }
    }
    void AddNote(std::vector<std::string>& notes) const {
        if (!m_isOverdue && m_error == 0) return;
        notes.push_back(name + ": " + (m_isOverdue ? "does not answer" : std::strerror(m_error)) +
                        ": no filesystem_*");
    }
    void Clear(SeriesTable& table) const {
        for (const LazySeries& series : m_series) series.Clear(table);
    }
    void Remove(SeriesTable& table) {
        for (LazySeries& series : m_series) series.Remove(table);
    }

    std::string name;

  private:
    PendingTask<SpaceTask> m_task;
    std::array<LazySeries, std::size(kFileSystemRows)> m_series;
    bool m_isOverdue = false;
    int m_error = 0;
};

// The mount points of a device's first mount each, the whole file system before a part of it.
std::vector<std::string> LocalMounts(int fd) {
    struct Line {
        std::string device, mount;
        bool isWhole;
    };
    std::vector<Line> lines;
    SmallLineReader reader(fd);
    for (std::string_view text; reader.Next(text);) {
        TextCursor cursor(text);
        (void)cursor.Word();
        (void)cursor.Word();
        const std::string_view device = cursor.Word();
        const std::string_view root = cursor.Word();
        std::string mount = Unescaped(cursor.Word());
        while (!cursor.AtEnd() && cursor.Word() != "-") {
        }
        // A mount hides what was mounted there before.
        std::erase_if(lines, [&](const Line& line) { return line.mount == mount; });
        if (IsLocal(cursor.Word(), mount)) {
            lines.push_back({std::string(device), std::move(mount), root == "/"});
        }
    }
    std::stable_partition(lines.begin(), lines.end(),
                          [](const Line& line) { return line.isWhole; });
    std::vector<std::string> mounts;
    std::set<std::string_view> devices;
    for (const Line& line : lines) {
        if (devices.insert(line.device).second) mounts.push_back(line.mount);
    }
    return mounts;
}

class FilesystemSource : public SlowSource {
  public:
    void Start(SampleContext& context, SlowWorker& worker) override {
        if (HasChanged()) ReadMounts(context.table);
        for (Mount& mount : m_mounts.All()) mount.Start(worker, context.now);
    }
    void Collect(SampleContext& context) override {
        for (Mount& mount : m_mounts.All()) mount.Collect(context.table, context.now);
    }
    void AddNotes(std::vector<std::string>& notes) const override {
        if (m_error != 0) {
            notes.push_back(std::string(kPath) + ": " + std::strerror(m_error) +
                            ": no filesystem_*");
        }
        for (const Mount& mount : m_mounts.All()) mount.AddNote(notes);
    }

  private:
    static constexpr const char* kPath = "/proc/self/mountinfo";

    // The kernel reports each change of the mounts once.
    bool HasChanged() {
        if (!m_fd.IsOpen()) return true;
        pollfd change = {m_fd.Get(), POLLPRI, 0};
        return poll(&change, 1, 0) > 0;
    }
    void ReadMounts(SeriesTable& table) {
        if (!m_fd.IsOpen()) m_fd.Reset(KeepHigh(open(kPath, O_RDONLY | O_CLOEXEC)));
        m_error = m_fd.IsOpen() && lseek(m_fd.Get(), 0, SEEK_SET) == 0 ? 0 : errno;
        m_mounts.Begin();
        if (m_error == 0) {
            for (const std::string& mount : LocalMounts(m_fd.Get())) (void)m_mounts.Next(mount);
        }
        m_mounts.End(table);
    }

    UniqueFd m_fd;
    int m_error = 0;
    DeviceList<Mount> m_mounts;
};

}  // namespace

void AddFilesystemSource(SlowSources& sources) {
    sources.push_back(std::make_unique<FilesystemSource>());
}
