// The reports of kemdctl trace on files of the real daemon, and on files that cannot be trusted.
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>

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

// A report as JSON, checked.
static std::string Json(const std::string& arguments, int code) {
    const Result result = Ctl("trace --json " + arguments);
    EXPECT_EQ(result.code, code) << result.err;
    EXPECT_TRUE(JsonCheck::IsValid(result.out)) << result.out;
    return result.out;
}

class ReportTest : public DaemonTest {};

TEST_F(ReportTest, LastRunThatGoesOnAndStops) {
    const pid_t pid = Run();
    EXPECT_TRUE(
        InOrder(Json("--last-run", 0), {"\"end\":\"running\"", "\"lastRecords\":[{\"time\":\"",
                                        "\"tag\":\"kemd\"", "\"file\":\"/var/log"}));
    EXPECT_EQ(Stop(pid), 0);
    const Result stopped = Ctl("trace --last-run");
    EXPECT_EQ(stopped.code, 0);
    EXPECT_TRUE(InOrder(stopped.out, {"stopped in order, by signal 15", "last records:",
                                      "... unload of all registered", "## EXIT PROCESS KEMD ##"}));
    EXPECT_FALSE(Contains(stopped.out, "open call"));
}

TEST_F(ReportTest, LastRunThatWasKilled) {
    Kill(Run());
    const Result killed = Ctl("trace --last-run");
    EXPECT_EQ(killed.code, 1);
    EXPECT_TRUE(InOrder(killed.out, {"killed: no exit message", "Waiting for signals"}));
    // As for another user: what a daemon has open cannot be seen.
    const pid_t hidden = fork();
    if (hidden == 0) {
        prctl(PR_SET_DUMPABLE, 0);
        prctl(PR_SET_NAME, "kemd");
        for (;;) pause();
    }
    const std::string name = "/proc/" + std::to_string(hidden) + "/comm";
    ASSERT_TRUE(WaitFor([&] { return ReadFile(name) == "kemd\n"; }));
    const pid_t asking = fork();
    if (asking == 0) {
        prctl(PR_CAPBSET_DROP, CAP_SYS_PTRACE);
        _exit(Ctl("trace --last-run").code);
    }
    int status = 0;
    ASSERT_EQ(waitpid(asking, &status, 0), asking);
    EXPECT_EQ(WEXITSTATUS(status), 2);
    EXPECT_TRUE(Contains(ReadFile("/tmp/out"), "unknown: no exit message, and whether a process"));
    EXPECT_TRUE(Contains(ReadFile("/tmp/err"), "cannot be seen: only root may ask"));
    kill(hidden, SIGKILL);
    ASSERT_EQ(waitpid(hidden, nullptr, 0), hidden);
    // The log alone is enough, and a later run cannot be told from the one before.
    EXPECT_EQ(Ctl("trace --last-run " + kLog).code, 1);
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_EQ(Ctl("trace --last-run").code, 0);
}

TEST_F(ReportTest, LastRunThatHungInACall) {
    UseSwitch("c", "block-start");
    const pid_t pid = StartAndWait({"-n"});
    EXPECT_TRUE(
        InOrder(Json("--last-run", 0), {"\"running\"", "is starting", "start all modules"}));
    Kill(pid);
    const Result hung = Ctl("trace --last-run");
    EXPECT_EQ(hung.code, 1);
    EXPECT_TRUE(InOrder(hung.out, {"died at start: it never said",
                                   "open call:     start all modules", "Start all modules  ..."}));
    // At the shipped level the switch library names the module.
    const std::string prefix = "2026-11-15 20:04:51.123 [D82A0740] switch        module ";
    WriteFile("/tmp/hung",
              prefix + "b.so stopping\n" + prefix + "b.so stopped\n" + prefix + "a.so stopping\n");
    EXPECT_TRUE(
        Contains(Ctl("trace --last-run /tmp/hung").out, "open call:     stopping module a.so"));
}

