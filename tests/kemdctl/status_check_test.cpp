// kemdctl status and check, with the real daemon and on systems where all is right or much is
// wrong.
#include <sys/stat.h>

#include "kemdctl/ui/report.h"
#include "tests/daemon/daemon_test.h"
#include "tests/kemdctl/ctl.h"
#include "tests/kemdctl/json_check.h"

namespace fs = std::filesystem;

const std::string kTraceConfig = "/etc/norvik/OrvanaSuite/TraceConfig/";
constexpr const char* kRegistry =
    "[HKEY_LOCAL_MACHINE]\n\n[HKEY_CURRENT_USER]\n\n[HKEY_USERS]\n\n[HKEY_CLASSES_ROOT]\n\n"
    "[HKEY_CURRENT_CONFIG]\n\n\n";

static std::string Process(pid_t pid) {
    return "process " + std::to_string(pid);
}

// Files are writable by root alone, as on a host, whatever umask the build has.
static const mode_t kInheritedUmask = umask(022);

static void Install(const std::string& from, const std::string& to) {
    WriteFile(to, ReadFile(from));
}

class StatusTest : public DaemonTest {};

TEST_F(StatusTest, ForegroundWithModules) {
    UseSwitch("reference");
    for (const std::string module : {"counter.so", "heartbeat.so"}) {
        Install("/build/modules/" + module, "/opt/modules/" + module);
    }
    m_environment["OV_MODULE_DIR"] = "/opt/modules";
    m_environment["PATH"] = "/usr/bin";  // the start-up ring is compressed
    ConfigureTrace(1);
    const pid_t pid = Run({"-ovupd", "-agentless", "-rescan"});
    const std::string number = std::to_string(pid);
    ASSERT_TRUE(fs::exists("/var/log/orvmon/log.kemd_i.gz"));
    EXPECT_TRUE(Shows(
        "status", 0,
        {"state:            running, " + Process(pid) + "\nsince: ",
         "run mode:         5, agentless", "foreground, rescan",
         "\"kemd#" + number + "\", held by " + Process(pid),
         "process-id file:  " + Process(pid) + ", the daemon and holder", "/var/log/orvmon (by",
         "trace level:      1\ntrace target:     2, ring buffer\n", "log.kemd, ", "wrapped 0 times",
         "log.kemd_a, 1048576 bytes\n", "newest record:    20", " ago) in log.kemd",
         "modules:          counter, running since 20",
         "\n                  heartbeat, running since 20"}));
    EXPECT_TRUE(Shows(
        "status --json", 0,
        {"{\"running\":true,\"pid\":" + number + ",", "\"foreground\":true", "\"holder\":" + number,
         "\"level\":1", "{\"file\":\"heartbeat.so\",\"state\":\"started\"",
         "\"moduleStates\":[{\"name\":\"counter\",\"state\":\"running\""}));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_TRUE(Shows("status", 3,
                      {"state:            not running\nlock file:        not there\n",
                       "process-id file:  not there\n", "heartbeat.so stopped"}));
}

TEST_F(StatusTest, BackgroundAndKilled) {
    const pid_t starter = Start({"-ovins", "-agentless", "-ovins"});
    EXPECT_EQ(WaitForExit(starter), 0);
    const pid_t pid = PidFromFile();
    ASSERT_TRUE(WaitForLog("Waiting for signals"));
    const std::string writer = "\"kemd#" + std::to_string(starter) + "\", held by " + Process(pid);
    EXPECT_TRUE(Shows("status", 0, {"7, OVINS, background\n", writer}));
    // A daemon that cannot write its process-id file runs nevertheless.
    fs::remove(kPidFile);
    EXPECT_TRUE(Shows("status", 0, {Process(pid), "-id file:  not there, which is allowed"}));
    // Without its name in the file system the lock protects nothing.
    fs::rename(kLockFile, "/run/lock/other");
    EXPECT_TRUE(Shows("check -q", 1, {"kemd.lock: not there although kemd runs"}));
    fs::rename("/run/lock/other", kLockFile);

    WriteFile(kPidFile, std::to_string(pid) + "\n");
    Kill(pid);
    EXPECT_TRUE(Shows("status", 3, {"not running", "not held", "which is not running"}));
    EXPECT_TRUE(Shows("check", 1,
                      {"kemd.lock: left over and not held: harmless",
                       "warning  /var/run/kemd.pid: " + Process(pid), "-- rm /var/run/kemd.pid"}));
    WriteFile(kPidFile, "1\n");
    EXPECT_TRUE(Shows("status", 3, {"1, which is not the daemon but \"kemdctl_state"}));
}

