// Files of /proc and /sys whose bytes the test decides, at their real paths.
#pragma once

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

// While it lives, PATH is a file of ours. Written in place, so that a file that is held open has
// the new bytes.
class MadeFiles {
  public:
    ~MadeFiles() {
        for (const auto& [path, file] : m_files) umount2(path.c_str(), MNT_DETACH);
    }
    // False when the file cannot be bound over the real one.
    bool Write(const std::string& path, const std::string& text) {
        // The kernel forgets mounts on its files of networks.
        if (path.starts_with("/proc/net/")) {
            std::filesystem::create_directories("/tmp/made.net");
            std::ofstream("/tmp/made.net" + path.substr(9), std::ios::binary) << text;
            return Bind("/tmp/made.net", "/proc/self/net");
        }
        const auto place = m_files.find(path);
        const std::string file =
            place != m_files.end() ? place->second : "/tmp/made." + std::to_string(s_count++);
        std::ofstream(file, std::ios::binary) << text;
        return Bind(file, path);
    }

  private:
    bool Bind(const std::string& file, const std::string& path) {
        if (!m_files.try_emplace(path, file).second) return true;
        return mount(file.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
    }

    static inline int s_count = 0;
    std::map<std::string, std::string> m_files;
};

// Made, not recorded: as the kernel writes them.
inline std::string MadeStat(int processors, uint64_t ticks) {
    const auto line = [&](const std::string& name) {
        return name + " " + std::to_string(ticks) + " 2 3 4 5 6 7 8 9 10\n";
    };
    std::string text = line("cpu ");
    for (int i = 0; i < processors; ++i) text += line("cpu" + std::to_string(i));
    text += "intr 1234";
    for (int i = 0; i < processors * 8; ++i) text += " 0";
    return text + "\nctxt 5\nbtime 1\nprocesses 6\nprocs_running 7\nprocs_blocked 8\nsoftirq 1 2\n";
}

inline std::string MadeDiskstats(int disks, uint64_t reads) {
    std::string text;
    for (int i = 0; i < disks; ++i) {
        const std::string name = "sd" + std::string(1, static_cast<char>('a' + i / 26 % 26)) +
                                 static_cast<char>('a' + i % 26);
        const std::string id = "   8 " + std::to_string(i * 16 % 256) + " " + name;
        for (const char* part : {"", "1", "2"}) {
            text += id + part + " " + std::to_string(reads) +
                    " 0 8 30 4 5 6 70 0 90 100 11 0 13 140 15 160\n";
        }
    }
    return text;
}