TEST_F(ReportTest, LastRunThatDiedAtStart) {
    UseSwitch("c", "fail-query");
    (void)Stop(Run());
    EXPECT_TRUE(InOrder(Json("--last-run", 1), {"died at start", "SWITCH could not be loaded!"}));
    UseSwitch("reference");
    m_environment["OV_MODULE_DIR"] = "/build/modules";
    Kill(Run());
    EXPECT_TRUE(InOrder(Json("--last-run", 1), {"\"killed\"", "\"modules\":["}));
    EXPECT_TRUE(Contains(Json("--last-run /nowhere", 2), "{\"error\":\"/nowhere: No such file"));
    EXPECT_TRUE(
        Contains(Json("--stats /nowhere " + kLog, 2), ",\"error\":\"/nowhere: No such file"));
    EXPECT_FALSE(Contains(ReadFile("/tmp/out"), "error\":\"/var"));
}

TEST_F(ReportTest, VerifySeparatesSoundFromDamaged) {
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_EQ(Ctl("trace --verify").code, 0);
    const std::string ring = ReadFile(kLog + "_a");
    const size_t trailer = ring.rfind("## TRACE-END ##\n");
    std::string noTrailer = ring, noHeader = ring, zeros = ring;
    noTrailer.replace(trailer, 16, 16, '_');
    zeros.replace(trailer - 30, 10, 10, '\0');
    struct Case {
        std::string content;
        int code;
        const char* finding;
    };
    const std::vector<Case> cases = {
        {ring, 0, "sound: ring"},
        {noTrailer, 1, "no trailer"},
        {zeros, 1, "zero bytes"},
        {ring.substr(0, ring.size() - 5), 1, "its header says 1048576"},
        {Line(20, "a") + Line(10, "b"), 1, "time goes back 1 times, first by 10000 ms"},
        {Line(1, "a") + Line(2, "b"), 0, "sound: log, 2 records"},
        {"garbage\n" + Line(1, "a"), 1, "7 bytes are not records"},
        {"", 1, "empty"},
        {"not a trace", 2, "not a trace file"}};
    for (const Case& each : cases) {
        WriteFile("/tmp/file", each.content);
        const Result result = Ctl("trace --verify /tmp/file");
        EXPECT_EQ(result.code, each.code) << each.finding;
        EXPECT_TRUE(Contains(result.out + result.err, each.finding)) << result.out << result.err;
        EXPECT_EQ(each.code == 2, Contains(Json("--verify /tmp/file", each.code), "{\"error\":"));
    }
    EXPECT_EQ(Ctl("trace --verify /tmp/nowhere").code, 2);
}

TEST_F(ReportTest, HeaderIsATable) {
    m_environment["OV_SYSTEM"] = "two\nlines \x1b[31m";
    EXPECT_EQ(Stop(Run({"-agentless"})), 0);
    const Result header = Ctl("trace --header " + kLog + "_a");
    EXPECT_EQ(header.code, 0);
    EXPECT_TRUE(InOrder(header.out, {"Command Line Options\n", "\"-agentless\"", "OV_SYSTEM",
                                     "two\\nlines \\x1b[31m\n", "Trace Level", " 3\n"}));
    (void)Json("--header " + kLog + "_a", 0);
    // The first cycle of the start-up ring has its command line among the records.
    EXPECT_TRUE(Contains(Ctl("trace --header " + kLog + "_i").out, "\"-agentless\""));
    EXPECT_EQ(Ctl("trace --header " + kLog).code, 0);
}

TEST_F(ReportTest, StatisticsOfChosenRecords) {
    std::string text;
    for (int i = 0; i < 7200; i += 60) text += Line(i, "beat " + std::to_string(i), "heartbeat");
    WriteFile("/tmp/log", text + Line(9000, "at 0x7fab and 12", "other") + Hostile());
    const Result stats = Ctl("trace --stats --until '2026-11-15 03:00' /tmp/log");
    EXPECT_EQ(stats.code, 0) << stats.err;
    EXPECT_TRUE(InOrder(stats.out, {"records: 124", "records in each 5 min\n", "00:00:00.000  ##",
                                    "(nothing for 30 min)", "02:30:00.000  ##### 1\n",
                                    "resident memory", "busiest threads", "124  100%  D82A0740",
                                    "busiest tags", "heartbeat", "120   96%  beat #\n",
                                    "at 0x# and #", "after 2026-11-15 01:59:00.000  31 min"}));
    EXPECT_FALSE(Contains(stats.out, "\x1b"));
    const std::string range = "trace --stats --since '2026-11-15 00:01' --until '2026-11-15 00:";
    EXPECT_TRUE(Contains(Ctl(range + "06' /tmp/log").out, "records in each 1 min\n"));
    EXPECT_TRUE(Contains(Ctl(range + "02' /tmp/log").out, "records in each 1 min\n"));
    EXPECT_TRUE(Contains(Ctl(range + "01' /tmp/log").out, "records in each 10 ms\n"));
    EXPECT_TRUE(Contains(Json("--stats /tmp/log", 0), "{\"text\":\"beat #\",\"count\":120}"));
}