// What the files of a past run say, damaged as they are.
TEST_F(StatusTest, TraceFiles) {
    const auto line = [](const std::string& stamp, const std::string& text) {
        return "2020-01-01 " + stamp + " [D82A0740]     3188 KB !" + text + "\n";
    };
    const std::string start = line("10:00:00.000", "kemd          start");
    const std::string wrap =
        "kemd          ------ WRAP ----- Cycle=3, CntInitEnd=" + std::to_string(start.size()) +
        " (MaxCnt=51200)";
    WriteFile("/var/log/orvmon/log.kemd",
              start + line("10:00:03.000", wrap) +
                  line("10:00:04.000", "switch        module b.so failed to start: result 1") +
                  "c.so\n" + line("10:00:02.000", "switch        module b.so loaded") +
                  "2020-01-01 10:00");
    std::string ring = line("09:00:00.000", "kemd          Internal Debug values      :") +
                       line("09:00:00.000", "kemd          Trace Level                : 6") +
                       line("09:00:00.000", "kemd          # End of header.") + "## TRACE-END ##\n";
    ring.resize(2048, '\n');
    ring += line("09:00:01.000", "kemd          ### Begin of RingBuffer. ###") +
            line("10:00:05.000", "switch        module \x1b[2J.so stopped") +
            "## TRACE-END ##\n\xff\xfe cut\n" +
            line("09:59:00.000", "switch        module old.so loaded") + "......";
    WriteFile("/var/log/orvmon/log.kemd_a", ring);
    EXPECT_TRUE(Shows(
        "status", 3,
        {"trace level:      6\n", "wrapped 3 times", "newest record:    2020-01-01 10:00:05.000",
         "in log.kemd_a\n", "modules:          \\x1b[2J.so stopped, b.so failed to start\n"}));
    fs::remove("/var/log/orvmon/log.kemd_a");
    // Not readable, even for root.
    fs::create_symlink("log.kemd_a", "/var/log/orvmon/log.kemd_a");
    EXPECT_TRUE(Shows("status", 3, {"start (perhaps not all: /var/log/orvmon/log.kemd_a cannot"}));
    WriteFile("/var/log/orvmon/log.kemd",
              line("10:00:00.000", "kemd          ### InitRingBuffer(): open of x failed (y) ###"));
    EXPECT_TRUE(Shows("status --json", 3,
                      {"\"modulesNote\":\"not known: ", "\"severity\":\"error\"",
                       "tracing failed at the last start of kemd: open of x failed (y)\""}));
}

class CheckTest : public DaemonTest {
  protected:
    // Installed as a package does it.
    void SetUp() override {
        DaemonTest::SetUp();
        fs::remove("/etc/orvmon/RunLevel");
        fs::remove_all("/opt");
        Install("/build/lib/libswitch.so", "/opt/lib/libswitch.so");
        Install("/build/modules/heartbeat.so", "/opt/modules/heartbeat.so");
        WriteFile("/etc/default/kemd",
                  "# for kemd\nLD_LIBRARY_PATH=/opt/lib\nOV_MODULE_DIR=\"/opt/modules\"\n");
        WriteFile("/etc/orvmon/registry.default", kRegistry);
    }
    void TearDown() override {
        DaemonTest::TearDown();
        fs::remove("/etc/default/kemd");
        fs::remove_all(kTraceConfig);
    }
};

