// kemdctl trace: which records pass its filters, how they are printed, and when it ends.
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>

#include "tests/kemdctl/ctl.h"
#include "tests/traced_test.h"

namespace fs = std::filesystem;

namespace {

using Lines = std::vector<std::string>;

const std::string kHead = "2026-11-21 10:00:00.000 [0000AAAA]     3188 KB !";

class TraceCommandTest : public TracedTest {
  protected:
    static Result Trace(const std::string& arguments) { return Ctl("trace " + arguments); }
    // A log of these lines.
    static void WriteLog(const std::string& path, const Lines& lines) {
        std::string text;
        for (const std::string& line : lines) text += line + "\n";
        WriteFile(path, text);
    }
    static Lines Split(const std::string& text) {
        std::istringstream stream(text);
        Lines lines;
        for (std::string line; std::getline(stream, line);) lines.push_back(line);
        return lines;
    }
    // Starts in the background, with its output in /tmp/followed.
    pid_t Spawn(const std::string& arguments) {
        const std::string command =
            "exec /build/bin/kemdctl trace " + arguments + " >/tmp/followed";
        m_spawned = fork();
        if (m_spawned == 0) {
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        return m_spawned;
    }
    // Whether it has ended, with this exit status.
    [[nodiscard]] bool HasEnded(int& code) const {
        int status = 0;
        if (waitpid(m_spawned, &status, WNOHANG) != m_spawned) return false;
        code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return true;
    }

  private:
    pid_t m_spawned = 0;
};

const Lines kFive = {"2026-11-20 23:59:59.500 [0000AAAA] kemd          alpha (1)",
                     "2026-11-21 10:00:00.000 [0000AAAA] kemd          ERROR! alpha (2)",
                     "2026-11-21 10:00:00.250 [DEADBEEF] counter       beta (3)",
                     "2026-11-21 10:00:10.250 [DEADBEEF] counter       Beta (4)",
                     "2026-11-21 10:00:11.000 [0000AAAA] kemd          gamma (5)\nbeta after it"};

TEST_F(TraceCommandTest, FiltersCombineInOneOrder) {
    WriteLog("/tmp/five", kFive);
    const struct {
        const char* options;
        const char* chosen;  // the numbers in the texts; null: a mistake
    } cases[] = {
        {"", "12345"},
        {"-n1", "5"},
        {"-n2 -galpha", "12"},
        {"--since 2026-11-21", "2345"},
        {"--since '2026-11-20 23:59' --until 2026-11-21T10:00", "12"},
        {"--since '2026-11-21 10:00:00.25' --until '2026-11-21 10:00:10.250'", "34"},
        {"--thread 0xAAAA --thread deadbeef --tag counter", "34"},
        {"-g alpha --grep gamma", "125"},
        {"-i -g ^BETA", "345"},  // at each line of a text
        {"-g 'alpha|mm' -v ! -v '\\(1\\)'", "5"},
        {"-g a -v beta -n 2", "24"},  // the last ones of what is left
        {"--gaps 5 --since 2026-11-21", "34"},
        {"-g 'a(b'", nullptr},
        {"-n -1", nullptr},
        {"-n 1 --lines 1", nullptr},
        {"--since 25:00", nullptr},
        {"--timeout 1", nullptr},
        {"--count --stats", nullptr},
    };
    for (const auto& each : cases) {
        const Result result = Trace(std::string(each.options) + " -q /tmp/five");
        std::string chosen;
        for (size_t at = 0; (at = result.out.find('(', at)) != std::string::npos; ++at) {
            chosen += result.out[at + 1];
        }
        const std::string expected = each.chosen != nullptr ? each.chosen : "";
        const int code = each.chosen == nullptr ? 2 : expected.empty() ? 1 : 0;
        EXPECT_EQ(expected, chosen) << each.options;
        EXPECT_EQ(code, result.code) << each.options << result.err;
        EXPECT_EQ(code == 2, !result.err.empty()) << each.options << result.err;
        if (code == 2 || Contains(each.options, "--gaps")) continue;
        EXPECT_EQ(std::to_string(expected.size()) + "\n",
                  Trace(std::string(each.options) + " --count -q /tmp/five").out);
    }
}

TEST_F(TraceCommandTest, RecordsOfTheRealTraceSinceAPointOfTheClock) {
    Debug.Message("kemd Version=\"1\" of the first run");
    WriteFile("/tmp/first", ReadFile("/var/log/orvmon/log.kemd"));
    ASSERT_TRUE(Debug.Init("kemd"));
    TRACE(5, "before the banner");
    Debug.Message("kemd Version=\"1\" of the second run");
    const Result second = Trace("--start /tmp/first /var/log/orvmon");
    EXPECT_TRUE(InOrder(second.out, {"### Start", "before the banner", "the second run"}));
    EXPECT_FALSE(Contains(second.out, "first")) << second.out;
    EXPECT_TRUE(InOrder(second.err, {"/tmp/first: log, 1 record", "log.kemd_i: ring, 3 records"}));
    // Times are the daemon's, in whatever time zone the caller is.
    for (const char* zone : {"XXX5", "UTC"}) {
        setenv("TZ", zone, 1);
        for (const char* options : {"--since -1h", "--since now-", "--until -1m", "--until +1.5h",
                                    "--since yesterday --until '+1d12h'"}) {
            const int code = Contains(options, "now-") ? 2 : Contains(options, "-1m") ? 1 : 0;
            EXPECT_EQ(code, Trace(std::string(options) + " -n 1").code) << options;
        }
        EXPECT_TRUE(Contains(Ctl("status").out, " s ago)")) << ReadFile("/tmp/out");
    }
}

// Reading a ring or a log from its start would take seconds.
TEST_F(TraceCommandTest, ReadsNoMoreThanIsAskedFor) {
    ConfigureTrace(0);
    std::string ring = kHead + "kemd          # End of header.\n## TRACE-END ##\n";
    ring += std::string(2047 - ring.size(), '_') + "\n" + kHead +
            "kemd          ### Begin of RingBuffer. ###\n";
    for (int i = 0; i < 60'000; ++i) {
        char line[128];
        snprintf(line, sizeof line, "2026-11-21 %02d:%02d:%02d.000 [0000AAAA] %-13s record %d.\n",
                 i / 3600, i / 60 % 60, i % 60, i % 1000 == 7 ? "rare" : "kemd", i);
        ring += line;
    }
    WriteFile("/tmp/ring", ring + "## TRACE-END ##\n");
    const Result all = Trace("/tmp/ring"), last = Trace("-n 3 /tmp/ring");
    EXPECT_TRUE(Contains(all.err, ": ring, 60000 records read"));
    EXPECT_TRUE(all.out.ends_with(last.out) && last.out.starts_with("2026-11-21 16:39:57.000"));
    EXPECT_TRUE(Contains(last.err, ": ring, 3 records read")) << last.err;
    const std::string rare = Trace("-q --tag rare /tmp/ring").out;
    for (const size_t count : {1, 9, 60, 99}) {
        const std::string found =
            Trace("--tag rare -n " + std::to_string(count) + " /tmp/ring").out;
        EXPECT_TRUE(rare.ends_with(found));
        EXPECT_EQ(std::min<size_t>(count, 60), Split(found).size());
    }
    const Result until = Trace("--until '2026-11-21 00:01' /tmp/ring");
    EXPECT_EQ(61u, Split(until.out).size());
    EXPECT_FALSE(Contains(until.err, "16:39:59")) << until.err;
    // How far back a ring reaches is a fact about all of it.
    EXPECT_TRUE(Contains(Trace("--stats --since '2026-11-21 16:00' /tmp/ring").out,
                         "reaches back 16 h 39 min"));
}

TEST_F(TraceCommandTest, AnErrorIsNotTheEndOfAFile) {
    WriteLog("/tmp/five", kFive);
    EXPECT_TRUE(Shows("trace /tmp/five >/dev/full", 2,
                      {"cannot write standard output: No space left on device"}));
#ifndef __SANITIZE_ADDRESS__
    WriteLog("/tmp/bad", Lines(200, kFive[0]));
    setenv("LD_PRELOAD", "/build/tests/kemdctl/libfailing_read.so", 1);
    for (const std::string each :
         {"", "-f --timeout 0 ", "-n 1 ", "--count ", "--last-run ", "--stats "}) {
        EXPECT_TRUE(Shows("trace " + each + "/tmp/five /tmp/bad", 2,
                          {"cannot be read at byte 4096: Input/output error"}));
        EXPECT_NE("", ReadFile("/tmp/out")) << each;
    }
    EXPECT_LT(120u, Split(Trace("-q /tmp/bad").out).size());
    EXPECT_TRUE(Shows("trace --collect /tmp/c.tar.gz /tmp/bad", 2,
                      {"zero bytes stand for what is missing"}));
    EXPECT_TRUE(Shows("trace --verify /tmp/bad", 2, {"cannot be read at byte 4096"}));
    unsetenv("LD_PRELOAD");
#endif
    WriteLog("/tmp/closed/log.kemd", kFive);
    chmod("/tmp/closed", 0);
    EXPECT_EQ(2, InChild([] {
                  prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE);
                  prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH);
                  return Trace("/tmp/closed").code;
              }));
    EXPECT_TRUE(InOrder(ReadFile("/tmp/err"), {"/tmp/closed/log.kemd", "Permission denied"}));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they need more memory
    WriteFile("/tmp/long", kFive[0] + "\n" + kFive[1] + std::string(size_t{50} << 20, 'x'));
    const Result poor = Ctl("trace /tmp/long", "ulimit -v 40000;");
    EXPECT_EQ(2, poor.code);
    EXPECT_TRUE(Contains(poor.err, "not enough memory")) << poor.err;
    EXPECT_TRUE(Contains(poor.out, "(1)"));
#endif
}

