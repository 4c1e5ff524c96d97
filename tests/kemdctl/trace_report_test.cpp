// The reports of kemdctl trace on files of the real daemon, and on files that cannot be trusted.
#include <linux/capability.h>
#include <sys/prctl.h>

#include <map>

#include "tests/daemon/daemon_test.h"
#include "tests/kemdctl/ctl.h"
#include "tests/kemdctl/json_check.h"

namespace fs = std::filesystem;

static const std::string kLog = "/var/log/orvmon/log.kemd";

// A record of the second `second` of a day.
static std::string Line(int second, const std::string& text, const std::string& tag = "kemd") {
    char head[128];
    snprintf(head, sizeof head, "2026-11-15 %02d:%02d:%02d.000 [D82A0740] %8d KB !%-13s ",
             second / 3600, second / 60 % 60, second % 60, 3000 + second % 7, tag.c_str());
    return head + text + "\n";
}

static std::string Hostile() {
    return Line(10, "</script><script>alert(1)</script>", "<b>\xff") +
           Line(11, "\"\\ \x01\x1b[31m \xe2\x80\xa8 & \xc3 two\nlines") + Line(12, "--><!-- ]}");
}

// A report as JSON: well-formed, with this exit status and these parts in order.
static testing::AssertionResult ShowsJson(const std::string& arguments, int code,
                                          const std::vector<std::string>& parts = {}) {
    const auto shown = Shows("trace --json " + arguments, code, parts);
    if (!shown || JsonCheck::IsValid(ReadFile("/tmp/out"))) return shown;
    return testing::AssertionFailure() << ReadFile("/tmp/out");
}

class ReportTest : public DaemonTest {};

TEST_F(ReportTest, LastRunThatGoesOnAndStops) {
    UseSwitch("reference");
    m_environment["OV_MODULE_DIR"] = "/build/modules";
    const pid_t pid = Run();
    EXPECT_TRUE(ShowsJson("--last-run", 0,
                          {"\"end\":\"running\"", "\"modules\":[{", "\"lastRecords\":[{",
                           "\"tag\":\"kemd\"", "\"file\":\"/var/log"}));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_TRUE(Shows("trace --last-run", 0,
                      {"stopped in order, by signal 15", "last records:",
                       "... unload of all registered", "## EXIT PROCESS KEMD ##"}));
    EXPECT_FALSE(Contains(ReadFile("/tmp/out"), "open call"));
    EXPECT_TRUE(ShowsJson("--last-run /nowhere", 2, {"{\"error\":\"/nowhere: No such file"}));
    EXPECT_TRUE(ShowsJson("--stats /nowhere " + kLog, 2, {",\"error\":\"/nowhere: No such file"}));
}

TEST_F(ReportTest, LastRunThatWasKilled) {
    Kill(Run());
    EXPECT_TRUE(Shows("trace --last-run", 1, {"killed: no exit message", "Waiting for signals"}));
    // As for an ordinary user: which files a daemon has open cannot be seen.
    const pid_t hidden = fork();
    if (hidden == 0) {
        prctl(PR_SET_DUMPABLE, 0);
        prctl(PR_SET_NAME, "kemd");
        raise(SIGSTOP);
    }
    ASSERT_EQ(waitpid(hidden, nullptr, WUNTRACED), hidden);
    const int code = InChild([] {
        prctl(PR_CAPBSET_DROP, CAP_SYS_PTRACE);
        return Ctl("trace --last-run").code;
    });
    EXPECT_EQ(code, 2);
    EXPECT_TRUE(Contains(ReadFile("/tmp/out"), "unknown: no exit message, and whether a process"));
    EXPECT_TRUE(Contains(ReadFile("/tmp/err"), "cannot be seen: only root may ask"));
    kill(hidden, SIGKILL);
    ASSERT_EQ(waitpid(hidden, nullptr, 0), hidden);
}

TEST_F(ReportTest, LastRunThatHungInACallOrDiedAtStart) {
    UseSwitch("c", "block-start");
    const pid_t pid = StartAndWait({"-n"});
    EXPECT_TRUE(ShowsJson("--last-run", 0, {"\"running\"", "is starting", "start all modules"}));
    Kill(pid);
    EXPECT_TRUE(Shows("trace --last-run", 1,
                      {"died at start: it never said", "open call:     start all modules",
                       "Start all modules  ..."}));
    // At the shipped level the switch library names the module.
    const std::string prefix = "2026-11-15 20:04:51.123 [D82A0740] switch        module ";
    WriteFile("/tmp/hung",
              prefix + "b.so stopping\n" + prefix + "b.so stopped\n" + prefix + "a.so stopping\n");
    EXPECT_TRUE(
        Contains(Ctl("trace --last-run /tmp/hung").out, "open call:     stopping module a.so"));
    UseSwitch("c", "fail-query");
    (void)Stop(Run());
    EXPECT_TRUE(ShowsJson("--last-run", 1, {"died at start", "SWITCH could not be loaded!"}));
}

