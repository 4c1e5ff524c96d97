// The sampler on recorded and made files: which series there are and what they say, whatever kernel
// wrote the files, and as devices come and go.
#include "performance/sampler.h"

#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>

#include "network/view.h"
#include "performance/slow_worker.h"
#include "tests/performance/made_files.h"
#include "tests/world.h"

namespace {

using Expected = std::map<std::string, double>;
constexpr double kAbsent = NAN;

struct SamplerTest : testing::Test {
    MadeFiles files;
    Sampler sampler{{.processes = false}};
    SeriesTable table;

    void Write(const std::string& path, const std::string& text) {
        ASSERT_TRUE(files.Write(path, text)) << path;
    }
    double Value(const std::string& id) const {
        for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
            if (table.IsUsed(i) && SeriesId(table.Info(i)) == id && table.HasValue(i)) {
                return SeriesNumber(table.Info(i), table.Value(i));
            }
        }
        return kAbsent;
    }
    bool IsKnown(const std::string& id) const {
        for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
            if (table.IsUsed(i) && SeriesId(table.Info(i)) == id) return true;
        }
        return false;
    }
    void Check(const Expected& expected) const {
        for (const auto& [id, value] : expected) {
            if (std::isnan(value)) {
                EXPECT_TRUE(std::isnan(Value(id))) << id << " is " << Value(id);
            } else {
                EXPECT_DOUBLE_EQ(Value(id), value) << id;
            }
        }
    }
    void SampleAndCheck(const Expected& expected) {
        sampler.Sample(table);
        Check(expected);
    }
    std::string Notes() const {
        std::string all;
        for (const std::string& note : sampler.Notes()) all += note + "\n";
        return all;
    }
};

// What record-tree printed: texts by path, "PATH -> TARGET" of links, and "expected".
std::map<std::string, std::string> ReadTree(const std::string& name) {
    std::map<std::string, std::string> files;
    std::istringstream lines(ReadFile("/trees/" + name));
    std::string* text = nullptr;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("=== ")) {
            text = &files[line.substr(4)];
        } else {
            *text += line + "\n";
        }
    }
    return files;
}

// Kernels and numbers of processors. The values are those that awk found in the same files.
struct RecordedTree : SamplerTest, testing::WithParamInterface<const char*> {
    const std::vector<const char*> ofSys = {"/sys/block", "/sys/class", "/sys/devices", "/sys/fs"};
    std::map<std::string, std::string> tree = ReadTree(GetParam());
    Expected expected;

    void SetUp() override {
        for (const char* path : ofSys) std::filesystem::remove_all(path);
        for (const auto& [path, text] : tree) {
            const size_t arrow = path.find(" -> ");
            if (arrow != path.npos) {
                std::filesystem::create_directories(path.substr(0, path.rfind('/', arrow)));
                std::filesystem::create_symlink(path.substr(arrow + 4), path.substr(0, arrow));
            } else if (path.starts_with("/sys/")) {
                WriteFile(path, text);
            } else if (path.starts_with("/proc/")) {
                Write(path, text);
            }
        }
        std::istringstream lines(tree["expected"]);
        for (std::string line; std::getline(lines, line);) {
            const size_t blank = line.rfind(' ');
            expected[line.substr(0, blank)] = std::strtod(line.c_str() + blank, nullptr);
        }
    }
    void TearDown() override {
        for (const char* path : ofSys) std::filesystem::remove_all(path);
    }
};

TEST_P(RecordedTree, HasTheValuesOfItsFilesAndNoOthers) {
    ASSERT_GT(expected.size(), 100U);
    (void)WaitFor([&] {
        sampler.Sample(table);
        return std::all_of(expected.begin(), expected.end(),
                           [&](const auto& each) { return IsKnown(each.first); });
    });
    Check(expected);
    size_t processors = 0;
    for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
        if (!table.IsUsed(i)) continue;
        const std::string id = SeriesId(table.Info(i));
        processors += id.starts_with("core_user_seconds") ? 1 : 0;
        // Interfaces and file systems are those of this machine; of many processors a few are
        // compared.
        if (!id.starts_with("network_") && !id.starts_with("filesystem_") &&
            !id.starts_with("core_")) {
            EXPECT_TRUE(expected.contains(id)) << id;
        }
    }
    EXPECT_EQ(processors, std::strtoul(std::strchr(GetParam(), '-') + 1, nullptr, 10));
}