TEST_F(TraceCommandTest, FormsAndWhatIsBetweenRecords) {
    WriteLog("/tmp/five", {kFive.begin() + 2, kFive.end()});
    WriteLog("/tmp/hostile",
             {kHead + "a\"b           x,\"\x1b[2J\xff\xc2\x9b\xc3\xa4\xe2\x80\xae\\"});
    ExpectAll(
        "trace -q ",
        {{"-o short /tmp/five", 0,
          "10:00:00.250 counter       beta (3)\n"
          "10:00:10.250 counter       Beta (4)\n"
          "10:00:11.000 kemd          gamma (5)\n"
          "    beta after it\n"},
         {"--delta /tmp/five -v gamma", 0,
          "            " + kFive[2] + "\n    +10.000 " + kFive[3] + "\n"},
         {"--gaps 5 /tmp/five", 0,
          kFive[2] + "\n-- 10.000 s without a record --\n" + kFive[3] + "\n"},
         {"--json /tmp/hostile", 0,
          "{\"time\":\"2026-11-21 10:00:00.000\",\"thread\":\"0000AAAA\",\"residentKb\":3188,"
          "\"tag\":\"a\\\"b\",\"text\":\"x,\\\"\\u001b[2J\xef\xbf\xbd\\u009b\xc3\xa4\\u202e\\\\\","
          "\"file\":\"/tmp/hostile\"}\n"},
         {"-o csv /tmp/hostile", 0,
          "time,thread,residentKb,tag,text,file\r\n2026-11-21 10:00:00.000,0000AAAA,3188,"
          "\"a\"\"b\",\"x,\"\"\x1b[2J\xff\xc2\x9b\xc3\xa4\xe2\x80\xae\\\",/tmp/hostile\r\n"}});
    EXPECT_TRUE(Contains(Trace("-o csv --gaps 1 /tmp/five").out, ",/tmp/five,10.000\r\n"));
    WriteLog("/tmp/five", {"no trace", kFive[0]});
    for (const char* form : {"full", "short", "json", "csv"}) {
        EXPECT_TRUE(Shows(std::string("trace --raw /tmp/five -o ") + form, 0,
                          {"no trace", *form == 'j' ? "\"kind\":\"other\"}" : "", "alpha (1)"}));
    }
}

