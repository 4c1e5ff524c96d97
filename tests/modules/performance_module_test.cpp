// performance.so in the real daemon: what it samples, marks and reports.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "base/unique_fd.h"
#include "performance/history_reader.h"
#include "performance/history_writer.h"
#include "tests/daemon/daemon_test.h"
#include "tests/kemdctl/ctl.h"
#include "tests/modules.h"
#include "tests/performance/made_files.h"

namespace {

constexpr const char* kHistory = "/var/lib/kemd/performance/history";
constexpr const char* kMemory = "/proc/meminfo";  // a file of the test's, as the boot id
constexpr const char* kBootId = "/proc/sys/kernel/random/boot_id";

class PerformanceModuleTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        std::filesystem::remove_all("/etc/kemd");
        std::filesystem::remove_all("/var/lib/kemd");
        ClearModules();
        AddModule("/build/modules/performance/performance.so");
        AddModule("/build/tests/series/inside.so");
        AddModule("/build/tests/series/apart.so");
        UseSwitch("reference");
        m_environment["OV_MODULE_DIR"] = kModules;
        std::filesystem::remove("/usr/bin/kemd-module-host");
        std::filesystem::create_symlink("/build/bin/kemd-module-host", "/usr/bin/kemd-module-host");
        WriteFile("/etc/kemd/modules.d/apart.ini", "[Module]\nIsolated = yes\n");
        Configure("");
        Available(50);
        Overwrite(kBootId, "11111111-1111-1111-1111-111111111111\n");
    }
    static void Configure(const std::string& settings, const std::string& module = "") {
        WriteFile("/etc/kemd/modules.d/performance.ini",
                  "[Module]\n" + module +
                      "[Settings]\nPeriod = 100ms\nSize = 4M\nMemoryAvailableTime = 0\n"
                      "FileSystemFull = 0\n" +
                      settings);
    }
    // In place, so that who reads it meanwhile finds a whole text.
    static void Overwrite(const char* path, const std::string& text) {
        const UniqueFd file(open(path, O_WRONLY | O_CLOEXEC));
        ASSERT_EQ(pwrite(file.Get(), text.data(), text.size(), 0),
                  static_cast<ssize_t>(text.size()));
    }
    static void Available(int percent) {
        char text[128];
        std::snprintf(text, sizeof text,
                      "MemTotal: 1000 kB\nMemFree: 10 kB\nMemAvailable: %4d kB\n", percent * 10);
        Overwrite(kMemory, text);
    }
    // What the host was like minutes ago.
    static void WriteBefore() {
        std::filesystem::create_directories(std::filesystem::path(kHistory).parent_path());
        std::string error;
        const auto writer =
            HistoryWriter::Open({kHistory, 4 << 20, 1'000'000'000, "host", "same"}, error);
        ASSERT_NE(writer, nullptr) << error;
        SeriesTable table;
        table.Set(table.Add({"descriptors_limit", "", "", "", SeriesKind::kGauge}), 7);
        const SampleTime now = SampleTime::Now();
        for (int64_t ago = 150; ago > 60; --ago) {
            const int64_t back = ago * 1'000'000'000;
            writer->Append({now.wall - back, now.monotonic - back}, table);
        }
    }
    static std::string Health() {
        const std::string shown = Ctl("modules show performance").out;
        const size_t start = shown.find("health:");
        return start == shown.npos ? shown : shown.substr(start, shown.find('\n', start) - start);
    }
    // The samples of a series, oldest first; none when the history does not have it.
    static std::vector<HistoryPoint> Points(const std::string& id) {
        std::string error;
        const auto history = HistoryReader::Open(kHistory, error);
        if (history == nullptr) return {};
        for (uint32_t i = 0; i < history->Series().size(); ++i) {
            if (SeriesId(history->Series()[i]) != id) continue;
            std::vector<std::vector<HistoryPoint>> points;
            history->Read({&i, 1}, history->Range(), 0, points);
            return points[0];
        }
        return {};
    }
    static std::vector<double> Values(const std::string& id) {
        std::vector<double> values;
        for (const HistoryPoint& point : Points(id)) values.push_back(point.last);
        return values;
    }
    static std::vector<Mark> Marks(MarkKind kind) {
        std::string error;
        const auto history = HistoryReader::Open(kHistory, error);
        std::vector<Mark> marks;
        if (history == nullptr) return marks;
        for (const Mark& mark : history->Marks({0, INT64_MAX})) {
            if (mark.kind == kind) marks.push_back(mark);
        }
        return marks;
    }
    static bool HasMarks(MarkKind kind, size_t count, const std::string& text = "") {
        return WaitFor([&] {
            const std::vector<Mark> marks = Marks(kind);
            return marks.size() == count && (count == 0 || Contains(marks.back().text, text));
        });
    }
    static bool HasSamples(size_t more) {
        const size_t before = Values("load_1").size();
        return WaitFor([&] { return Values("load_1").size() >= before + more; });
    }
    static std::string Tasks(pid_t pid) {
        std::string names;
        std::error_code error;  // a thread ends meanwhile
        const std::string directory = "/proc/" + std::to_string(pid) + "/task";
        for (const auto& task : std::filesystem::directory_iterator(directory, error)) {
            names += ReadFile(task.path() / "comm");
        }
        return names;
    }
    static pid_t ProcessOf(const std::string& module) {
        const std::string shown = Ctl("modules show " + module).out;
        const size_t start = shown.find("process:");
        return start == shown.npos ? 0 : std::atoi(shown.c_str() + start + 8);
    }
};

TEST_F(PerformanceModuleTest, SamplesTheHostAndTheModules) {
    const pid_t pid = Run();
    const std::string inside = "work_rounds{module=\"inside\"}";
    const std::string apart = "work_rounds{module=\"apart\"}";
    EXPECT_TRUE(WaitFor([&] { return Values(inside).size() > 2 && Values(apart).size() > 2; }));
    EXPECT_EQ(Values(inside).back(), 7);
    EXPECT_EQ(Values(apart).back(), 7);
    EXPECT_EQ(Values("memory_total_bytes").back(), 1024000);
    EXPECT_GT(Values("cpu_idle_seconds").size(), 1U);
    EXPECT_TRUE(HasMarks(MarkKind::kStart, 1, "every 0.1 s"));
    const std::string status = Ctl("modules request performance status").out;
    EXPECT_TRUE(
        InOrder(status, {" samples, one every 0.1 s; ", "2 of modules\n", "/history: 4 MiB, "}))
        << status;
    EXPECT_EQ(Ctl("modules request performance sync").code, 0);
    EXPECT_EQ(Ctl("modules request performance nonsense").code, 2);
    struct stat file {};
    ASSERT_EQ(stat(kHistory, &file), 0);
    EXPECT_EQ(file.st_mode & 0777U, 0644U);
    EXPECT_EQ(file.st_size, 4 << 20);
    // Released in its stop.
    EXPECT_EQ(Ctl("modules stop inside").code, 0);
    EXPECT_TRUE(WaitFor([] {
        return Contains(Ctl("modules request performance status").out, "; 1 of modules\n");
    }));
    // Its process dies: no further values, and a mark for it and for its return.
    const pid_t process = ProcessOf("apart");
    ASSERT_GT(process, 1);
    ASSERT_EQ(kill(process, SIGKILL), 0);
    EXPECT_TRUE(HasMarks(MarkKind::kAlarm, 1, "module apart: its process has died"));
    const size_t count = Values(apart).size();
    EXPECT_TRUE(HasMarks(MarkKind::kAlarmEnd, 1, "module apart is started again"));
    EXPECT_TRUE(WaitFor([&] { return Values(apart).size() > count; }));
    EXPECT_EQ(Health(), "health:       ok");
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_TRUE(HasMarks(MarkKind::kStop, 1));
}

TEST_F(PerformanceModuleTest, MarksWhatItMissed) {
    pid_t pid = Run();
    ASSERT_TRUE(HasSamples(2));
    ASSERT_EQ(kill(pid, SIGSTOP), 0);
    usleep(450'000);  // this is what is missed
    ASSERT_EQ(kill(pid, SIGCONT), 0);
    EXPECT_TRUE(WaitFor([] {
        const std::vector<Mark> gaps = Marks(MarkKind::kGap);
        return std::any_of(gaps.begin(), gaps.end(),
                           [](const Mark& gap) { return gap.value >= 3; });
    }));
    ASSERT_TRUE(HasSamples(2));
    // No burst: three samples never come within one period.
    const std::vector<HistoryPoint> points = Points("load_1");
    for (size_t i = 2; i < points.size(); ++i) {
        EXPECT_GE(points[i].wall - points[i - 2].wall, 99'000'000) << i;
    }
    // Nothing sampled is lost with the process, and the next one goes on.
    const size_t written = Values("load_1").size();
    Kill(pid);
    EXPECT_GE(Values("load_1").size(), written);
    pid = Run();
    EXPECT_TRUE(HasMarks(MarkKind::kStart, 2));
    ASSERT_TRUE(HasSamples(2));
    EXPECT_GT(Values("load_1").size(), written);
    EXPECT_TRUE(Marks(MarkKind::kReboot).empty());
    EXPECT_TRUE(Marks(MarkKind::kStop).empty());
    EXPECT_EQ(Stop(pid), 0);
    Overwrite(kBootId, "22222222-2222-2222-2222-222222222222\n");
    pid = Run();
    EXPECT_TRUE(HasMarks(MarkKind::kReboot, 1, "22222222-"));
    EXPECT_EQ(Stop(pid), 0);
}

TEST_F(PerformanceModuleTest, ReportsWhatIsBeyondItsLimit) {
    WriteBefore();
    const pid_t pid = Run();
    ASSERT_TRUE(HasSamples(2));
    EXPECT_EQ(Health(), "health:       ok");
    Available(3);
    EXPECT_TRUE(HasMarks(MarkKind::kAlarm, 1, "memory: 3.0 % available (limit 5 %), since 20"));
    const std::string text = Marks(MarkKind::kAlarm)[0].text;
    EXPECT_TRUE(InOrder(text, {"; with it: ", "descriptors_limit ", " (was 7)"})) << text;
    EXPECT_FALSE(Contains(text, "memory_available_bytes")) << text;
    EXPECT_TRUE(WaitFor([] { return Contains(Health(), "warning: memory: 3.0 % available"); }));
    Available(6);  // not enough for its end
    EXPECT_TRUE(WaitFor([] { return Contains(Health(), "warning: memory: 6.0 % available"); }));
    EXPECT_TRUE(Marks(MarkKind::kAlarmEnd).empty());
    Available(9);
    EXPECT_TRUE(HasMarks(MarkKind::kAlarmEnd, 1, "at worst 3.0"));
    EXPECT_TRUE(WaitFor([] { return Health() == "health:       ok"; })) << Health();
    EXPECT_TRUE(InOrder(Trace(), {"memory: 3.0 % available (limit 5 %), since ", "over after ",
                                  ": memory: 9.0 % available (limit 5 %)"}));
    // Another limit, without losing a sample.
    const size_t count = Values("load_1").size();
    Configure("MemoryAvailable = 10\n");
    EXPECT_EQ(Ctl("modules reload performance").code, 0);
    EXPECT_TRUE(HasMarks(MarkKind::kAlarm, 2, "memory: 9.0 % available (limit 10 %)"));
    Configure("MemoryAvailable = 0\n");
    EXPECT_EQ(Ctl("modules reload performance").code, 0);
    EXPECT_TRUE(HasMarks(MarkKind::kAlarmEnd, 2));
    EXPECT_GT(Values("load_1").size(), count);
    EXPECT_EQ(Marks(MarkKind::kStart).size(), 1U);
    EXPECT_EQ(Stop(pid), 0);
}

TEST_F(PerformanceModuleTest, TakesNewSettingsWhileItRuns) {
    const pid_t pid = Run();
    ASSERT_TRUE(HasSamples(3));
    const size_t count = Values("load_1").size();
    Configure("Size = 8M\nPeriod = 200ms\nProcesses = yes\n");
    WriteFile("/etc/kemd/modules.d/performance.ini",
              "[Settings]\nPeriod = 200ms\nSize = 8M\nProcesses = yes\n");
    EXPECT_EQ(Ctl("modules reload performance").code, 0);
    EXPECT_TRUE(HasMarks(MarkKind::kStart, 2, "every 0.2 s"));
    EXPECT_TRUE(WaitFor([] { return std::filesystem::file_size(kHistory) == 8U << 20; }));
    EXPECT_TRUE(WaitFor([] { return Marks(MarkKind::kProcesses).size() > 1; }));
    EXPECT_GT(Values("load_1").size(), count);
    for (const char* const wrong :
         {"Period = 1", "Period = 50ms", "Size = 1K", "MemoryPressureEnd = 21",
          "MemoryAvailableEnd = 4", "OomKillTime = soon", "Processes = 2"}) {
        WriteFile("/etc/kemd/modules.d/performance.ini",
                  std::string("[Settings]\n") + wrong + "\n");
        const bool isWrong = Ctl("modules reload performance").code != 0;
        EXPECT_EQ(isWrong, std::strcmp(wrong, "Period = 1") != 0) << wrong;
    }
    // The history goes on elsewhere: somebody removed it.
    std::filesystem::remove(kHistory);
    EXPECT_EQ(Stop(pid), 0);
}

TEST_F(PerformanceModuleTest, SaysWhyNothingIsWritten) {
    Configure("SyncInterval = 100ms\n");
    std::filesystem::create_directories("/var/lib/kemd");
    ASSERT_EQ(mount("none", "/var/lib/kemd", "tmpfs", 0, "size=1m"), 0) << std::strerror(errno);
    const pid_t pid = Run();
    EXPECT_TRUE(WaitFor([] {
        return Contains(Health(), "failed: no sample is written: /var/lib/");
    })) << Health();
    EXPECT_TRUE(InOrder(Trace(), {"no sample is written: /var/lib/kemd/performance/history: ",
                                  "No space left on device; it is tried again each minute"}));
    ASSERT_EQ(mount("none", "/var/lib/kemd", "tmpfs", MS_REMOUNT, "size=32m"), 0);
    EXPECT_EQ(Ctl("modules restart performance").code, 0);
    EXPECT_TRUE(WaitFor([] { return Health() == "health:       ok"; })) << Health();
    // A file that is removed while it is written begins again.
    ASSERT_TRUE(HasSamples(2));
    std::filesystem::remove(kHistory);
    EXPECT_TRUE(HasSamples(2));
    EXPECT_TRUE(Contains(Trace(), "/history is not the file any more that was written"));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_EQ(umount("/var/lib/kemd"), 0);
}

TEST_F(PerformanceModuleTest, ReportsEachPartOfTheHost) {
    MadeFiles files;
    const std::string chip = "/sys/class/hwmon/hwmon0/";
    for (const auto& [name, text] : std::map<std::string, std::string>{
             {"name", "nvme"}, {"temp1_input", "84000"}, {"temp1_crit", "85000"}}) {
        WriteFile(chip + name, text + "\n");
    }
    ASSERT_TRUE(files.Write("/proc/vmstat", "pgpgin 1\noom_kill 1\n"));
    Configure("TemperatureMarginTime = 0\n");
    // The file systems of the host that the private root shows.
    std::string settings = ReadFile("/etc/kemd/modules.d/performance.ini");
    settings.replace(settings.find("Full = 0"), 8, "Full = 1\nFileSystemFullTime = 0");
    WriteFile("/etc/kemd/modules.d/performance.ini", settings);
    const pid_t pid = Run();
    EXPECT_TRUE(WaitFor([&] {
        return InOrder(Trace(), {"temperature of nvme temp1: 1.0 C below the sensor's limit"}) &&
               InOrder(Trace(), {"file system /", " % full (limit 1 %), since "});
    })) << Trace();
    ASSERT_TRUE(files.Write("/proc/vmstat", "pgpgin 1\noom_kill 2\n"));
    EXPECT_TRUE(WaitFor([] { return Contains(Health(), "out of memory: 1 killed within 10 min"); }))
        << Health();
    Configure("TemperatureMargin = 0\nOomKill = 0\n");
    EXPECT_EQ(Ctl("modules reload performance").code, 0);
    EXPECT_TRUE(WaitFor([] { return Health() == "health:       ok"; })) << Health();
    EXPECT_EQ(Stop(pid), 0);
    std::filesystem::remove_all(chip);
}

TEST_F(PerformanceModuleTest, IsUnloadedWhileAReadHangs) {
    const std::string disk = "/sys/block/sda/device";
    std::filesystem::create_directories(disk);
    ASSERT_EQ(mkfifo((disk + "/ioerr_cnt").c_str(), 0600), 0);
    const pid_t pid = Run();
    ASSERT_TRUE(HasSamples(2));
    EXPECT_EQ(Ctl("modules stop performance").code, 0);
    {
        const UniqueFd answer(open((disk + "/ioerr_cnt").c_str(), O_RDWR | O_CLOEXEC));
        EXPECT_EQ(write(answer.Get(), "1\n", 2), 2);
        EXPECT_TRUE(WaitFor([&] {  // the thread goes on, and ends
            return !Contains(Tasks(pid), "perf-slow");
        })) << Tasks(pid);
    }
    EXPECT_EQ(Ctl("modules start performance").code, 0);
    EXPECT_EQ(Stop(pid), 0);
    std::filesystem::remove_all("/sys/block/sda");
}

// It sees the host, and of the modules none.
TEST_F(PerformanceModuleTest, WorksInAProcessOfItsOwn) {
    WriteFile("/etc/passwd", "nobody:x:65534:65534::/:/bin/false\n");
    const bool hasUsers = Contains(ReadFile("/proc/self/uid_map"), "4294967295");
    Configure("", std::string("Isolated = yes\n") + (hasUsers ? "User = nobody\n" : ""));
    std::filesystem::create_directories("/var/lib/kemd/performance");
    if (hasUsers) {
        const pid_t pid = Run();
        EXPECT_TRUE(WaitFor([] { return Contains(Health(), "history: Permission denied"); }))
            << Health();
        EXPECT_EQ(Stop(pid), 0);
        ASSERT_EQ(chown("/var/lib/kemd/performance", 65534, 65534), 0);
    }
    const pid_t pid = Run();
    ASSERT_TRUE(HasSamples(2));
    EXPECT_EQ(Values("memory_total_bytes").back(), 1024000);
    EXPECT_TRUE(Contains(Ctl("modules request performance status").out, "; 0 of modules\n"));
    EXPECT_EQ(Stop(pid), 0);
}

}  // namespace