TEST_F(CheckTest, NothingToMend) {
    EXPECT_TRUE(
        Shows("check", 0,
              {"kemd.ini is accepted and supplies", "kemd is accepted, variables set: 2, and safe",
               "tracing is on at level 3", "/var/log/orvmon is there and safe: owner 0, mode 0755",
               "/var/lock is there and safe", "libswitch.so, found by LD_LIBRARY_PATH",
               "heartbeat.so is a module and safe", "registry is not there: an older one",
               "registry.default is whole", "kemd.lock: not there", "RunLevel is not"}));
    EXPECT_EQ(Ctl("check -q").out, "");
    EXPECT_EQ(Ctl("check --json --quiet").out, "[]\n");
}

// However a command ends, --json prints one document, and it names the error.
TEST_F(CheckTest, FailuresAreInTheDocument) {
    ExpectAll(
        "",
        {{"--json", 2, "{\"error\":\"a command is missing; see kemdctl --help\"}\n", "is missing"},
         {"--json n\x1b", 2, "{\"error\":\"unknown command n\\\\x1b; see kemdctl --help\"}\n",
          "unknown command n\\x1b\n"},
         {"status now", 2, "", "unexpected argument now\n"},
         {"--json check --json", 2,
          "{\"error\":\"repeated option --json; see kemdctl check --help\"}\n", "repeated"},
         {"check --json=1", 2,
          "{\"error\":\"a value for the option --json; see kemdctl check --help\"}\n", "a value"},
         {"check --json >/dev/full", 2, "", "write standard output: No space left"}});
    EXPECT_TRUE(Shows("trace --html /none/x --json /dev/null", 2,
                      {"{\"file\":\"/none/x\",\"error\":\"cannot write /none/x: No such file"}));
    // Not readable, even for root.
    fs::create_symlink("RunLevel", "/etc/orvmon/RunLevel");
    EXPECT_TRUE(Shows("check --json", 2,
                      {"[{\"severity\":\"ok\"",
                       "},{\"error\":\"cannot look at /etc/orvmon/RunLevel: "
                       "Too many levels of symbolic links\"}]\n"}));
    EXPECT_TRUE(JsonCheck::IsValid(ReadFile("/tmp/out")));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they need more memory
    WriteFile("/var/log/orvmon/log.kemd",
              "2026-11-15 10:00:00.000 [D82A0740]     3000 KB !kemd   " +
                  std::string(size_t{50} << 20, 'x'));
    const Result poor = Ctl("status --json", "ulimit -v 40000;");
    EXPECT_EQ(poor.code, 2);
    EXPECT_TRUE(poor.out.starts_with("{\"error\":\"there is not enough memory")) << poor.err;
#endif
}

// Memory may run out, or a file fail, anywhere in a result.
TEST(ReportWriterTest, ACommandThatStopsInTheMiddleLeavesAWholeDocument) {
    testing::internal::CaptureStdout();
    ReportWriter report(true);
    report.OpenObject();
    report.OpenArray("list");
    report.OpenObject();
    report.Null("none");
    report.Line("for people");
    Complain("no \"%s\"", "more");
    report.Finish(kError);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              R"({"list":[{"none":null}],"error":"no \"more\""})"
              "\n");
}

