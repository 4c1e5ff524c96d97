// Mounts and swap space.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "base/file_io.h"
#include "inventory/host_inventory.h"
#include "inventory/mount_table.h"
#include "inventory/sys_directory.h"
#include "inventory/volumes.h"

namespace {

constexpr size_t kMostText = size_t{16} << 20;  // a host of containers has thousands of mounts

// The kernel's own, which hold no data.
constexpr std::string_view kPseudoTypes[] = {
    "anon_inodefs", "autofs",
    "bdev",         "binder",
    "binfmt_misc",  "bpf",
    "cgroup",       "cgroup2",
    "configfs",     "cpuset",
    "debugfs",      "devfs",
    "devpts",       "efivarfs",
    "fusectl",      "hugetlbfs",
    "inotifyfs",    "mqueue",
    "nfsd",         "nsfs",
    "pipefs",       "proc",
    "pstore",       "resctrl",
    "rpc_pipefs",   "securityfs",
    "selinuxfs",    "smackfs",
    "sockfs",       "sysfs",
    "tracefs",      "fuse.lxcfs",
    "fuse.portal",  "fuse.gvfsd-fuse",
};

// Those that answer without asking another host or a process. The rest may hang.
constexpr std::string_view kLocalTypes[] = {
    "bcachefs", "btrfs",    "devtmpfs", "erofs", "exfat", "ext2",  "ext3",   "ext4",  "f2fs",
    "hfs",      "hfsplus",  "iso9660",  "jfs",   "minix", "msdos", "nilfs2", "ntfs3", "ramfs",
    "reiserfs", "squashfs", "tmpfs",    "udf",   "vfat",  "xfs",   "zfs",
};

template <size_t kCount>
bool Has(const std::string_view (&types)[kCount], std::string_view type) {
    return std::find(std::begin(types), std::end(types), type) != std::end(types);
}

bool IsLocal(const MountEntry& mount) {
    // An overlay answers as its upper layer does, which is never on the network.
    return Has(kLocalTypes, mount.type) ||
           (mount.type == "overlay" && mount.options.find(",upperdir=") != mount.options.npos);
}

using Directories = std::set<std::string, std::less<>>;

bool IsWithinOne(const Directories& directories, std::string_view path) {
    if (directories.contains("/")) return true;
    while (!path.empty() && !directories.contains(path)) {
        path.remove_suffix(path.size() - std::min(path.size() - 1, path.rfind('/')));
    }
    return !path.empty();
}

// The mount at the end of the path is the one with this number: it is not hidden by another one.
bool IsMount(int fd, uint64_t id) {
    struct statx status {};
    const bool isKnown =
        statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_MNT_ID, &status) == 0 &&
        (status.stx_mask & STATX_MNT_ID) != 0;
    return !isKnown || status.stx_mnt_id == id;  // before Linux 5.8 it says nothing
}

class MountScan {
  public:
    MountScan(KemdInventory& inventory, BlockItems& blocks)
        : m_inventory(&inventory), m_blocks(&blocks) {}

    void AddMounts() {
        std::vector<MountEntry> mounts = ParseMounts(Read(HostMountsProcess() + "/mountinfo"));
        std::erase_if(mounts, [](const auto& mount) { return Has(kPseudoTypes, mount.type); });
        Directories slow;
        // Volumes before their mounts.
        for (const MountEntry& mount : mounts) {
            (void)Volume(mount);
            if (!IsLocal(mount)) slow.insert(mount.target);
        }
        for (const MountEntry& mount : mounts) AddMount(mount, !IsWithinOne(slow, mount.target));
    }

    void AddSwaps() {
        for (const SwapEntry& swap : ParseSwaps(Read("/proc/swaps"))) {
            const std::string name = swap.isFile ? std::string() : NameOf("", swap.path);
            KemdInventoryItem* item = name.empty() ? nullptr : Volume(name);
            if (item == nullptr) {
                item = &m_inventory->Add(ItemKind::kVolume, "volume:swap:" + swap.path, swap.path);
                item->Add("type", "swap");
                item->Add("backing_file", swap.path);
                item->AddNumber("size", swap.size);
            }
            if (item->Find("fs_type") == nullptr) item->Add("fs_type", "swap");
            item->Add("mountpoints", "[SWAP]");
            item->Add("swap_priority", swap.priority);
            item->AddNumber("swap_used", swap.used);
        }
    }

