// inventory.so in the real daemon, over a made sysfs that changes between two runs and within one.
#include <sys/mount.h>
#include <sys/stat.h>

#include "tests/daemon/daemon_test.h"
#include "tests/kemdctl/ctl.h"
#include "tests/modules.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kFile = "/var/lib/kemd/inventory.json";
constexpr const char* kDevices = "/sys/bus/pci/devices/";

class InventoryModuleTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        for (const char* const path :
             {"/etc/kemd", "/var/lib/kemd", "/sys/block", "/sys/bus", "/sys/devices", "/dev/sda"}) {
            fs::remove_all(path);
        }
        fs::create_directories("/var/lib");
        ClearModules();
        AddModule("/build/modules/inventory/inventory.so");
        UseSwitch("reference");
        WriteFile("/etc/orvmon/registry", "[HKEY_LOCAL_MACHINE]\n\n\n\n");
        m_environment["OV_MODULE_DIR"] = kModules;
        MakeFunction("0000:00:01.0");
        MakeFunction("0000:00:02.0");
    }
    static void Configure(const std::string& settings) {
        WriteFile("/etc/kemd/modules.d/inventory.ini", "[Settings]\n" + settings);
    }
    static void MakeFunction(const std::string& address, const std::string& device = "1563",
                             const std::string& port = "", const std::string& lanes = "8",
                             const std::string& classCode = "20000") {
        const std::string path = "/sys/devices/pci0000:00/" + port + address;
        const std::pair<const char*, std::string> attributes[] = {
            {"/uevent", "PCI_CLASS=" + classCode + "\nPCI_ID=8086:" + device + "\n"},
            {"/current_link_width", lanes + "\n"},
            {"/max_link_width", "8\n"},
            {"/current_link_speed", "8.0 GT/s PCIe\n"},
            {"/max_link_speed", "8.0 GT/s PCIe\n"}};
        for (const auto& [name, text] : attributes) WriteFile(path + name, text);
        fs::create_directories(kDevices);
        std::error_code error;
        fs::create_symlink(path, kDevices + address, error);
    }
    // It has no node in /dev.
    static void MakeDrive(const std::string& name, const std::string& number) {
        const std::string device = "/sys/devices/pci0000:00/" + name + "/host1/1:0:0:0";
        WriteFile(device + "/vendor", "ATA\n");
        WriteFile(device + "/block/" + name + "/dev", number + "\n");
        fs::create_symlink(device, device + "/block/" + name + "/device");
        fs::create_directories("/sys/block");
        fs::create_symlink(device + "/block/" + name, "/sys/block/" + name);
    }
    static void RemoveFunction(const std::string& address) {
        fs::remove(kDevices + address);
        fs::remove_all("/sys/devices/pci0000:00/" + address);
    }
    [[nodiscard]] bool Traces(const std::string& text) const {
        return WaitFor([&] { return Contains(Trace(), text); });
    }
    static std::string Health() {
        const std::string shown = Ctl("modules show inventory").out;
        const size_t start = shown.find("health:");
        return start == shown.npos ? shown : shown.substr(start, shown.find('\n', start) - start);
    }
    static bool IsHealth(const std::string& text) {
        return WaitFor([&] { return Health() == "health:       " + text; });
    }
};