TEST_F(CheckTest, EverythingIsWrong) {
    WriteFile(kTraceConfig + "a.ini", "[kemd]\nFileDebugLevel = 1\n");
    WriteFile(kTraceConfig + "kemd.ini",
              "[kemd]\n# FileDebugLevel = 4\nFileDebugLevel = 2\nLevel = 1\nTraceFlags = on\n"
              "RingBufferDirectory = trace\n[EndOfFile]\n");
    WriteFile(kTraceConfig + "kemd.ini.old", "[KEMD]\n[endoffile]\n");
    fs::create_directory(kTraceConfig + "z.ini");
    WriteFile("/etc/default/kemd",
              "export A=1\nLD_LIBRARY_PATH=/opt/modules::/opt/lib\nOV_MODULE_DIR=/opt/modules\n");
    chmod("/etc/orvmon", 0775);
    chmod("/opt/modules", 0777);
    Install("/build/modules/heartbeat.so", "/opt/lib/libswitch.so");
    WriteFile("/opt/modules/empty.so", "");
    Install("/build/lib/libswitch.so", "/opt/modules/switch.so");
    WriteFile("/etc/orvmon/registry", "[HKEY_USERS]\nx\n\n\n");
    WriteFile("/etc/orvmon/RunLevel", "6\n");
    const Result result = Ctl("check -q");
    EXPECT_EQ(result.code, 1) << result.err;
    EXPECT_TRUE(Holds(
        result.out,
        {"error    /etc/norvik/OrvanaSuite/TraceConfig/a.ini is ignored: its last section is not",
         "FileDebugLevel is taken from the line \"# FileDebugLevel = 4\", its value is \"4\"",
         "the key \"Level\" is not known", "TraceFlags \"on\" is not a number",
         "RingBufferDirectory \"trace\" is not an absolute path", "kemd.ini.old is ignored: ",
         "z.ini is ignored: not a regular file", "/etc/default/kemd, line 1: not NAME=value",
         "level is 4, but there is no ring buffer", "error    /etc/orvmon may be written by others",
         "-- chmod go-w /etc/orvmon\n", "does not export SW_QueryInterface",
         "error    /opt/modules may be written", "empty.so is not a module: no ELF file",
         "switch.so does not export kemdModule", "registry has 5 findings (line 2: no \"=\"",
         "/etc/orvmon/RunLevel holds 6: the next plain stop"}));
    EXPECT_TRUE(Contains(Ctl("check --json").out,
                         R"({"severity":"warning","what":"/etc/orvmon/RunLevel holds 6)"));
    EXPECT_EQ(result.out.find("/opt/modules may"), result.out.rfind("/opt/modules may"));
    fs::remove_all(kTraceConfig);
    fs::create_directory(kTraceConfig);
    EXPECT_TRUE(Contains(Ctl("check -q").out, "write its log to /log.kemd"));
}

// Whoever can replace what root runs or reads becomes root.
TEST_F(CheckTest, WhatOthersCouldReplace) {
    for (const std::string path : {"/opt/open", "/opt/shared", "/opt/sticky"}) {
        fs::create_directory(path);
        chmod(path.c_str(), path == "/opt/open" ? 0777 : 01777);
    }
    fs::create_symlink("../lib", "/opt/open/link");
    fs::rename("/opt/modules", "/opt/sticky/modules");
    WriteFile("/etc/default/kemd",
              "LD_LIBRARY_PATH=/opt/open/link:/opt/shared/none:/opt/none\n"
              "OV_MODULE_DIR=/opt/lib/../sticky/modules\n# don't\nA=\"it's\" #\nB='it\n");
    chmod("/etc/default/kemd", 0664);
    chmod((kTraceConfig + "kemd.ini").c_str(), 0666);
    chmod("/var/log", 0775);
    const bool isRealRoot = lchown("/opt/open/link", 1000, 0) == 0;  // a user namespace has no 1000
    const std::string check = Ctl("check").out;
    chmod("/var/log", 0755);
    EXPECT_TRUE(Holds(
        check,
        {"error    /opt/open may be written", "error    /opt/shared may be written",
         "warning  /etc/default/kemd, line 5: a quote", "error    /etc/default/kemd may be",
         "/TraceConfig/kemd.ini may be written", "error    /var/log may be", "-- chmod go-w /var",
         "ok       /opt/lib/../sticky/modules/heartbeat.so is a module and safe"},
        {"/opt/none", "/opt/sticky may", "kemd, line 3", "kemd, line 4"}));
    const char* const link = "/opt/open/link belongs to user 1000 -- chown -h root:root /";
    EXPECT_EQ(isRealRoot, Contains(check, link));
}

// No advice changes a device, and a file name stays one word of a command.
TEST_F(CheckTest, AdviceIsSafe) {
    const std::string global = kTraceConfig + "global_trace.ini";
    fs::create_symlink("/dev/null", global);
    fs::create_symlink("/dev/null", "/opt/trace");
    fs::create_directory("/opt/it's $(me)");
    chmod("/opt/it's $(me)", 0777);
    WriteFile("/etc/default/kemd",
              "LD_LIBRARY_PATH=/opt/lib:/dev/null\nOV_LOG_RINGBUF_DIR=/opt/trace\n"
              "OV_MODULE_DIR=/opt/it's $(me)/a\x1b\n");
    const std::string check = Ctl("check").out;
    EXPECT_TRUE(
        Holds(check, {"ok       " + global + " is masked: it leads to /dev/null",
                      "/opt/trace is not a directory, it leads to /dev/null -- make it lead to a",
                      "-- chmod go-w '/opt/it'\\''s $(me)'\n",
                      "-- install -d -m 755 $'/opt/it\\'s $(me)/a\\033'; install -m 644 "}));
    std::istringstream lines(check);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_FALSE(InOrder(line, {" -- ", "/dev/null"})) << line;
    }
}