INSTANTIATE_TEST_SUITE_P(Kernels, RecordedTree,
                         testing::Values("5.10-1", "6.1-4", "6.12-32", "6.18-2", "7.3-4"));

// What older kernels lack is absent, and the rest is right.
TEST_F(SamplerTest, MadeFilesOfLinux4) {
    for (auto& [path, text] : ReadTree("5.10-1")) {
        if (path.starts_with("/proc/"))
            Write(path, path.starts_with("/proc/pressure/") ? "" : text);
    }
    Write("/proc/stat", "cpu  1 2 3\ncpu0 1 2 3\nintr 9 9\npage 5 6\nctxt 72\n");
    Write("/proc/diskstats",
          "   8 0 sda 1 2 4 6 1 2 8 6 1 500 7\n   8 1 sda1 1 2 4 6 1 2 8 6 1 5 7\n");
    Write("/proc/meminfo", "MemTotal: 8 kB\nMemFree: 4 kB\n");
    Write("/proc/vmstat", "pgpgin 1\npgsteal_kswapd 5\npgsteal_direct 6\npgscan_direct 7\n");
    SampleAndCheck({
        {"context_switches", 72},
        {"disk_written_bytes{disk=\"sda\"}", 8 * 512},
        {"disk_busy_seconds{disk=\"sda\"}", 0.5},
        {"disk_discards{disk=\"sda\"}", kAbsent},
        {"disk_reads{disk=\"sda1\"}", kAbsent},
        {"memory_free_bytes", 4096},
        {"memory_available_bytes", kAbsent},
        {"paged_in_bytes", 1024},
        {"reclaimed_pages", 11},
        {"reclaim_scanned_pages", 7},
        {"oom_kills", kAbsent},
        {"pressure_io_some_seconds", kAbsent},
    });
    const std::string notes = Notes();
    for (const char* note : {"/proc/pressure/io: ", "no oom_kills", "no memory_available_bytes"}) {
        EXPECT_TRUE(Contains(notes, note)) << notes;
    }
}

// Lines that moved since the sample before are found again, columns too.
TEST_F(SamplerTest, LinesAndColumnsThatMoved) {
    Write("/proc/meminfo",
          "MemTotal: 8 kB\nMemFree: 4 kB\nHugePages_Total: 3\nHugepagesize: 2048 kB\n");
    Write("/proc/net/snmp", "Tcp: A InSegs\nTcp: -1 7\nUdp: InErrors\nUdp: 4\n");
    SampleAndCheck({{"memory_free_bytes", 4096},
                    {"memory_huge_total_bytes", 3 * 2048 * 1024},
                    {"tcp_segments_received", 7}});
    Write("/proc/meminfo", "MemTotal: 8 kB\nNew: 1 kB\nMemFree: 2 kB\n");
    Write("/proc/net/snmp", "Tcp: InSegs A\nTcp: 9 -1\nUdp: InErrors\nUdp: 5\n");
    SampleAndCheck({{"memory_free_bytes", 2048},
                    {"memory_huge_total_bytes", kAbsent},
                    {"tcp_segments_received", 9},
                    {"udp_errors", 5}});
}

