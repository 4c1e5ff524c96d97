// The kernel's tables of mounts and of swap space, as text. The parsers are pure functions; what a
// line lacks or has too much is left out. They throw std::bad_alloc alone.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The directory in /proc of a process that has the host's mounts: of process 1 when this one has
// others, as a service with a private /tmp, and may look; otherwise its own.
std::string HostMountsProcess();
// Where this process finds a path of the host that its own mounts may hide.
std::string HostPath(const std::string& path);

// A line of "mountinfo" there.
struct MountEntry {
    uint64_t id = 0;
    uint32_t major = 0;  // 0 for what is on no block device, and for btrfs
    uint32_t minor = 0;
    std::string root;  // the part of the file system that is mounted: "/", "/@home"
    std::string target;
    std::string options;  // of the mount, then of the file system: "rw,relatime,errors=remount-ro"
    std::string type;
    std::string source;  // "/dev/sda1", "server:/export", "tmpfs"
};

// A line of /proc/swaps.
struct SwapEntry {
    std::string path;
    bool isFile = false;
    uint64_t size = 0;  // bytes
    uint64_t used = 0;
    std::string priority;
};

std::vector<MountEntry> ParseMounts(std::string_view text);
std::vector<SwapEntry> ParseSwaps(std::string_view text);