// How the daemon reads a number, and which sizes it cannot use.
TEST_F(CheckTest, SizesOfTheTrace) {
    // A variable, or a key of the module's section.
    const std::pair<std::string, const char*> cases[] = {
        {"OV_LOG_FILE_MAX_SIZE=10M", "the log's limit is 10 bytes: too small for the messages"},
        {"OV_LOG_FILE_MAX_SIZE=0", "limit is 0 bytes: each message overwrites the one before"},
        {"OV_LOG_FILE_MAX_SIZE=99999999999", "\" counts as 1215752191 --"},
        {"OV_LOG_FILE_MAX_SIZE=4096\nOV_LOG_NOHDR_TOSDTERR=0", "too small for its header and"},
        {"OV_LOG_FILE_MAX_SIZE=4096\nOV_LOG_NOHDR_TOSDTERR=1", ""},
        {"OV_LOG_RINGBUF_WEIGHT=0x10", "factor x weight is 1 x 0 -- set RingBufferSizeFactor"},
        {"TraceFileLimit=9\nOV_LOG_RINGBUF_WEIGHT=256",
         "refused for its size: factor x weight "
         "is 2 x 256, 512.0 MiB and four times that at start -- set TraceFileLimit and OV_LOG_"},
        {"RingBufferSizeWeight = -1", "is not a number of 0 or more: counts as absent --"},
        {"RingBufferSizeWeight = 4294967297", "\" counts as 1 --"},
        {"RingBufferSizeWeight = 0x4", ""},
    };
    const std::string base = ReadFile("/etc/default/kemd") + "OV_LOG_RINGBUF_DIR=/tmp\n";
    for (const auto& [setting, finding] : cases) {
        const bool isKey = setting[0] == 'R';
        WriteFile("/etc/default/kemd", base + (isKey ? "" : setting) + "\n");
        WriteFile(kTraceConfig + "kemd.ini",
                  "[kemd]\nFileDebugLevel = 3\nRingBufferSizeFactor = 1\n" +
                      (isKey ? setting : "RingBufferSizeWeight = 1") + "\n[EndOfFile]\n");
        const std::string check = Ctl("check -q").out, status = Ctl("status").out;
        EXPECT_TRUE(Contains(check, finding)) << setting << check;
        EXPECT_TRUE(Contains(status, finding)) << setting << status;
        if (*finding != '\0') continue;
        EXPECT_EQ(check, "") << setting;
        EXPECT_FALSE(Contains(status, "warning:")) << setting;
    }
    EXPECT_TRUE(Shows("check --json", 0, {"into a ring buffer of 4.0 MiB"}));
}

