// What a scan of 300 PCI functions and the names of their vendors, devices and subsystems cost,
// beside lspci, which is started for each round. With the argument "host" the functions of the
// machine are scanned (their sysfs must then be bound), otherwise 300 that are made from pci.ids.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "inventory/host_inventory.h"
#include "inventory/id_names.h"
#include "inventory/pci_function.h"
#include "inventory/sources.h"

namespace {

constexpr const char* kIds = "/usr/share/misc/pci.ids";
constexpr size_t kFunctions = 300;

struct Ids {
    unsigned vendor, device, subVendor, subDevice;
};

// Subsystems from all over the file.
std::vector<Ids> ChooseIds() {
    std::ifstream file(kIds);
    std::vector<Ids> all;
    Ids now{};
    for (std::string line; std::getline(file, line) && !line.starts_with("C ");) {
        if (std::sscanf(line.c_str(), "\t\t%4x %4x", &now.subVendor, &now.subDevice) == 2) {
            all.push_back(now);
        } else if (line.starts_with('\t')) {
            std::sscanf(line.c_str(), "%4x", &now.device);
        } else {
            std::sscanf(line.c_str(), "%4x", &now.vendor);
        }
    }
    if (all.size() < kFunctions) std::abort();
    std::vector<Ids> chosen;
    for (size_t i = 0; i < kFunctions; ++i) chosen.push_back(all[i * all.size() / kFunctions]);
    return chosen;
}

void Write(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

std::string Hex(unsigned number) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%04x\n", number);
    return text;
}

void MakeFunction(const PciAddress& address, const Ids& ids) {
    const std::filesystem::path path = "/sys/devices/pci0000:00/" + address.Text();
    std::string config(256, '\0');
    const auto put = [&config](size_t at, unsigned number) {
        config[at] = static_cast<char>(number & 0xFF);
        config[at + 1] = static_cast<char>(number >> 8);
    };
    put(0, ids.vendor);
    put(2, ids.device);
    put(0x0A, 0x0200);
    put(0x2C, ids.subVendor);
    put(0x2E, ids.subDevice);
    char text[256];
    std::snprintf(text, sizeof text, "PCI_CLASS=20000\nPCI_ID=%04X:%04X\nPCI_SUBSYS_ID=%04X:%04X\n",
                  ids.vendor, ids.device, ids.subVendor, ids.subDevice);
    Write(path / "uevent", text);
    Write(path / "config", config);
    Write(path / "class", "0x020000\n");
    Write(path / "vendor", Hex(ids.vendor));
    Write(path / "device", Hex(ids.device));
    Write(path / "subsystem_vendor", Hex(ids.subVendor));
    Write(path / "subsystem_device", Hex(ids.subDevice));
    Write(path / "irq", "11\n");
    Write(path / "revision", "0x01\n");
    Write(path / "numa_node", "0\n");
    Write(path / "enable", "1\n");
    Write(path / "power_state", "D0\n");
    std::string resource;
    for (int i = 0; i < 13; ++i) {
        resource += "0x00000000fb000000 0x00000000fb3fffff 0x000000000014220c\n";
    }
    Write(path / "resource", resource);
    std::filesystem::create_directories("/sys/bus/pci/devices");
    std::filesystem::create_symlink(path, "/sys/bus/pci/devices/" + address.Text());
}

void Lspci(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "lspci");
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t process = -1;
    const int error = posix_spawnp(&process, "lspci", &actions, nullptr,
                                   const_cast<char**>(arguments.data()), environ);
    int status = -1;
    if (error != 0 || waitpid(process, &status, 0) != process || status != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
}

void Scan() {
    KemdInventory inventory;
    ScanPci(inventory);
    if (inventory.items.empty()) std::abort();
}

void LookUp(const std::vector<Ids>& chosen) {
    IdNames names;
    for (const Ids& each : chosen) {
        const auto vendor = static_cast<uint16_t>(each.vendor);
        const auto device = static_cast<uint16_t>(each.device);
        names.WantDevice(vendor, device);
        names.WantSubsystem(vendor, device, static_cast<uint16_t>(each.subVendor),
                            static_cast<uint16_t>(each.subDevice));
    }
    names.WantClass(0x020000);
    KemdInventory inventory;
    names.ReadPci(inventory);
    if (names.Subclass(0x020000).empty()) std::abort();
}

}  // namespace

int main(int argc, char** argv) {
    const bool isHost = argc == 2 && std::strcmp(argv[1], "host") == 0;
    const std::vector<Ids> chosen = ChooseIds();
    for (size_t i = 0; i < chosen.size() && !isHost; ++i) {
        MakeFunction({0, static_cast<uint8_t>(i >> 5), static_cast<uint8_t>(i & 31), 0}, chosen[i]);
    }
    std::vector<Contender> contenders = {
        Make("lspci -vmmk",
             [](int) {
                 Lspci({"-O", "hwdb.disable=1", "-vmmk"});
             }),
        Make("the whole scan", [](int) { Scan(); }),
        Make("lspci -vmm, names",
             [](int) {
                 Lspci({"-O", "hwdb.disable=1", "-vmm"});
             }),
        Make("lspci -vmm -n, numbers",
             [](int) {
                 Lspci({"-vmm", "-n"});
             }),
        Make("names of 300 functions", [&](int) { LookUp(chosen); }),
    };
    MeasureRounds(contenders, 25, 4);
    Report("PCI functions", contenders);
    return 0;
}