TEST_F(ReportTest, LastRunThatCrashed) {
    UseSwitch("reference");
    m_environment["OV_MODULE_DIR"] = "/build/modules";
    const pid_t pid = Run();
    EXPECT_EQ(Stop(pid, SIGABRT), 1000 + SIGABRT);  // by this process
    const std::string out = Ctl("trace --last-run").out;
    EXPECT_TRUE(InOrder(out, {"died: signal 6 (SIGABRT)\n", "crash:         20",
                              ", signal 6 (SIGABRT), sent by process 1, thread ", " (kemd)\n  /",
                              "libc.so.6+0x", "  /build/bin/kemd+0x"}));
    // A line of this run, one of an isolated module, one of another process.
    const std::string file = "/var/log/orvmon/kemd.crashes", line = ReadFile(file);
    const std::string time = line.substr(0, line.find(',') + 1);
    const auto made = [&time](const std::string& process, const std::string& module) {
        return time + process + R"(,"signal":11,"name":"SIGSEGV","address":"0x10","thread":7,)" +
               R"("threadName":"w\u001bx","module":")" + module +
               R"(","frames":["/lib/a b.so+0x1f","/lib/a b.so+0x20","0x5"]})" + "\n";
    };
    WriteFile(file, made("\"process\":1", "alien") +
                        made("\"isolated\":true,\"process\":2", "own") +
                        made("\"process\":" + std::to_string(pid), "fan"));
    WriteFile("/usr/bin/addr2line",
              "#!/bin/sh\n[ \"$2$3$4$5\" = '/lib/a b.so0x1f0x1f' ] || exit 1\n"
              "echo 'Spin(int)'; echo /src/fan.c:12; echo main; echo '??:0'\n");
    ASSERT_EQ(chmod("/usr/bin/addr2line", 0755), 0);
    EXPECT_TRUE(Shows("trace --last-run", 1,
                      {"died: signal 11 (SIGSEGV), module fan\n",
                       "module fan, address 0x10, thread 7 (w\\x1bx)\n"
                       "  Spin(int) at /src/fan.c:12 (/lib/a b.so+0x1f)\n  main (/lib/a "
                       "b.so+0x20)\n  0x5\n"}));
    EXPECT_FALSE(Contains(ReadFile("/tmp/out"), "alien"));
    EXPECT_TRUE(ShowsJson("--last-run", 1,
                          {"\"module\":\"fan\",\"frames\":[{\"address\":\"/lib/a b.so+0x1f\","
                           "\"function\":\"Spin(int)\",\"line\":\"/src/fan.c:12\"}"}));
    fs::remove("/usr/bin/addr2line");
}

TEST_F(ReportTest, VerifySeparatesSoundFromDamaged) {
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_EQ(Ctl("trace --verify").code, 0);
    const std::string ring = ReadFile(kLog + "_a");
    const size_t trailer = ring.rfind("## TRACE-END ##\n");
    std::string noTrailer = ring, zeros = ring;
    noTrailer.replace(trailer, 16, 16, '_');
    zeros.replace(trailer - 30, 10, 10, '\0');
    const struct {
        std::string content;
        int code;
        const char* finding;
    } cases[] = {{ring, 0, "sound: ring"},
                 {noTrailer, 1, "no trailer"},
                 {zeros, 1, "zero bytes"},
                 {ring.substr(0, ring.size() - 5), 1, "its header says 1048576"},
                 {Line(20, "a") + Line(10, "b"), 1, "time goes back once, first by 10000 ms"},
                 {Line(1, "a") + Line(2, "b"), 0, "sound: log, 2 records"},
                 {"garbage\n" + Line(1, "a"), 1, "7 bytes are not records"},
                 {"", 1, "empty"},
                 {std::string(5000, '\0'), 1, "zeros only"},
                 {"not a trace", 2, "not a trace file"}};
    for (const auto& each : cases) {
        WriteFile("/tmp/file", each.content);
        EXPECT_TRUE(Shows("trace --verify /tmp/file", each.code, {each.finding}));
        EXPECT_TRUE(ShowsJson("--verify /tmp/file", each.code));
        EXPECT_EQ(each.code == 2, Contains(ReadFile("/tmp/out"), "{\"error\":"));
    }
}