TEST_F(TraceCommandTest, HostileTextNeverDrivesATerminal) {
    std::string hostile =
        kHead + "t\x1bg           ERROR \x1b[2J\x9b\x07\x08\xc2\x9bneedle\xff\xe2\x81\xa6";
    WriteLog("/tmp/hostile", {hostile + std::string(5000, 'x'), hostile + "\nneedle\x1b]0;\r."});
    const std::string command =
        "TERM=xterm /build/bin/kemdctl trace --no-pager -g needle /tmp/hostile ";
    const struct {
        std::string before, options;
        bool isPainted;
    } cases[] = {{"", "", true},         {"", "-o short", true}, {"", "--raw --delta", true},
                 {"", "-o json", false}, {"", "-o csv", false},  {"NO_COLOR=1 ", "", false}};
    for (const auto& [before, options, isPainted] : cases) {
        std::string shown = OnTerminal(before + command + options + " 2>/dev/null");
        EXPECT_TRUE(Contains(shown, "needle")) << options;
        for (const std::string paint : {"\x1b[0m", "\x1b[2m", "\x1b[31m", "\x1b[1;7m"}) {
            EXPECT_EQ(isPainted, Contains(shown, paint)) << options;
            for (size_t at = 0; (at = shown.find(paint)) != shown.npos;) {
                shown.erase(at, paint.size());
            }
        }
        EXPECT_EQ(std::string::npos, shown.find_first_of("\x1b\x07\x08\x9b\xff\xe2")) << shown;
    }
    EXPECT_TRUE(Contains(Trace("/tmp/hostile").out, hostile)) << "a pipe gets the bytes";
    EXPECT_FALSE(Contains(Trace("--color=always /tmp/hostile").out, "\x1b[2J"));
}