TEST_F(InventoryModuleTest, ReportsWhatChangedSinceTheLastRun) {
    Configure("Delay = 0\nHealth = no\nSections = pci\n");
    const pid_t first = Run();
    ASSERT_TRUE(WaitFor([] { return fs::exists(kFile); }));
    struct stat status {};
    ASSERT_EQ(stat(kFile, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_TRUE(Holds(ReadFile(kFile), {R"("sections": ["pci"])", R"("id": "pci:0000:00:02.0")"}));
    EXPECT_TRUE(WaitFor(
        [] { return Contains(Ctl("modules request inventory status").out, "2 items at "); }));
    EXPECT_EQ(Ctl("modules request inventory nonsense").code, 2);
    EXPECT_EQ(Stop(first), 0);
    EXPECT_FALSE(Contains(Trace(), "since the inventory"));

    RemoveFunction("0000:00:01.0");
    MakeFunction("0000:00:02.0", "1564");
    MakeFunction("0000:00:03.0");
    const pid_t second = Run();
    ASSERT_TRUE(Traces("3 changes since the inventory of "));
    EXPECT_TRUE(Holds(Trace(), {"pci:0000:00:01.0 removed: 0000:00:01.0\n",
                                "pci:0000:00:02.0 changed: device_id: 1563 -> 1564\n",
                                "pci:0000:00:03.0 added: 0000:00:03.0\n"}));
    EXPECT_TRUE(IsHealth("ok"));
    // What the administrator asks for is compared too.
    RemoveFunction("0000:00:03.0");
    EXPECT_EQ(Ctl("modules request inventory scan").code, 0);
    EXPECT_TRUE(Traces("1 change since the inventory of "));
    EXPECT_EQ(Stop(second), 0);
}

TEST_F(InventoryModuleTest, WarningsAreItsHealth) {
    // A card of 8 lanes that uses 4, below a port of 8.
    MakeFunction("0000:00:03.0", "1901", "", "8", "60400");
    MakeFunction("0000:01:00.0", "1563", "0000:00:03.0/", "4");
    Configure("Delay = 0\nHealth = no\nSections = pci\n");
    const pid_t pid = Run();
    EXPECT_TRUE(IsHealth("warning: PCI 0000:01:00.0 runs with 4 of 8 lanes")) << Health();
    EXPECT_TRUE(Traces("warning: PCI 0000:01:00.0 runs with 4 of 8 lanes"));
    Configure("Delay = 0\nHealth = no\nSections = pci\nAccepted = other | *of 8 lanes\n");
    EXPECT_EQ(Ctl("modules reload inventory").code, 0);
    EXPECT_EQ(Ctl("modules request inventory scan").code, 0);
    EXPECT_TRUE(IsHealth("ok")) << Health();
    EXPECT_TRUE(Traces("no longer: PCI 0000:01:00.0 runs with 4 of 8 lanes"));
    Configure("Sections = disks\n");
    EXPECT_NE(Ctl("modules reload inventory").code, 0);
    EXPECT_TRUE(Traces("Sections: there is no section disks; known are: system memory"));
    EXPECT_EQ(Stop(pid), 0);
}

// A mount is seen by the watch, traced as it comes, and not again by the scan after it.
TEST_F(InventoryModuleTest, TracesWhatTheWatchSees) {
    Configure("Delay = 0\nHealth = no\nSections = volumes\n");
    const pid_t pid = Run();
    ASSERT_TRUE(WaitFor([] { return fs::exists(kFile); }));
    fs::create_directories("/tmp/disk");
    ASSERT_EQ(mount("none", "/tmp/disk", "tmpfs", 0, nullptr), 0);
    EXPECT_TRUE(Traces("mount:/tmp/disk added: /tmp/disk\n"));
    EXPECT_TRUE(WaitFor([] { return Contains(ReadFile(kFile), "mount:/tmp/disk"); }));
    ASSERT_EQ(umount("/tmp/disk"), 0);
    EXPECT_TRUE(Traces("mount:/tmp/disk removed: /tmp/disk\n"));
    EXPECT_TRUE(WaitFor([] { return !Contains(ReadFile(kFile), "mount:/tmp/disk"); }));
    EXPECT_EQ(Stop(pid), 0);
    const std::string trace = Trace();
    EXPECT_EQ(trace.find("mount:/tmp/disk added"), trace.rfind("mount:/tmp/disk added"));
    EXPECT_FALSE(Contains(trace, "since the inventory"));
}

// A drive that is asked at each change may never sleep. What it could not be asked for stays too.
TEST_F(InventoryModuleTest, AsksForHealthAtTheStartAndNotAtEachChange) {
    const auto keeps = [](const std::vector<std::string>& texts) {
        return WaitFor([&] { return Holds(ReadFile(kFile), texts); });
    };
    MakeDrive("sda", "8:0");
    Configure("Delay = 0\nSections = drives volumes\n");
    const pid_t pid = Run();
    ASSERT_TRUE(keeps({"drive:sda: health: No such file or directory"}));
    fs::create_symlink("/dev/null", "/dev/sda");
    MakeDrive("sdb", "8:16");
    fs::create_directories("/tmp/disk");
    ASSERT_EQ(mount("none", "/tmp/disk", "tmpfs", 0, nullptr), 0);
    EXPECT_TRUE(keeps({"mount:/tmp/disk", "drive:sda: health: No such file or directory",
                       "drive:sdb: health: No such file or directory"}))
        << ReadFile(kFile);
    EXPECT_EQ(Ctl("modules request inventory scan").code, 0);
    EXPECT_TRUE(keeps({"drive:sda: health: No such device"})) << ReadFile(kFile);
    EXPECT_EQ(umount("/tmp/disk"), 0);
    EXPECT_EQ(Stop(pid), 0);
}

// Of many changes a part is traced as they come, the others after the next scan.
TEST_F(InventoryModuleTest, BearsManyChanges) {
    Configure("Delay = 1h\nHealth = no\nSections = volumes\n");
    const pid_t pid = Run();
    EXPECT_EQ(Ctl("modules request inventory scan").code, 0);
    ASSERT_TRUE(WaitFor([] { return fs::exists(kFile); }));
    for (int i = 0; i < 150; ++i) {
        const std::string path = "/tmp/flood" + std::to_string(i);
        fs::create_directories(path);
        ASSERT_EQ(mount("none", path.c_str(), "tmpfs", 0, nullptr), 0);
    }
    ASSERT_TRUE(Traces("many changes: the next inventory has what follows"));
    EXPECT_EQ(Ctl("modules request inventory scan").code, 0);
    EXPECT_TRUE(Traces("150 changes since the inventory of "));
    for (const char* const number : {"0", "149"}) {
        EXPECT_TRUE(Traces("flood" + std::string(number) + " added: "));
    }
    EXPECT_EQ(Stop(pid), 0);
}

// Before its time, and while thousands of functions are read.
TEST_F(InventoryModuleTest, StopsAtOnce) {
    Configure("Delay = 1h\n");
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_FALSE(fs::exists(kFile));
    for (int i = 0; i < 2000; ++i) {
        char address[32];
        std::snprintf(address, sizeof address, "0000:%02x:%02x.0", 1 + i / 32, i % 32);
        MakeFunction(address);
    }
    Configure("Delay = 0\nHealth = no\n");
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_FALSE(Contains(Trace(), "exceeded"));
}

TEST_F(InventoryModuleTest, SaysWhatItCannotKeep) {
    WriteFile(kFile, "{}");
    Configure("Delay = 0\nHealth = no\nSections = pci\n");
    const pid_t pid = Run();
    EXPECT_TRUE(
        Traces("cannot read the last inventory in /var/lib/kemd/inventory.json: it is no "
               "inventory; a new one replaces it"));
    EXPECT_TRUE(WaitFor([] { return Contains(ReadFile(kFile), "kemd inventory"); }));
    fs::remove(kFile);
    fs::create_directories(kFile);
    EXPECT_EQ(Ctl("modules request inventory scan").code, 0);
    EXPECT_TRUE(IsHealth("failed: the inventory is not kept: Is a directory")) << Health();
    // Each fault and each change is traced once, as often as it is tried.
    MakeFunction("0000:00:03.0");
    for (const char* const changes : {"1 change since", "0 changes since"}) {
        EXPECT_EQ(Ctl("modules request inventory scan").code, 0);
        const std::string text = std::string(changes) + " the inventory of ";
        EXPECT_TRUE(Traces(text)) << text;
    }
    EXPECT_EQ(Stop(pid), 0);
    const std::string trace = Trace();
    for (const char* const once : {"03.0 added", "cannot keep the inventory in"}) {
        EXPECT_EQ(trace.find(once), trace.rfind(once)) << once;
    }
}

}  // namespace