TEST_F(ReportTest, TimelineOfARun) {
    EXPECT_EQ(Stop(Run()), 0);
    EXPECT_EQ(Ctl("trace --export /tmp/timeline.json").code, 0);
    const std::string json = ReadFile("/tmp/timeline.json");
    EXPECT_TRUE(JsonCheck::IsValid(json));
    for (const char* span :
         {"start-up", "load modules", "start all modules", "stop all modules", "unload modules"}) {
        EXPECT_TRUE(Contains(json, std::string("\"ph\":\"X\",\"cat\":\"run\",\"name\":\"") + span));
    }
    EXPECT_TRUE(Contains(json, "\"thread_name\""));
    WriteFile("/tmp/log", Hostile());
    EXPECT_EQ(Ctl("trace --export /tmp/timeline.json /tmp/log").code, 0);
    const std::string hostile = ReadFile("/tmp/timeline.json");
    EXPECT_TRUE(JsonCheck::IsValid(hostile)) << hostile;
    EXPECT_TRUE(Contains(hostile, "\"ph\":\"C\""));
    EXPECT_EQ(Ctl("trace --export /nowhere/timeline.json /tmp/log").code, 2);
}

// What a browser makes of it: tests/kemdctl/html_report.
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
    EXPECT_TRUE(Contains(data, "\\u003c/script\\u003e"));
    EXPECT_EQ(data.find_first_of("<>&"), data.npos);
    EXPECT_FALSE(Contains(data, "\xe2\x80\xa8"));
    EXPECT_TRUE(Contains(data, "--\\u003e\\u003c!--"));
}

// The members of an archive by their names.
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
    m_environment["OV_SYSTEM"] = "user " + secret;  // found by the option's value
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
    const Result result = Ctl("trace --collect /tmp/c.tar.gz");
    EXPECT_EQ(result.code, 0) << result.err;
    struct stat status {};
    EXPECT_EQ(stat("/tmp/c.tar.gz", &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    auto members = ReadArchive("/tmp/c.tar.gz");
    for (const auto& [name, text] : members) {
        for (const std::string& hidden :
             {secret, token, std::string("s3"), std::string("a b'"), std::string("part ")}) {
            EXPECT_FALSE(Contains(text, hidden)) << hidden << " in " << name;
        }
    }
    EXPECT_TRUE(Contains(members["log.kemd"], "login secret=** key=****' ok ***********"));
    EXPECT_TRUE(Contains(members["log.kemd_a"], "OV_SYSTEM=user ***************"));
    EXPECT_TRUE(InOrder(members["log.kemd_a.header.txt"], {"***************", "Trace Level"}));
    EXPECT_EQ(members["unit.txt"], R"(Environment=A=b "SSL_KEY=***" "A_PASSWORD=*******" C=d
  TOKEN=*
ExecStart={ argv[]=/kemd --password ** -n -key ****** *****" --b-key=** -token ; a=no }
After=it
)");
    // Times stay, and what a record alone calls a key stays elsewhere.
    EXPECT_TRUE(Contains(members["log.kemd"], "2026-11-15 21:56:40.000 "));
    EXPECT_TRUE(Contains(members["log.kemd"], "index key=********** of **********\n"));
    EXPECT_TRUE(Contains(members["log.kemd"], "an unlearnt-1\n"));
    EXPECT_TRUE(Contains(members["log.kemd"], "whole\n"));
    EXPECT_TRUE(Contains(members["status.txt"], "not running"));
    EXPECT_TRUE(members.contains("check.txt") && members.contains("version.txt"));
    // Nothing else changes.
    EXPECT_EQ(members["log.kemd_a"].size(), ReadFile(kLog + "_a").size());
    WriteFile("/tmp/ring", members["log.kemd_a"]);
    EXPECT_EQ(Ctl("trace --verify /tmp/ring").code, 0);
    EXPECT_EQ(Ctl("trace --count /tmp/ring").out, Ctl("trace --count " + kLog + "_a").out);
}