TEST_F(CheckTest, FileSystems) {
    for (const auto& each : fs::directory_iterator("/small")) fs::remove(each.path());
    fs::remove_all("/etc/orvmon");
    fs::create_symlink("/fixed", "/etc/orvmon");
    WriteFile("/etc/default/kemd", ReadFile("/etc/default/kemd") + "OV_LOG_RINGBUF_DIR=/small\n");
    // Old files do not count: 3 MiB stay free for the 5 that a start takes.
    WriteFile("/small/log.kemd_a", std::string(1 << 20, 'x'));
    EXPECT_TRUE(InOrder(Ctl("check").out,
                        {"error    /small is on a file system with room for 3.0 MiB: kemd may fail "
                         "to write its trace there, which takes up to 5.0 MiB -- free space",
                         "error    /etc/orvmon is on a read-only file system: kemd cannot save"}));
    WriteFile("/small/other", std::string(4 << 20, 'x'));
    fs::remove(fs::path("/etc/orvmon"));
    fs::create_symlink("/small", "/etc/orvmon");
    EXPECT_TRUE(Contains(Ctl("check").out, "/etc/orvmon is on a file system that is full: kemd"));
    fs::remove(fs::path("/etc/orvmon"));
}

// A set-uid program of an ordinary user has the daemon's name. (A user namespace has no user 1000.)
TEST_F(StatusTest, OfAnotherUser) {
    Install("/bin/sh", "/opt/user/kemd");
    chmod("/opt/user/kemd", 0755);
    const auto status = [](uid_t user) {
        return InChild([user] {
            if (setresuid(user, 0, 0) != 0) return 3;
            return execl("/opt/user/kemd", "kemd", "-pc",
                         "/build/bin/kemdctl status >/tmp/out; exit $?", nullptr);
        });
    };
    EXPECT_EQ(status(0), 0);
    EXPECT_EQ(status(1000), 3);
    fs::remove_all("/opt/user");
}

// A library that is cut or damaged anywhere is reported as broken.
TEST_F(CheckTest, BrokenLibraries) {
    const std::string library = ReadFile("/build/lib/libswitch.so");
    std::vector<std::string> broken;
    for (const size_t size : {0, 1, 63, 64, 4096}) broken.push_back(library.substr(0, size));
    for (const size_t position : {5, 16, 18, 0x20, 0x27, 0x36}) {
        broken.push_back(library);
        broken.back()[position] = '\x7f';
    }
    for (const std::string& each : broken) {
        WriteFile("/opt/lib/libswitch.so", each);
        EXPECT_TRUE(Shows("check -q", 1, {"error    "}));
    }
}

// Head, entries for two kinds of processors, texts: as ldconfig writes it.
TEST_F(CheckTest, LibraryInTheCacheOfTheLoader) {
    const std::string texts =
        std::string("libswitch.so") + '\0' + "/opt/none" + '\0' + "/opt/lib/libswitch.so" + '\0';
    const uint32_t begin = 48 + 2 * 24;
    const uint32_t head[7] = {2, static_cast<uint32_t>(texts.size())};
    const uint32_t entries[2][6] = {{0x0003, begin, begin + 13}, {0x0303, begin, begin + 23}};
    std::string cache = "glibc-ld.so.cache1.1";
    cache.append(reinterpret_cast<const char*>(head), sizeof(head));
    cache.append(reinterpret_cast<const char*>(entries), sizeof(entries));
    WriteFile("/etc/default/kemd", "OV_MODULE_DIR=/opt/modules\n");
    for (const std::string& each : {cache + texts, cache.substr(0, 60), cache}) {
        WriteFile("/etc/ld.so.cache", each);
        const bool isWhole = each.size() > cache.size();
        EXPECT_TRUE(Shows("check", isWhole ? 0 : 1,
                          {isWhole ? "libswitch.so, found by the loader's cache, is"
                                   : "libswitch.so is not found"}));
    }
    fs::remove("/etc/ld.so.cache");
}
