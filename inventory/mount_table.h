// The kernel's tables of mounts and of swap space, as text. Pure functions; what a line lacks or
// has too much is left out. They throw std::bad_alloc alone.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A line of /proc/self/mountinfo.
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