TEST_F(SamplerTest, ProcessorsAndDisksComeAndGo) {
    Write("/proc/stat", "cpu  9 9\ncpu0 1 1\ncpu1 2 2\ncpu2 3 3\nctxt 4\n");
    Write("/proc/diskstats",
          " 8 0 sda 1 0 0 0 1\n 8 1 sda1 1 0 0 0 1\n 9 0 md0 2 0 0 0 1\n"
          " 259 0 nvme0n1 3 0 0 0 1\n 259 1 nvme0n1p1 3 0 0 0 1\n");
    SampleAndCheck({{"core_user_seconds{cpu=\"1\"}", 0.02}, {"disk_reads{disk=\"nvme0n1\"}", 3}});
    EXPECT_FALSE(IsKnown("disk_reads{disk=\"nvme0n1p1\"}"));

    Write("/proc/stat", "cpu  9 9\ncpu0 4 1\ncpu2 6 3\ncpu3 5 1\nctxt 4\n");
    Write("/proc/diskstats",
          " 259 0 nvme0n1 8 0 0 0 1\n 8 0 sda 7 0 0 0 1\n 8 16 sdb 6 0 0 0 1\n"
          " 8 2 sda2 7 0 0 0 1\n");
    SampleAndCheck({{"core_user_seconds{cpu=\"0\"}", 0.04},
                    {"core_user_seconds{cpu=\"2\"}", 0.06},
                    {"core_user_seconds{cpu=\"3\"}", 0.05},
                    {"disk_reads{disk=\"nvme0n1\"}", 8},
                    {"disk_reads{disk=\"sda\"}", 7},
                    {"disk_reads{disk=\"sdb\"}", 6}});
    for (const char* gone : {"core_user_seconds{cpu=\"1\"}", "disk_reads{disk=\"md0\"}"}) {
        EXPECT_FALSE(IsKnown(gone)) << gone;
    }
}

// Milliseconds of disks have 32 bits in the kernel.
TEST_F(SamplerTest, CountersThatWrapGoOnAndThoseThatAreResetBeginAgain) {
    const struct {
        const char* line;
        double reads, readSeconds;
    } steps[] = {
        {"100 0 0 4294967290 5", 100, 4294967.290},
        {"101 0 0 14 5", 101, 4294967.310},          // wrapped
        {"102 0 0 10 5", 102, 4294967.306},          // went back a little
        {"102 0 0 4294967295 5", 102, 4294967.295},  // and more
        {"3 0 0 20 1", 3, 0.020},                    // reset
        {"9000000000000 0 0 30 1", 9e12, 0.030},     // other counters have 64 bits
    };
    for (const auto& step : steps) {
        Write("/proc/diskstats", std::string(" 8 0 sda ") + step.line + "\n");
        SampleAndCheck({{"disk_reads{disk=\"sda\"}", step.reads},
                        {"disk_read_seconds{disk=\"sda\"}", step.readSeconds}});
    }
}

TEST_F(SamplerTest, ManyProcessorsAndDisksAreReadWhole) {
    Write("/proc/stat", MadeStat(256, 77));
    Write("/proc/diskstats", MadeDiskstats(500, 88));
    for (int round = 0; round < 2; ++round) {
        SampleAndCheck({{"core_user_seconds{cpu=\"255\"}", 0.77},
                        {"processes_blocked", 8},
                        {"disk_reads{disk=\"sdtf\"}", 88},
                        {"disk_flush_seconds{disk=\"sdtf\"}", 0.16},
                        {"disk_reads{disk=\"sdtf2\"}", kAbsent}});
    }
}

// Never the value of the sample before.
TEST_F(SamplerTest, FileThatCannotBeReadHasNoValuesUntilItCan) {
    const std::vector<std::pair<std::string, std::string>> texts = {
        {"/proc/stat", "cpu  1 1\ncpu0 1 1\nctxt 4\n"},
        {"/proc/meminfo", "MemTotal: 8 kB\n"},
        {"/proc/loadavg", "0.10 0.20 0.30 1/2 3\n"},
        {"/proc/diskstats", " 8 0 sda 1 0 0 0 1\n"},
        {"/proc/net/snmp", "Tcp: InSegs\nTcp: 7\n"},
        {"/proc/pressure/io", "some total=1\nfull total=2\n"}};
    for (const auto& [path, text] : texts) Write(path, text);
    sampler.Sample(table);
    for (const auto& [path, text] : texts) Write(path, "");
    SampleAndCheck({{"cpu_user_seconds", kAbsent},
                    {"core_user_seconds{cpu=\"0\"}", kAbsent},
                    {"context_switches", kAbsent},
                    {"memory_total_bytes", kAbsent},
                    {"load_5", kAbsent},
                    {"disk_reads{disk=\"sda\"}", kAbsent},
                    {"tcp_segments_received", kAbsent},
                    {"pressure_io_full_seconds", kAbsent}});
    for (const auto& [path, text] : texts) EXPECT_TRUE(Contains(Notes(), path + ": ")) << Notes();
    for (const auto& [path, text] : texts) Write(path, text);
    SampleAndCheck({{"cpu_user_seconds", 0.01},
                    {"core_user_seconds{cpu=\"0\"}", 0.01},
                    {"memory_total_bytes", 8192},
                    {"load_5", 0.2},
                    {"disk_reads{disk=\"sda\"}", 1},
                    {"tcp_segments_received", 7},
                    {"pressure_io_full_seconds", 2e-6}});
}

