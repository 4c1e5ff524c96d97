// kemdctl performance on histories that the test writes.
#include "base/utf8.h"
#include "performance/history_format.h"
#include "tests/kemdctl/ctl.h"
#include "tests/kemdctl/json_check.h"
#include "tests/performance/made_history.h"

namespace {

namespace fs = std::filesystem;

const std::string kFile = " --file /tmp/history ";
const std::string kOrigin = "history of web3, /tmp/history\n";

class Performance : public testing::Test {
  protected:
    void SetUp() override {
        fs::remove("/tmp/history");
        fs::remove_all("/var/log/orvmon");
        fs::remove_all("/var/lib/kemd");
    }
    // The columns of a command's last line.
    static std::vector<std::string> LastRow(const std::string& arguments) {
        const Result result = Ctl("performance " + arguments);
        EXPECT_EQ(result.err, "") << arguments;
        std::string line = result.out.substr(0, result.out.size() - 1);
        line = line.substr(line.rfind('\n') + 1);
        std::vector<std::string> cells;
        for (size_t begin = 0; begin < line.size();) {
            const size_t end = std::min(line.find("  ", begin), line.size());
            cells.push_back(line.substr(begin, end - begin));
            begin = std::min(line.find_first_not_of(' ', end), line.size());
        }
        return cells;
    }
    // As the daemon and the switch library write them.
    static std::string Record(const std::string& time, const std::string& tag,
                              const std::string& text) {
        return "2026-11-15 " + time + " [D82A0740] " + tag + std::string(14 - tag.size(), ' ') +
               text + "\n";
    }
};

TEST_F(Performance, ValuesHaveUnits) {
    const struct {
        const char* unit;
        double value;
        bool isRate;
        const char* shown;
    } cases[] = {
        {"bytes", 1023, false, "1023 B"},
        {"bytes", 1024, false, "1 KiB"},
        {"bytes", 1048575, false, "1.00 MiB"},
        {"bytes", 5.4e9, false, "5.03 GiB"},
        {"bytes", 1536, true, "1.50 KiB/s"},
        {"seconds", 0.256, true, "25.6%"},
        {"seconds", 3, true, "300%"},
        {"seconds", 90, false, "90 s"},
        {"celsius", -4.5, false, "-4.50 °C"},
        {"hertz", 3.4e9, false, "3.40 GHz"},
        {"percent", 99.96, false, "100%"},
        {"watts", 0, false, "0 W"},
        {"", 99999, false, "99999"},
        {"", 123456, true, "123k/s"},
        {"", 0.004, false, "0.004"},
        {"turns", 12, true, "12 turns/s"},
        {"", INFINITY, false, "-"},
    };
    MadeHistory history;
    std::vector<std::string> expected = {"12:00:01"};
    for (const auto& each : cases) {
        const std::string label = SeriesLabel("n", std::to_string(expected.size()));
        const auto value = [&each](int64_t) { return each.value; };
        if (each.isRate) {
            history.Counter("any", each.unit, value, label, 1000);
        } else {
            history.Add({"any", label, each.unit, "", SeriesKind::kGauge, true}, value);
        }
        expected.emplace_back(each.shown);
    }
    history.Write(2);
    EXPECT_EQ(LastRow("show any --step 1" + kFile), expected);
}

TEST_F(Performance, ProcessorsAreSharesOfAll) {
    MadeHistory history;
    const auto one = [](int64_t) { return 1; };
    history.Counter("cpu_user_seconds", "seconds", one, "", 100);
    for (const char* const cpu : {"cpu=\"0\"", "cpu=\"1\"", "cpu=\"2\"", "cpu=\"3\""}) {
        history.Counter("core_user_seconds", "seconds", one, cpu, 100);
    }
    history.Counter(
        "disk_queue_seconds", "seconds", [](int64_t) { return 2.5; }, "disk=\"a\"", 100);
    history.Write(3);
    EXPECT_EQ(LastRow("show cpu_user_seconds core_user_seconds/2 disk_queue_seconds" + kFile),
              (std::vector<std::string>{"12:00:02", "25.0%", "100%", "2.50"}));
}

TEST_F(Performance, SeriesAreNamedWithoutGuessing) {
    MadeHistory history;
    const auto zero = [](int64_t) { return 0; };
    for (const char* const disk : {"sda", "sdb"}) {
        history.Counter("disk_reads", "", zero, SeriesLabel("disk", disk));
        history.Counter("disk_read_bytes", "bytes", zero, SeriesLabel("disk", disk));
    }
    history.Gauge("filesystem_size_bytes", "bytes", zero, SeriesLabel("mount", "/var \"x\"\n"));
    history.Gauge("temperature_celsius", "celsius", zero, R"(chip="core",sensor="Die 0")");
    history.Gauge("memory_free_bytes", "bytes", zero);
    history.Write(2);
    const struct {
        const char* words;
        std::vector<std::string> ids;
        const char* complaint;
    } cases[] = {
        {"disk_reads/sda", {"disk_reads/sda"}, ""},
        {R"('disk_reads{disk="sdb"}')", {"disk_reads/sdb"}, ""},
        {"disk_reads", {"disk_reads/sda", "disk_reads/sdb"}, ""},
        {"'*/sdb' disk_reads", {"disk_reads/sdb", "disk_read_bytes/sdb", "disk_reads/sda"}, ""},
        {"'*_free_*'", {"memory_free_bytes"}, ""},
        {"\"$(printf 'filesystem_size_bytes//var \"x\"\\n.')\"", {}, "no series"},
        {"'filesystem_size_bytes//var*'", {"filesystem_size_bytes//var \"x\"\\n"}, ""},
        {"'temperature_celsius/Die 0'", {"temperature_celsius/core/Die 0"}, ""},
        {"disk_rades", {}, "no series disk_rades; similar: disk_reads"},
        {"memfree", {}, "no series memfree; similar: memory_free_bytes"},
        {"disk_reads/sdx", {}, "similar: disk_reads/sda, disk_reads/sdb, disk_read_bytes/sda"},
        {"disk_reads '\033[1m'", {}, R"(no series \x1b[1m; kemdctl performance list shows all)"},
    };
    for (const auto& [words, ids, complaint] : cases) {
        const Result result = Ctl(std::string("perf list ") + words + kFile);
        EXPECT_EQ(result.code, ids.empty() ? 1 : 0) << words;
        EXPECT_TRUE(Contains(result.err, complaint)) << result.err;
        std::vector<std::string> shown;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            if (line == "history of web3, /tmp/history" || line.starts_with("series  ")) continue;
            shown.push_back(line.substr(0, line.find("  ")));
        }
        EXPECT_EQ(shown, ids) << words;
    }
}