TEST_F(ReportTest, HeaderIsATable) {
    m_environment["OV_SYSTEM"] = "two\nlines \x1b[31m";
    EXPECT_EQ(Stop(Run({"-agentless"})), 0);
    EXPECT_TRUE(Shows("trace --header " + kLog + "_a", 0,
                      {"Command Line Options\n", "\"-agentless\"", "OV_SYSTEM",
                       "two\\nlines \\x1b[31m\n", "Trace Level", " 3\n"}));
    // The first cycle of the start-up ring has its command line among the records.
    EXPECT_TRUE(ShowsJson("--header " + kLog + "_i", 0, {"-agentless"}));
}

TEST_F(ReportTest, StatisticsOfChosenRecords) {
    std::string text;
    for (int i = 0; i < 7200; i += 60) text += Line(i, "beat " + std::to_string(i), "heartbeat");
    WriteFile("/tmp/log", text + Line(9000, "at 0x7fab and 12", "other") + Hostile());
    EXPECT_TRUE(
        Shows("trace --stats --until '2026-11-15 03:00' /tmp/log", 0,
              {"records: 124", "records in each 5 min\n", "00:00:00.000  ##",
               "(nothing for 30 min)", "02:30:00.000  ##### 1\n", "resident memory",
               "busiest threads", "124  100%  D82A0740", "busiest tags", "heartbeat",
               "120   96%  beat #\n", "at 0x# and #", "after 2026-11-15 01:59:00.000  31 min"}));
    EXPECT_FALSE(Contains(ReadFile("/tmp/out"), "\x1b"));
    const std::string range = "trace --stats --since '2026-11-15 00:01' --until '2026-11-15 00:";
    EXPECT_TRUE(Contains(Ctl(range + "06' /tmp/log").out, "records in each 1 min\n"));
    EXPECT_TRUE(Contains(Ctl(range + "01' /tmp/log").out, "records in each 10 ms\n"));
    EXPECT_TRUE(ShowsJson("--stats /tmp/log", 0, {"{\"text\":\"beat #\",\"count\":120}"}));
}

TEST_F(ReportTest, TimelineOfARun) {
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_EQ(Ctl("trace --export /tmp/timeline.json").code, 0);
    const std::string json = ReadFile("/tmp/timeline.json");
    EXPECT_TRUE(JsonCheck::IsValid(json));
    const std::string span = "\"ph\":\"X\",\"cat\":\"run\",\"name\":\"";
    EXPECT_TRUE(
        Holds(json, {span + "start-up", span + "load modules", span + "start all modules",
                     span + "stop all modules", span + "unload modules", "\"thread_name\""}));
    WriteFile("/tmp/log", Hostile());
    EXPECT_EQ(Ctl("trace --export /tmp/timeline.json /tmp/log").code, 0);
    EXPECT_TRUE(JsonCheck::IsValid(ReadFile("/tmp/timeline.json")));
    EXPECT_TRUE(Contains(ReadFile("/tmp/timeline.json"), "\"ph\":\"C\""));
    WriteFile("/full/rest", std::string(8192, 'x'));
    for (const std::string report : {"export", "html", "collect"}) {
        EXPECT_TRUE(Shows("trace --" + report + " /full/report /tmp/log", 2));
        EXPECT_TRUE(Holds(ReadFile("/tmp/err"), {"cannot write /full/report: ", "No space left"}));
    }
    fs::remove("/full/rest");
}