TEST_F(SamplerTest, SensorsFrequenciesAndFileSystems) {
    const std::string chip = "/sys/class/hwmon/hwmon0/";
    const std::vector<std::pair<std::string, std::string>> sensors = {
        {"name", "nvme"},
        {"temp1_input", "-5250"},
        {"temp1_label", "Composite"},
        {"temp1_crit", "84850"},
        {"temp1_max", "80000"},
        {"temp2_input", "41000"},
        {"temp2_max", "70000"},
        {"fan1_input", "1200"},
        {"power1_average", "12500000"},
        {"power1_input", "1"},
        {"temp3_input", ""},
        {"temp4_input", "1000"},
        {"temp4_label", "Composite"}};
    for (const auto& [name, text] : sensors)
        WriteFile(chip + name, text.empty() ? "" : text + "\n");
    WriteFile("/sys/devices/system/cpu/online", "0,2-3\n");
    for (const char* cpu : {"0", "2", "3"}) {
        WriteFile(std::string("/sys/devices/system/cpu/cpu") + cpu + "/cpufreq/scaling_cur_freq",
                  "240000" + std::string(cpu) + "\n");
    }
    // A file system without a partition has the name of its disk.
    WriteFile("/sys/block/sdz/device/ioerr_cnt", "0x12\n");
    WriteFile("/sys/fs/ext4/sdz/errors_count", "4\n");
    WriteFile("/sys/fs/ext4/sdz1/errors_count", "5\n");
    // The second mount of a device, one that another hides, and what is not local.
    Write("/proc/self/mountinfo",
          "1 0 8:1 /sub /run rw - ext4 /dev/a rw\n2 0 8:1 / /tmp rw shared:1 - ext4 /dev/a rw\n"
          "3 0 8:2 / /etc rw - xfs /dev/b rw\n4 0 0:9 / /etc rw - nfs4 server:/ rw\n"
          "5 0 0:8 / /sys rw - sysfs sysfs rw\n6 0 8:3 / /gone\\040away rw - vfat /dev/c rw\n");
    const std::string label = "{chip=\"nvme\",sensor=";
    ASSERT_TRUE(WaitFor([&] {
        sampler.Sample(table);
        return IsKnown("temperature_celsius" + label + "\"temp2\"}") &&
               IsKnown("filesystem_size_bytes{mount=\"/tmp\"}") &&
               IsKnown("core_frequency_hertz{cpu=\"3\"}") &&
               IsKnown("disk_errors{disk=\"sdz1\"}") &&
               Contains(Notes(), "/gone away: No such file");
    })) << Notes();
    Check({{"temperature_celsius" + label + "\"Composite\"}", -5.25},
           {"temperature_celsius" + label + "\"Composite temp4\"}", 1},
           {"temperature_limit_celsius" + label + "\"Composite\"}", 84.85},
           {"temperature_limit_celsius" + label + "\"temp2\"}", 70},
           {"temperature_celsius" + label + "\"temp3\"}", kAbsent},
           {"disk_errors{disk=\"sdz\"}", 22},
           {"disk_errors{disk=\"sdz1\"}", 5},
           {"fan_speed_rpm" + label + "\"fan1\"}", 1200},
           {"power_watts" + label + "\"power1\"}", 12.5},
           {"core_frequency_hertz{cpu=\"2\"}", 2400002000.0},
           {"filesystem_size_bytes{mount=\"/run\"}", kAbsent},
           {"filesystem_size_bytes{mount=\"/etc\"}", kAbsent},
           {"filesystem_size_bytes{mount=\"/sys\"}", kAbsent}});
}