TEST_F(Performance, TableHasGapsMarksAndSteps) {
    MadeHistory history;
    history.Gauge("depth", "", [](int64_t second) { return second; });
    history.Gauge("other", "", [](int64_t second) { return second < 30 ? NAN : 1; });
    history.Mark(0, MarkKind::kStart, 0, "1.0.0");
    history.Mark(38, MarkKind::kGap, 8);
    history.Mark(45, MarkKind::kAlarm, 0, "too \033 deep");
    history.Mark(46, MarkKind::kClockStep, -2 * kNs);
    history.Write(60, {30, 38});
    EXPECT_TRUE(Prints("perf show depth other --step 20s" + kFile, 0,
                       kOrigin + "time      depth  other\n"
                                 "12:00:00  -- the monitor began: 1.0.0\n"
                                 "12:00:20   9.50      -\n"
                                 "12:00:38  -- gap: 8 samples missed\n"
                                 "12:00:40   26.8      1\n"
                                 "12:00:45  -- alarm: too \\x1b deep\n"
                                 "12:00:46  -- the clock was set back by 2s\n"
                                 "12:01:00   49.5      1\n"));
    EXPECT_TRUE(Shows("perf --since -1m depth" + kFile, 2, {"unknown subcommand depth"}));
    const std::string day = " --since '2026-11-15 12:00:10' --until 2026-11-15T12:00:12 ";
    EXPECT_TRUE(
        Prints("perf show depth --step 0.5 " + day + kFile, 0,
               kOrigin + "time          depth\n12:00:10.000     10\n"
                         "12:00:11.000     11\n12:00:12.000     12\n",
               "note: between 2026-11-15 12:00:10.000 and 2026-11-15 12:00:12.000 there are "
               "values only every 1s, not every 500ms"));
    const Result result = Ctl("perf show depth --json --step 1m" + kFile);
    EXPECT_TRUE(JsonCheck::IsValid(result.out)) << result.out;
    EXPECT_TRUE(InOrder(
        result.out, {R"("host":"web3")", R"("step":60000000)", R"("id":"depth")", R"("minimum":0,)",
                     R"("maximum":59,"last":59)", R"("mark":"clock-step","value":-2000000000)"}));
}