  private:
    std::string Read(const std::string& path) {
        std::optional<std::string> text = ReadTextFile(path, kMostText);
        const int error = errno;
        if (!text) m_inventory->NoteError(path, error);
        if (text && text->size() == kMostText) m_inventory->Note(path, "more than 16 MiB: cut");
        return text ? std::move(*text) : std::string();
    }

    // Of the device of a mount; empty when it has none.
    [[nodiscard]] std::string NameOf(const std::string& number, const std::string& source) const {
        const auto known = m_blocks->numbers.find(number);
        if (known != m_blocks->numbers.end()) return known->second;
        // btrfs has a number of its own.
        constexpr std::string_view kMapper = "/dev/mapper/";
        if (!source.starts_with("/dev/")) return {};
        const auto mapped = source.starts_with(kMapper)
                                ? m_blocks->mapped.find(source.substr(kMapper.size()))
                                : m_blocks->mapped.end();
        if (mapped != m_blocks->mapped.end()) return mapped->second;
        const std::string real = RealPath(source);
        std::string name = KernelName(real.empty() ? source : real);
        return m_blocks->ids.contains(name) ? name : std::string();
    }

    // Null when the device is unknown.
    KemdInventoryItem* Volume(const std::string& name) {
        const auto known = m_blocks->ids.find(name);
        if (known == m_blocks->ids.end()) return nullptr;
        const auto drive = m_blocks->drives.find(name);
        const bool isUnused = drive != m_blocks->drives.end() && drive->second == known->second;
        return isUnused ? &AddWholeDrive(*m_inventory, *m_blocks, name)
                        : m_inventory->Find(known->second);
    }

    KemdInventoryItem* Volume(const MountEntry& mount) {
        const std::string name =
            NameOf(std::to_string(mount.major) + ":" + std::to_string(mount.minor), mount.source);
        return name.empty() ? nullptr : Volume(name);
    }

    void AddMount(const MountEntry& mount, bool isFast) {
        struct statvfs space {};
        const bool hasSpace = isFast && GetSpace(mount, space);
        if (hasSpace && space.f_blocks == 0) return;  // as df: nothing can be stored there
        KemdInventoryItem& item =
            m_inventory->Add(ItemKind::kMount, "mount:" + mount.target, mount.target);
        item.Add("target", mount.target);
        item.Add("source", mount.source);
        item.Add("fs_type", mount.type);
        if (mount.root != "/") item.Add("fs_root", mount.root);
        item.Add("options", mount.options);
        if (hasSpace) {
            item.AddNumber("fs_size", space.f_blocks * space.f_frsize);
            item.AddNumber("fs_used", (space.f_blocks - std::min(space.f_bfree, space.f_blocks)) *
                                          space.f_frsize);
            item.AddNumber("fs_available", space.f_bavail * space.f_frsize);
        }
        KemdInventoryItem* const volume = Volume(mount);
        if (volume == nullptr) return;
        item.parent = volume->id;
        volume->Add("mountpoints", mount.target);
        // Where there is no udev.
        if (volume->Find("fs_type") == nullptr) volume->Add("fs_type", mount.type);
    }

    bool GetSpace(const MountEntry& mount, struct statvfs& space) {
        const UniqueFd fd(open((m_root + mount.target).c_str(), O_PATH | O_CLOEXEC));
        if (!fd.IsOpen()) {
            const int error = errno;
            // Others are hidden by a later mount above them, or removed. Hosts of containers have
            // thousands in directories that only root may enter: one note says so for all.
            const bool isDenied = error == EACCES;
            if (isDenied) m_inventory->NoteError("space of mounts in others' directories", error);
            if (!isDenied && error != ENOENT && error != ENOTDIR) {
                m_inventory->NoteError(mount.target, error);
            }
            return false;
        }
        return IsMount(fd.Get(), mount.id) && fstatvfs(fd.Get(), &space) == 0;
    }

    KemdInventory* m_inventory;
    BlockItems* m_blocks;
    std::string m_root = HostPath("");
};

}  // namespace

void ScanMounts(KemdInventory& inventory, BlockItems& blocks) {
    MountScan scan(inventory, blocks);
    scan.AddSwaps();
    scan.AddMounts();
}