// tests/kemdctl/html_report looks at the page in a browser.
TEST_F(ReportTest, PageHoldsNoMarkupOfRecords) {
    std::string many =
        Line(1, "kemd Version=\"1\"") + Line(2, "KEMD-MAIN: ## Done initializing ##");
    for (int i = 0; i < 100'100; ++i) many += Line(10 + i % 2, "a row");
    WriteFile("/tmp/log", many);
    EXPECT_EQ(Ctl("trace --html /tmp/page.html /tmp/log").code, 0);
    EXPECT_TRUE(Contains(ReadFile("/tmp/page.html"), "\"spans\":[]"));  // of rows that are left out
    WriteFile("/tmp/log", Hostile());
    EXPECT_EQ(Ctl("trace --html /tmp/page.html /tmp/log").code, 0);
    const std::string page = ReadFile("/tmp/page.html");
    const std::string begin = "id=\"data\">";
    const size_t from = page.find(begin) + begin.size();
    const std::string data = page.substr(from, page.find("</script>", from) - from);
    EXPECT_TRUE(JsonCheck::IsValid(data)) << data;
    EXPECT_TRUE(Holds(data, {"\\u003c/script\\u003e", "--\\u003e\\u003c!--"}, {"\xe2\x80\xa8"}));
    EXPECT_EQ(data.find_first_of("<>&"), data.npos);
}

// The members of an archive, by name.
static std::map<std::string, std::string> ReadArchive(const std::string& path) {
    EXPECT_EQ(std::system(("gzip -dc " + path + " > /tmp/archive.tar").c_str()), 0);
    const std::string tar = ReadFile("/tmp/archive.tar");
    std::map<std::string, std::string> members;
    for (size_t at = 0; at + 512 <= tar.size() && tar[at] != '\0';) {
        const size_t size = std::stoull(tar.substr(at + 124, 11), nullptr, 8);
        members[tar.c_str() + at + strlen("kemd-trace/")] = tar.substr(at + 512, size);
        at += 512 + (size + 511) / 512 * 512;
    }
    return members;
}

TEST_F(ReportTest, CollectionMasksSecrets) {
    const std::string secret = "hunter2 hunter3", token = "t0k3n-t0k3n";
    m_environment["OV_SYSTEM"] = "user " + secret;  // known from the option's value
    EXPECT_EQ(Stop(Run({"--db-password", secret, "--api-Token=" + token, "--day-key=2026-11-15"})),
              0);
    std::ofstream(kLog, std::ios::app)
        << Line(79000, "index key=unlearnt-1 of 2026-11-15") << Line(79001, "an unlearnt-1")
        << Line(80000, "login secret=s3 key='a b' ok " + token)
        << Line(80001, "DB_PASSWORD=part one\npart two") << Line(80002, "whole");
    WriteFile("/usr/bin/systemctl", R"(#!/bin/sh
echo 'Environment=A=b "SSL_KEY=x y" "A_PASSWORD=a\" b c" C=d
  TOKEN=z
ExecStart={ argv[]=/kemd --password s3 -n -key --pass "s3 s" --b-key=s3 -token ; a=no }
After=it'
)");
    chmod("/usr/bin/systemctl", 0755);
    WriteFile("/var/log/orvmon/kemd.crashes", "a crash\n");
    EXPECT_TRUE(InOrder(OnTerminal("/build/bin/kemdctl trace --collect /tmp/c.tar.gz"),
                        {"/tmp/c.tar.gz: ", " of ", "wrote /tmp/c.tar.gz, "}));
    EXPECT_EQ(fs::status("/tmp/c.tar.gz").permissions(), fs::perms(0600));
    auto members = ReadArchive("/tmp/c.tar.gz");
    for (const auto& [name, text] : members) {
        EXPECT_TRUE(Holds(text, {}, {secret, token, "s3", "a b'", "part "})) << name;
    }
    EXPECT_TRUE(Contains(members["log.kemd_a"], "OV_SYSTEM=user ***************"));
    EXPECT_EQ(members["kemd.crashes"], "a crash\n");
    EXPECT_TRUE(InOrder(members["log.kemd_a.header.txt"], {"***************", "Trace Level"}));
    EXPECT_EQ(members["unit.txt"], R"(Environment=A=b "SSL_KEY=***" "A_PASSWORD=*******" C=d
  TOKEN=*
ExecStart={ argv[]=/kemd --password ** -n -key ****** *****" --b-key=** -token ; a=no }
After=it
)");
    // Times stay, and what a single record calls a key stays elsewhere.
    EXPECT_TRUE(Holds(members["log.kemd"],
                      {"login secret=** key=****' ok ***********", "2026-11-15 21:56:40.000 ",
                       "index key=********** of **********\n", "an unlearnt-1\n", "whole\n"}));
    EXPECT_TRUE(Contains(members["status.txt"], "not running"));
    EXPECT_TRUE(members.contains("check.txt") && members.contains("version.txt"));
    // Nothing else changes.
    EXPECT_EQ(members["log.kemd_a"].size(), ReadFile(kLog + "_a").size());
    WriteFile("/tmp/ring", members["log.kemd_a"]);
    EXPECT_EQ(Ctl("trace --verify /tmp/ring").code, 0);
    EXPECT_EQ(Ctl("trace --count /tmp/ring").out, Ctl("trace --count " + kLog + "_a").out);
}