TEST_F(Performance, OverviewSumsWhatIsNotCountedTwice) {
    MadeHistory history;
    const auto one = [](int64_t) { return 1024; };
    for (const char* const disk : {"sda", "sdb", "dm-0", "loop3"}) {
        history.Counter("disk_read_bytes", "bytes", one, SeriesLabel("disk", disk));
    }
    for (const char* const name : {"eth0", "lo", "veth12", "eth0.5"}) {
        history.Counter("network_received_bytes", "bytes", one, SeriesLabel("interface", name));
    }
    history.Gauge("load_1", "", [](int64_t) { return 3; });
    history.Write(30);
    const Result result = Ctl("perf" + kFile);
    EXPECT_TRUE(InOrder(result.out, {"load     read  received\n", "   3  2 KiB/s   1 KiB/s\n"}));
}

TEST_F(Performance, SaysWhatIsMissing) {
    const std::string missing =
        "there is no history /var/lib/kemd/performance/history: the module "
        "performance writes it while kemd runs; see kemdctl modules show "
        "performance";
    EXPECT_TRUE(Shows("performance", 2, {missing}));
    EXPECT_TRUE(Shows("perf show --json", 2, {R"({"error":"there is no history)"}));
    EXPECT_TRUE(Shows("perf list --file /tmp/nothing", 2, {"/tmp/nothing: No such file"}));
    WriteFile("/tmp/text", std::string(100000, 'x'));
    EXPECT_TRUE(Shows("perf list --file /tmp/text", 2, {"/tmp/text: "}));
    MadeHistory history("/var/lib/kemd/performance/history");
    history.Gauge("depth", "", [](int64_t) { return 1; });
    history.Write(60);
    EXPECT_TRUE(Shows("perf show depth --step 1m", 0, {"time      depth\n12:01:00      1\n"}));
    const struct {
        const char* arguments;
        int code;
        const char* complaint;
    } cases[] = {
        {"show --since -1m", 1, "no samples of this time: the history goes from 2026-11-15 12:00"},
        {"show --since 9999-12-31", 1, "no samples of this time"},
        {"show --since yesterdy", 2, "--since yesterdy: not a time such as"},
        {"show --since 13:00 --until 12:00", 2, "--since is after --until"},
        {"show --step 0", 2, "--step 0: not a step"},
        {"show --csv", 2, "--csv: not an option of show"},
        {"list --plot", 2, "--plot: not an option of list"},
        {"show --no", 2, "unknown option --no"},
        {"export", 2, "export needs one of --csv, --json-lines, --openmetrics and --html FILE"},
        {"export --csv --json-lines", 2, "one form at a time"},
        {"around", 2, "around takes one time, or last-run"},
        {"around noon", 2, "noon: not a time such as"},
        {"around last-run", 2, "no run that is over is known"},
        {"show", 0, ""},
    };
    for (const auto& [arguments, code, complaint] : cases) {
        EXPECT_TRUE(Shows(std::string("perf ") + arguments, code, {complaint}));
    }
    fs::resize_file("/var/lib/kemd/performance/history", 30000);
    EXPECT_TRUE(Shows("perf show depth", 2,
                      {"/var/lib/kemd/performance/history: the file is cut: it has 30000"}));
}

TEST_F(Performance, AFailedReadIsNotTheEndOfTheHistory) {
    MadeHistory history("/tmp/bad");
    history.Gauge("depth", "", [](int64_t second) { return second; });
    history.Write(1300);
#ifndef __SANITIZE_ADDRESS__
    const auto fails = [](const std::string& arguments, size_t byte) {
        setenv("BAD_BYTE", std::to_string(byte).c_str(), 1);
        setenv("LD_PRELOAD", "/build/tests/kemdctl/libfailing_read.so", 1);
        const auto result =
            Shows("perf " + arguments + " --file /tmp/bad", 2, {"/tmp/bad: Input/output error"});
        unsetenv("LD_PRELOAD");
        return result;
    };
    EXPECT_TRUE(fails("list", 4096));
    // In a block: what can be read is shown.
    const size_t block = ReadFile("/tmp/bad").find("KBLK") + sizeof(BlockHead);
    for (const std::string each :
         {"export --csv --since '2026-11-15 12:00:00'", "summary --since '2026-11-15 12:00:00'",
          "around '2026-11-15 12:20:00'", "export --html /tmp/page.html"}) {
        EXPECT_TRUE(fails(each, block)) << each;
    }
    EXPECT_TRUE(fails("export --csv", block));
    EXPECT_TRUE(Contains(ReadFile("/tmp/out"), ",1299\n"));
#endif
}

TEST_F(Performance, PlotHasAxesAndLeavesGapsEmpty) {
    MadeHistory history;
    history.Gauge("depth", "bytes", [](int64_t second) { return second * 1024; });
    history.Mark(60, MarkKind::kGap, 20);
    history.Write(101, {40, 60});
    const std::string span = " --since '2026-11-15 12:00:00' --step 1 " + kFile;
    const std::string text = Ctl("perf show depth --plot" + span).out;
    EXPECT_TRUE(InOrder(
        text,
        {"depth\n", " 128 KiB ┤\n", "⢀⣀⣀⡤⠴⠒⠚⠉⠁", "58.2 KiB ┤", "       0 B ┤⣀⡤⠤", "\n", "└┬───",
         "^\n", "12:00:00            12:00:29", "12:01:00  -- gap: 20 samples missed"}))
        << text;
    // 40 to 60 of 101 seconds: nothing in these columns, in any line.
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const size_t axis = line.find("┤");
        if (axis == line.npos) continue;
        std::string column;
        size_t place = 0;
        for (size_t i = axis + 3; i < line.size(); ++place) {
            const size_t length = Utf8Length(std::string_view(line).substr(i));
            if (place > 28 && place < 39) column += line.substr(i, length);
            i += length;
        }
        EXPECT_EQ(column.find_first_not_of(' '), column.npos) << line;
    }
    const std::string plot = "/build/bin/kemdctl perf show depth --plot" + span;
    const std::string color = OnTerminal("TERM=xterm LANG=C.UTF-8; export TERM LANG; " + plot, 40);
    EXPECT_TRUE(Holds(color, {"\033[1mdepth\033[0m", "⣠⠴⠋⠁"}));
    const std::string plain =
        OnTerminal("TERM=linux NO_COLOR=1; export TERM NO_COLOR; " + plot, 40);
    EXPECT_TRUE(Holds(plain, {"0 B |", ":'", "+--"}, {"\033", "⣠"}));
}

TEST_F(Performance, WideTablesFitTheTerminal) {
    MadeHistory history;
    for (const char* const name : {"a_name_that_takes_room", "b_name_that_takes_room", "c_thing"}) {
        history.Gauge(name, "", [](int64_t) { return 12345; });
    }
    history.Write(2);
    const std::string show = "/build/bin/kemdctl perf show '*' --step 1 " + kFile;
    EXPECT_TRUE(Contains(OnTerminal(show, 44),
                         "             a_name_     b_name_\r\n"
                         "               that_       that_\r\n"
                         "time      takes_room  takes_room  c_thing\r\n"
                         "12:00:00       12345       12345    12345\r\n"));
    const std::string narrow = OnTerminal(show, 24);
    EXPECT_TRUE(InOrder(narrow, {"a_name_", "12:00:01", "\r\n\r\n", "b_name_", "12:00:01", "c_"}))
        << narrow;
}

TEST_F(Performance, SummaryKnowsTheDistribution) {
    MadeHistory history;
    history.Gauge("steps", "bytes", [](int64_t second) { return (second * 37 + 36) % 100 + 1; });
    history.Counter(
        "work_seconds", "seconds", [](int64_t second) { return second == 50 ? 1 : 0.1; }, "", 10);
    history.Gauge("never", "", [](int64_t) { return NAN; });
    history.Gauge("once", "", [](int64_t second) { return second == 7 ? 3 : NAN; });
    history.Write(100);
    EXPECT_EQ(LastRow("summary steps" + kFile),
              (std::vector<std::string>{"steps", "1 B", "51 B", "50 B", "95 B", "99 B", "100 B",
                                        "12:01:39.000"}));
    EXPECT_EQ(LastRow("summary work_seconds" + kFile),
              (std::vector<std::string>{"work_seconds", "10.0%", "10.9%", "10.0%", "10.0%", "100%",
                                        "100%", "12:00:50.000"}));
    const Result result = Ctl("perf summary once --json" + kFile);
    EXPECT_TRUE(JsonCheck::IsValid(result.out)) << result.out;
    EXPECT_TRUE(Contains(result.out, R"("points":1,"minimum":3,)")) << result.out;
}

TEST_F(Performance, ExportsWhatOthersRead) {
    MadeHistory history;
    history.Add({"disk_read_bytes", "disk=\"a,\\\"b\"", "bytes", "Bytes \"read\",\nall \\ of them.",
                 SeriesKind::kCounter, false, 512, 1},
                [](int64_t second) { return 10 + second; });
    history.Gauge("load", "", [](int64_t second) { return second == 1 ? NAN : 5; });
    history.Add({"power_watts", "", "watts", "", SeriesKind::kGauge, true},
                [](int64_t second) { return second / 4.0; });
    history.Write(4);
    EXPECT_TRUE(Prints("perf export --csv" + kFile, 0,
                       "time,\"disk_read_bytes{disk=\"\"a,\\\"\"b\"\"}\",load,power_watts\n"
                       "1794744000,,5,0\n1794744001,5632,,0.25\n1794744002,6144,5,0.5\n"
                       "1794744003,6656,5,0.75\n"));
    EXPECT_TRUE(Prints("perf export --json-lines power_watts load" + kFile, 0,
                       "{\"time\":1794744000,\"power_watts\":0,\"load\":5}\n"
                       "{\"time\":1794744001,\"power_watts\":0.25}\n"
                       "{\"time\":1794744002,\"power_watts\":0.5,\"load\":5}\n"
                       "{\"time\":1794744003,\"power_watts\":0.75,\"load\":5}\n"));
    EXPECT_TRUE(Prints("perf export --openmetrics" + kFile, 0,
                       "# TYPE disk_read_bytes counter\n# UNIT disk_read_bytes bytes\n"
                       "# HELP disk_read_bytes Bytes \\\"read\\\",\\nall \\\\ of them.\n"
                       "disk_read_bytes_total{disk=\"a,\\\"b\"} 5632 1794744001\n"
                       "disk_read_bytes_total{disk=\"a,\\\"b\"} 6144 1794744002\n"
                       "disk_read_bytes_total{disk=\"a,\\\"b\"} 6656 1794744003\n"
                       "# TYPE load gauge\n# HELP load What load is.\n"
                       "load 5 1794744000\nload 5 1794744002\nload 5 1794744003\n"
                       "# TYPE power_watts gauge\n# UNIT power_watts watts\n# HELP power_watts \n"
                       "power_watts 0 1794744000\npower_watts 0.25 1794744001\n"
                       "power_watts 0.5 1794744002\npower_watts 0.75 1794744003\n# EOF\n"));
    EXPECT_TRUE(Shows("perf export --csv >/dev/full" + kFile, 2, {"No space left"}));
    if (!fs::exists("/usr/bin/python3")) GTEST_SKIP() << "python3 is not there";
    WriteFile("/tmp/read.py", R"(import csv, json, subprocess
def export(form):
    return subprocess.run(['/build/bin/kemdctl', 'perf', 'export', form, '--file', '/tmp/history'],
                          check=True, capture_output=True, text=True).stdout
rows = list(csv.DictReader(export('--csv').splitlines()))
lines = [json.loads(line) for line in export('--json-lines').splitlines()]
identity = 'disk_read_bytes{disk="a,\\"b"}'
assert [row[identity] for row in rows] == ['', '5632', '6144', '6656'], rows
assert [line.get(identity) for line in lines] == [None, 5632, 6144, 6656], lines
try:
    from prometheus_client.openmetrics.parser import text_string_to_metric_families as parse
except ImportError:
    raise SystemExit(0)
metrics = {metric.name: metric for metric in parse(export('--openmetrics'))}
disk = metrics['disk_read_bytes']
assert disk.type == 'counter' and disk.unit == 'bytes', disk
assert disk.documentation == 'Bytes "read",\nall \\ of them.', disk
assert [s.value for s in disk.samples] == [5632, 6144, 6656], disk
assert disk.samples[0].labels == {'disk': 'a,"b'}, disk
)");
    EXPECT_EQ(std::system("/usr/bin/python3 /tmp/read.py"), 0);
}

// It is read in parts; none of their borders loses a value.
TEST_F(Performance, ExportsManyValues) {
    MadeHistory history;
    for (int i = 0; i < 60; ++i) {
        history.Counter(
            "count", "", [](int64_t) { return 2; }, "n=\"" + std::to_string(i) + "\"");
    }
    constexpr int64_t kLength = 4000;
    history.Write(kLength);
    std::istringstream lines(Ctl("perf export --csv" + kFile).out);
    std::string line, expected;
    std::getline(lines, line);
    for (int64_t second = 1; second < kLength; ++second) {
        std::getline(lines, line);
        expected = std::to_string(kNoon + second) + "," + std::to_string(1002 + 2 * second) + ",";
        ASSERT_TRUE(line.starts_with(expected)) << line << " is not " << expected;
    }
    EXPECT_FALSE(std::getline(lines, line));
    for (const char* const step : {"13h", "1d", "365d", "100000d"}) {
        const Result steps = Ctl(std::string("perf export --csv count/7 --step ") + step + kFile);
        EXPECT_EQ(std::count(steps.out.begin(), steps.out.end(), '\n'), 2) << step << steps.err;
    }
}

// The monitor's own account of the minutes before a crash.
class PerformanceAround : public Performance {
  protected:
    void SetUp() override {
        Performance::SetUp();
        MadeHistory history("/var/lib/kemd/performance/history");
        history.Gauge("memory_available_bytes", "bytes",
                      [](int64_t second) { return second < 1000 ? 4e9 : 2e8; });
        history.Gauge("steady", "", [](int64_t) { return 1; });
        history.Mark(0, MarkKind::kStart);
        history.Mark(1020, MarkKind::kProcesses, 0, "cpu 1 old");
        history.Mark(1030, MarkKind::kAlarm, 0, "memory is low");
        history.Mark(
            1040, MarkKind::kProcesses, 0,
            "cpu 1 77 an eater 99.5\nmemory 1 77 an eater 3221225472\nio 1 5 dd 2048\nodd 9");
        history.Write(1100);  // to 12:18:19
        WriteFile("/var/log/orvmon/log.kemd",
                  Record("12:00:00.000", "kemd", "kemd Version=\"1.00-00\"") +
                      Record("12:00:00.100", "kemd", "KEMD-MAIN: ## Done initializing ##") +
                      Record("12:16:59.000", "web", "all is well") +
                      Record("12:17:35.000", "web", "ERROR! no memory"));
    }
};

TEST_F(PerformanceAround, LastRunShowsTheMinutesBeforeItsEnd) {
    const std::vector<std::string> events = {
        "12:16:59.000 [D82A0740] web", "12:17:10.000 -- alarm: memory is low",
        "12:17:20.000 -- busiest processes\n"
        "    cpu     99.5%       an eater (77)\n    memory  3 GiB       an eater (77)\n"
        "    io      2 KiB/s     dd (5)\n    odd 9\n",
        "12:17:35.000 [D82A0740] web           ERROR! no memory"};
    std::vector<std::string> parts = {
        "last run:  to 2026-11-15 12:17:35.000, killed: no exit message",
        "moment:    2026-11-15 12:18:19.000, and the two minutes before\n\nwhat changed",
        "memory_available_bytes  3.73 GiB", "191 MiB", "12:16:40"};
    parts.insert(parts.end(), events.begin(), events.end());
    EXPECT_TRUE(Shows("perf around last-run", 0, parts));
    EXPECT_TRUE(Holds(ReadFile("/tmp/out"), {}, {"steady", "cpu 1 old", "Done init"}));
    // A crash is known to the millisecond.
    WriteFile(
        "/var/log/orvmon/kemd.crashes",
        R"({"time":"2026-11-15T12:17:35.500Z","process":7,"signal":11,"name":"SIGSEGV","address":"0x10",)"
        R"("thread":7,"threadName":"kemd","module":"fan","frames":[]})"
        "\n");
    EXPECT_TRUE(Shows("perf around last-run", 0,
                      {"died: signal 11 (SIGSEGV), module fan\ncrash: ",
                       "moment:    2026-11-15 12:17:35.500", "what changed", "ERROR! no memory"}));
    const Result json = Ctl("perf around last-run --json --lines 1");
    EXPECT_TRUE(JsonCheck::IsValid(json.out)) << json.out;
    EXPECT_TRUE(InOrder(json.out, {R"("time":1794745055500000)", R"("lastRun":{)", R"("crashes":[)",
                                   R"("id":"memory_available_bytes")", R"("mark":"alarm")",
                                   R"("recordCount":2,"records":[{)", "ERROR! no memory"}));
}

TEST_F(PerformanceAround, AnyTimeAndAnotherMachine) {
    EXPECT_TRUE(Shows("perf around '2026-11-15 12:10'", 0,
                      {"nothing changed noticeably", "the trace has no records of these minutes"}));
    EXPECT_TRUE(Shows("perf around '2026-11-15 12:01'", 0, {"nothing to compare with"}));
    EXPECT_TRUE(Shows("perf around '2026-11-15 12:18:00' --lines 1", 0,
                      {"memory_available_bytes", "the last 1 of 2 records", "ERROR!"}));
    EXPECT_TRUE(Shows("perf around '2026-11-15 10:00'", 1, {"there are no samples of this time"}));
    fs::rename("/var/lib/kemd/performance/history", "/tmp/history");
    EXPECT_TRUE(
        Shows("perf around '2026-11-15 12:18:00'" + kFile, 0,
              {"history of web3", "memory_available_bytes", "the trace of web3 is not here"}));
    EXPECT_FALSE(Contains(ReadFile("/tmp/out"), "ERROR!"));
    fs::rename("/var/log/orvmon", "/tmp/trace");
    EXPECT_TRUE(Shows("perf around last-run --trace /tmp/trace" + kFile, 0,
                      {"last run:  to 2026-11-15 12:17:35.000", "ERROR! no memory"}));
    fs::remove_all("/tmp/trace");
}

}  // namespace