TEST_F(TraceCommandTest, PagerShowsAllAndMayBeLeft) {
    WriteLog("/tmp/five", kFive);
    const auto paged = [](const std::string& pager, const std::string& end) {
        return OnTerminal("TERM=xterm NO_COLOR=1 KEMDCTL_PAGER='" + pager +
                          "' /build/bin/kemdctl trace /tmp/five" + end);
    };
    const std::string all = paged("while read -r l; do echo \"[$l]\"; done", "; echo =$?");
    EXPECT_TRUE(InOrder(all, {"[2026-11-20", "(5)]", "five: log, 5 records", "=0"})) << all;
    EXPECT_TRUE(InOrder(paged("read -r l; echo \"[$l]\"", " -q; echo =$?"), {"(1)]", "=0"}));
}

// A match may span two of the fragments in which a long text is searched; ^ and $ are of lines.
TEST_F(TraceCommandTest, LongTextsAreSearchedInFragments) {
    const std::string fill(65'533, 'x');
    WriteLog("/tmp/long", {kHead + "t             y" + fill + "needle" + fill + fill + "\ntail"});
    ExpectAll("trace -q --count /tmp/long -g ",
              {{"n.edle", 0, "1\n"}, {"'^x+needle'", 1, "0\n"}, {"'^tai.$'", 0, "1\n"}});
}

TEST_F(TraceCommandTest, AReaderMayGoAway) {
    WriteLog("/tmp/many", Lines(20'000, kFive[1]));
    EXPECT_EQ(0, std::system("(/build/bin/kemdctl trace /tmp/many; echo $? >/tmp/code) 2>/tmp/err |"
                             " read -r line"));
    EXPECT_TRUE(WaitFor([] { return ReadFile("/tmp/code") == "2\n"; }));
    EXPECT_EQ("", ReadFile("/tmp/err"));
}

TEST_F(TraceCommandTest, WaitsForARecordThatComes) {
    Debug.Message("a needle of before");
    int code = -1;
    Spawn("--wait-for 'needle [0-9]+|of before' --tag kemd --timeout 25");
    for (int i = 0; !HasEnded(code) && i < 20'000; ++i) {
        Debug.Message("needle %d", i);
        usleep(1000);
    }
    EXPECT_EQ(0, code);
    EXPECT_EQ(1u, Split(ReadFile("/tmp/followed")).size());
    EXPECT_TRUE(Holds(ReadFile("/tmp/followed"), {"needle "}, {"of before"}));
    EXPECT_TRUE(Prints("trace --wait-for 'of before' --timeout 0.1", 1, ""));
    EXPECT_EQ(0, Trace("--wait-for 'of before' --since -1h --timeout 0").code);
    EXPECT_TRUE(Shows("trace -f -n 1 --wait-for 'of before' --since -1h", 0, {"of before"}));
    EXPECT_EQ(1, Trace("-f --timeout 0.1 -g nothing").code);
}

TEST_F(TraceCommandTest, FollowsThroughWrapsAndARestartToTheEnd) {
    ConfigureTrace(0);
    ASSERT_TRUE(Debug.Init("kemd"));
    int count = 0;
    const auto write = [&](int records) {
        for (int i = 0; i < records; ++i) {
            const std::string text = "record " + std::to_string(++count) + ".";
            Debug.Message("%s %s%d", text.c_str(), std::string(800, 'x').c_str(), count);
            ASSERT_TRUE(WaitFor([&] { return Contains(ReadFile("/tmp/followed"), text); })) << text;
        }
    };
    const pid_t follower = Spawn("-f -q -o short -g 'record '");
    for (int run = 0; run < 2; ++run) {
        write(20);
        Debug.InitDone();
        write(140);  // the log wraps twice
        ASSERT_TRUE(Debug.Init("kemd"));
    }
    write(1);
    // Records that come while it is busy are shown too, before it ends as asked.
    kill(follower, SIGSTOP);
    for (int i = 0; i < 20; ++i) Debug.Message("record %d. x", ++count);
    kill(follower, SIGTERM);
    kill(follower, SIGCONT);
    int code = -1;
    EXPECT_TRUE(WaitFor([&] { return HasEnded(code); }));
    EXPECT_EQ(0, code);
    const Lines shown = Split(ReadFile("/tmp/followed"));
    ASSERT_EQ(static_cast<size_t>(count), shown.size());
    for (size_t i = 0; i < shown.size(); ++i) {
        EXPECT_TRUE(Contains(shown[i], "record " + std::to_string(i + 1) + ".")) << shown[i];
    }
}

}  // namespace