TEST_F(SamplerTest, InterfacesComeAndGoAndAreRenamed) {
    const auto ip = [](const char* command) {
        return std::system((std::string("ip link ") + command).c_str()) == 0;
    };
    if (!ip("add kemd0 type veth peer name peer0")) GTEST_SKIP() << "no virtual interfaces here";
    ASSERT_TRUE(ip("add kemd1 type veth peer name peer1") && ip("set kemd1 up"));
    sampler.Sample(table);
    EXPECT_TRUE(IsKnown("network_received_bytes{interface=\"kemd0\"}"));
    ASSERT_TRUE(ip("del kemd0") && ip("add kemd2 type veth peer name peer2"));
    sampler.Sample(table);
    EXPECT_FALSE(IsKnown("network_received_bytes{interface=\"kemd0\"}"));
    EXPECT_TRUE(IsKnown("network_received_bytes{interface=\"kemd2\"}"));

    // The counters are those of the snapshot.
    KemdNetwork* network = nullptr;
    KemdNetworkSnapshot* snapshot = nullptr;
    ASSERT_EQ(KemdNetworkOpen(&network, KEMD_NETWORK_HERE), 0);
    ASSERT_EQ(KemdNetworkTake(network, 0, &snapshot), 0);
    sampler.Sample(table);
    const InterfaceView view = KemdNetworkByName(snapshot, "kemd1");
    Check({{"network_transmitted_packets{interface=\"kemd1\"}",
            static_cast<double>(view.Number(KEMD_NET_TX_PACKETS).value_or(1))},
           {"network_transmitted_bytes{interface=\"kemd1\"}",
            static_cast<double>(view.Number(KEMD_NET_TX_BYTES).value_or(1))}});
    KemdNetworkRelease(snapshot);
    KemdNetworkClose(network);
}

TEST(Processes, TheBusiestComeFirst) {
    Sampler sampler({.processes = true});
    SeriesTable table;
    sampler.Sample(table);
    const auto cpuTicks = [] { return clock() * sysconf(_SC_CLK_TCK) / CLOCKS_PER_SEC; };
    for (const auto begin = cpuTicks(); cpuTicks() - begin < 5;) {
    }
    sampler.Sample(table);
    EXPECT_TRUE(sampler.Processes().starts_with("cpu 1 1 performance_tes ")) << sampler.Processes();
    EXPECT_TRUE(Contains(sampler.Processes(), "\nmemory 1 1 performance_tes "));
}

struct BlockedTask : SlowTask {
    explicit BlockedTask(int fd) : m_fd(fd) {}
    void Run() override {
        char byte = 0;
        (void)!read(m_fd, &byte, 1);
    }

  private:
    int m_fd;
};
struct QuickTask : SlowTask {
    void Run() override { ++runs; }
    std::atomic<int> runs = 0;
};

TEST(SlowWorkerTest, TasksThatHangCostTheirThreadsAndNothingElse) {
    constexpr int64_t kLong = 2 * SlowTask::kPatienceNs;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const auto quick = std::make_shared<QuickTask>();
    {
        SlowWorker worker;
        int64_t now = SampleTime::Now().monotonic;
        for (int i = 0; i < 3; ++i) {
            const auto hanging = std::make_shared<BlockedTask>(ends[0]);
            worker.Submit(hanging, now);
            // Until its thread has begun it, which only Check sees.
            ASSERT_TRUE(WaitFor([&] {
                worker.Check(now + kLong);
                return worker.HangingThreads() == i + 1;
            }));
            EXPECT_TRUE(hanging->IsOverdue(now + kLong));
        }
        worker.Submit(quick, now);
        EXPECT_TRUE(WaitFor([&] { return quick->IsIdle(); }));
        ASSERT_EQ(write(ends[1], "abc", 3), 3);  // all answer after all
        EXPECT_TRUE(WaitFor([&] { return worker.HangingThreads() == 0; }));
        worker.Submit(quick, now);
        EXPECT_TRUE(WaitFor([&] { return quick->IsIdle(); }));
    }
    EXPECT_EQ(quick->runs, 2);
}

}  // namespace
