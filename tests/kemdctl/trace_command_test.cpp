// kemdctl trace: which records it chooses, how it shows them, and when it ends.
#include <linux/capability.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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
    // What a terminal gets from this command of the shell.
    static std::string OnTerminal(const std::string& command) {
        int terminal = -1;
        const pid_t process = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (process == 0) {
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        std::string shown(1 << 16, '\0');
        size_t length = 0;
        for (ssize_t got = 1; got > 0; length += static_cast<size_t>(std::max<ssize_t>(got, 0))) {
            got = read(terminal, shown.data() + length, shown.size() - length);
        }
        shown.resize(length);
        EXPECT_EQ(process, waitpid(process, nullptr, 0));
        close(terminal);
        return shown;
    }
    // Goes on beside the test, its output in /tmp/followed.
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
    // Its exit status, once it has ended.
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
        const char* chosen;  // the numbers in the texts
    } cases[] = {
        {"", "12345"},
        {"-n 2", "45"},
        {"-n 0", ""},
        {"-n1", "5"},
        {"-ia -n=1", nullptr},
        {"-n2 -galpha", "12"},
        {"--since 2026-11-21", "2345"},
        {"--since '2026-11-20 23:59' --until 2026-11-21T10:00", "12"},
        {"--since '2026-11-21 10:00:00.25' --until '2026-11-21 10:00:10.250'", "34"},
        {"--until 1d", nullptr},
        {"--thread aaaa", "125"},
        {"--thread 0xAAAA --thread deadbeef --tag counter", "34"},
        {"--tag kemd --tag counter -n 9", "12345"},
        {"-g alpha --grep gamma", "125"},
        {"-g ^beta", "35"},  // at each line of a text
        {"-i -g ^BETA", "345"},
        {"-g 'alpha|mm' -v ! -v '\\(1\\)'", "5"},
        {"-g a -v beta -n 2", "24"},  // the last ones of what is left
        {"-n 2 --exclude=beta -g=a", "24"},
        {"--gaps 5 --since 2026-11-21", "34"},
        {"--gaps 5s -n 2", ""},
        {"--gaps 0.7 -n 3", "345"},
        {"-g 'a(b'", nullptr},
        {"-g ''", nullptr},
        {"--thread xyz", nullptr},
        {"-n -1", nullptr},
        {"-n 1 --lines 1", nullptr},
        {"--since 25:00", nullptr},
        {"--gaps", nullptr},
        {"--timeout 1", nullptr},
        {"--verify -n 1", nullptr},
        {"--count --stats", nullptr},
        {"-o xml", nullptr},
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
    Debug.Message("the first run");
    const std::string first = ReadFile("/var/log/orvmon/log.kemd");
    ASSERT_TRUE(Debug.Init("kemd"));
    TRACE(5, "before the banner");
    Debug.Message("kemd Version=\"1\" of the second run");
    Debug.Message("the second run");
    WriteFile("/tmp/first", first);
    const Result second = Trace("--start /tmp/first /var/log/orvmon");
    EXPECT_TRUE(InOrder(second.out, {"### Start", "before the banner", "the second run"}));
    EXPECT_FALSE(Contains(second.out, "first")) << second.out;
    EXPECT_TRUE(InOrder(second.err, {"/tmp/first: log, 2 records", "log.kemd_i: ring, 4 records"}));
    EXPECT_TRUE(InOrder(Trace("/tmp/first").out, {"first run", "the first run"}));
    for (const char* options : {"--since -1h", "--since now-", "--until -1m", "--until +1.5h",
                                "--since yesterday --until '+1d12h'", "--since today"}) {
        const int code = Contains(options, "now-") ? 2 : Contains(options, "-1m") ? 1 : 0;
        EXPECT_EQ(code, Trace(std::string(options) + " -n 1").code) << options;
    }
}

TEST_F(TraceCommandTest, TimesAreTheDaemonsWhateverTheCallersZone) {
    Debug.Message("just now");
    setenv("TZ", "XXX5", 1);
    EXPECT_EQ(0, Trace("--since -1m -g 'just now'").code);
    EXPECT_EQ(1, Trace("--until -1m -g 'just now'").code);
    EXPECT_TRUE(Contains(Ctl("status").out, " s ago)")) << ReadFile("/tmp/out");
    setenv("TZ", "UTC", 1);
}

// The start of a ring and of its log are not what is asked for: reading them would take seconds.
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
    const Result all = Trace("/tmp/ring");
    EXPECT_TRUE(Contains(all.err, ": ring, 60000 records read"));
    const Result last = Trace("-n 3 /tmp/ring");
    EXPECT_TRUE(all.out.ends_with(last.out) && last.out.starts_with("2026-11-21 16:39:57.000"));
    EXPECT_TRUE(Contains(last.err, ": ring, 3 records read")) << last.err;
    const Lines rare = Split(Trace("-q --tag rare /tmp/ring").out);
    for (const size_t count : {1, 9, 60, 99}) {
        const Lines found =
            Split(Trace("--tag rare -n " + std::to_string(count) + " /tmp/ring").out);
        const size_t expected = std::min(count, rare.size());
        EXPECT_EQ(Lines(rare.end() - static_cast<std::ptrdiff_t>(expected), rare.end()), found);
    }
    const Result until = Trace("--until '2026-11-21 00:01' /tmp/ring");
    EXPECT_EQ(61u, Split(until.out).size());
    EXPECT_FALSE(Contains(until.err, "16:39:59")) << until.err;
    EXPECT_FALSE(Contains(Trace("--last-run --json /tmp/ring").out, "\"lastRecords\":[\""));
}

TEST_F(TraceCommandTest, AnErrorIsNotTheEndOfAFile) {
    WriteLog("/tmp/five", kFive);
    const auto expect = [](const std::string& arguments, const std::string& cause) {
        const Result result = Trace(arguments);
        EXPECT_EQ(2, result.code) << arguments;
        EXPECT_TRUE(Contains(result.err, cause)) << arguments << ": " << result.err;
        return result.out;
    };
    expect("/tmp/five >/dev/full", "cannot write standard output: No space left on device");
#ifndef __SANITIZE_ADDRESS__
    WriteLog("/tmp/bad", Lines(200, kFive[0]));
    setenv("LD_PRELOAD", "/build/tests/kemdctl/libfailing_read.so", 1);
    for (const char* each :
         {"", "-f --timeout 0 ", "-n 1 ", "--count ", "--last-run ", "--stats "}) {
        const std::string shown = expect(each + std::string("/tmp/five /tmp/bad"),
                                         "cannot be read at byte 4096: Input/output error");
        EXPECT_FALSE(shown.empty()) << each;
    }
    EXPECT_LT(120u, Split(Trace("-q /tmp/bad").out).size());
    expect("--collect /tmp/c.tar.gz /tmp/bad", "zero bytes stand for what is missing");
    EXPECT_TRUE(Contains(Trace("--verify /tmp/bad").out, "cannot be read at byte 4096"));
    unsetenv("LD_PRELOAD");
#endif
    fs::create_directories("/tmp/closed");
    WriteLog("/tmp/closed/log.kemd", kFive);
    chmod("/tmp/closed", 0);
    const pid_t user = fork();
    if (user == 0) {
        prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE);
        prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH);
        const Result result = Trace("/tmp/closed");
        const bool isNamed = Contains(result.err, "/tmp/closed/log.kemd") &&
                             Contains(result.err, "Permission denied");
        _exit(isNamed ? result.code : 1);
    }
    int status = 0;
    ASSERT_EQ(user, waitpid(user, &status, 0));
    EXPECT_EQ(2, WEXITSTATUS(status)) << ReadFile("/tmp/err");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which take more themselves
    WriteFile("/tmp/long", kFive[0] + "\n" + kFive[1] + std::string(size_t{50} << 20, 'x'));
    EXPECT_NE(
        0, std::system("ulimit -v 40000; /build/bin/kemdctl trace /tmp/long >/tmp/out 2>/tmp/err"));
    EXPECT_TRUE(Contains(ReadFile("/tmp/err"), "not enough memory")) << ReadFile("/tmp/err");
    EXPECT_TRUE(Contains(ReadFile("/tmp/out"), "(1)"));
#endif
}

TEST_F(TraceCommandTest, LargeFilesShowProgress) {
    WriteLog("/tmp/five", kFive);
    const Result exported = Trace("--export /tmp/timeline /tmp/five");
    const std::string size = std::to_string(fs::file_size("/tmp/timeline"));
    EXPECT_TRUE(Contains(exported.err, "wrote /tmp/timeline, ")) << exported.err;
    EXPECT_TRUE(Contains(exported.err, fs::file_size("/tmp/timeline") < 1024 ? size : " KiB\n"));
    EXPECT_EQ("", Trace("-q --export /tmp/timeline /tmp/five").err);
    const std::string shown =
        OnTerminal("/build/bin/kemdctl trace --collect /tmp/c.tar.gz /tmp/five");
    EXPECT_TRUE(InOrder(shown, {"/tmp/c.tar.gz: ", " of ", "wrote /tmp/c.tar.gz, "})) << shown;
}

TEST_F(TraceCommandTest, FormsAndWhatIsBetweenRecords) {
    WriteLog("/tmp/five", {kFive.begin() + 2, kFive.end()});
    EXPECT_EQ(
        "10:00:00.250 counter       beta (3)\n"
        "10:00:10.250 counter       Beta (4)\n"
        "10:00:11.000 kemd          gamma (5)\n"
        "    beta after it\n",
        Trace("-o short /tmp/five").out);
    EXPECT_EQ("            " + kFive[2] + "\n    +10.000 " + kFive[3] + "\n",
              Trace("--delta /tmp/five -v gamma").out);
    EXPECT_EQ(kFive[2] + "\n-- 10.000 s without a record --\n" + kFive[3] + "\n",
              Trace("--gaps 5 /tmp/five").out);
    WriteLog("/tmp/hostile",
             {kHead + "a\"b           x,\"\x1b[2J\xff\xc2\x9b\xc3\xa4\xe2\x80\xae\\"});
    EXPECT_EQ(
        "{\"time\":\"2026-11-21 10:00:00.000\",\"thread\":\"0000AAAA\",\"residentKb\":3188,"
        "\"tag\":\"a\\\"b\",\"text\":\"x,\\\"\\u001b[2J\xef\xbf\xbd\\u009b\xc3\xa4\\u202e\\\\\","
        "\"file\":\"/tmp/hostile\"}\n",
        Trace("--json /tmp/hostile").out);
    EXPECT_EQ(
        "time,thread,residentKb,tag,text,file\r\n2026-11-21 10:00:00.000,0000AAAA,3188,"
        "\"a\"\"b\",\"x,\"\"\x1b[2J\xff\xc2\x9b\xc3\xa4\xe2\x80\xae\\\",/tmp/hostile\r\n",
        Trace("-o csv /tmp/hostile").out);
    EXPECT_TRUE(Contains(Trace("-o csv --gaps 1 /tmp/five").out, ",/tmp/five,10.000\r\n"));
    WriteLog("/tmp/five", {"no trace", kFive[0]});
    for (const char* form : {"full", "short", "json", "csv"}) {
        const Result raw = Trace(std::string("--raw /tmp/five -o ") + form);
        EXPECT_EQ(raw.code, 0) << form;
        EXPECT_TRUE(InOrder(raw.out, {"no trace", "alpha (1)"})) << form;
        EXPECT_EQ(Contains(raw.out, "\"kind\":\"other\"}"), Contains(form, "json"));
    }
}

TEST_F(TraceCommandTest, HostileTextNeverDrivesATerminal) {
    std::string hostile =
        kHead + "t\x1bg           ERROR \x1b[2J\x9b\x07\x08\xc2\x9bneedle\xff\xe2\x81\xa6";
    WriteLog("/tmp/hostile", {hostile + std::string(5000, 'x'), hostile + "\nneedle\x1b]0;\r."});
    const std::string command =
        "TERM=xterm /build/bin/kemdctl trace --no-pager -g needle /tmp/hostile ";
    for (const char* options : {"", "-o short", "-o json", "-o csv", "--raw --delta"}) {
        for (const char* noColor : {"", "NO_COLOR=1 "}) {
            std::string shown = OnTerminal(noColor + command + options + " 2>/dev/null");
            EXPECT_TRUE(Contains(shown, "needle")) << options;
            const bool isPainted = *noColor == '\0' && (*options == '\0' || Contains(options, "t"));
            for (const char* paint : {"\x1b[0m", "\x1b[2m", "\x1b[31m", "\x1b[1;7m"}) {
                const bool isText = !Contains(options, "-o j") && !Contains(options, "-o c");
                EXPECT_EQ(isText && isPainted, Contains(shown, paint)) << options;
                for (size_t at = 0; (at = shown.find(paint)) != std::string::npos;) {
                    shown.erase(at, std::string(paint).size());
                }
            }
            EXPECT_EQ(std::string::npos, shown.find_first_of("\x1b\x07\x08\x9b\xff\xe2")) << shown;
        }
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
    EXPECT_TRUE(InOrder(paged("", ""), {"(1)", "(5)"}));
    EXPECT_FALSE(Contains(paged("echo paged", " -g nothing"), "paged"));
}

TEST_F(TraceCommandTest, LongTextsAreSearchedInFragments) {
    const std::string fill(65'533, 'x'), lines = fill + "\n" + fill + "\nbegin\n" + fill;
    WriteLog("/tmp/long", {kHead + "t             y" + fill + "needle" + fill + fill + "\ntail",
                           kHead + "t             " + lines + " end"});
    const struct {
        const char* pattern;
        const char* count;
    } cases[] = {{"needle", "1"}, {"n.edle", "1"},    {"ne+$", "0"},   {"^x+needle", "0"},
                 {"^tai.$", "1"}, {"^begi[n]$", "1"}, {"x end$", "1"}, {"x{100}needle", "1"}};
    for (const auto& each : cases) {
        const Result result = Trace("-q --count -g '" + std::string(each.pattern) + "' /tmp/long");
        EXPECT_EQ(each.count + std::string("\n"), result.out) << each.pattern << result.err;
    }
}

TEST_F(TraceCommandTest, ReachOfARingIsThatOfTheWholeRing) {
    for (int i = 0; i < 6200; ++i) {
        TRACE(5, "%s", std::string(1000, 'x').c_str());
        if (i % 16 == 0) usleep(1000);
    }
    const auto reach = [](const char* options) {
        const std::string all = Trace(std::string("--stats /var/log/orvmon ") + options).out;
        const size_t at = all.find("reaches back ");
        return at == all.npos ? "none" : all.substr(at, all.find('\n', at) - at);
    };
    EXPECT_NE("none", reach(""));
    EXPECT_EQ(reach(""), reach("--since +1h"));
}

TEST_F(TraceCommandTest, HelpFitsAScreenAndAReaderMayGoAway) {
    const Lines help = Split(Trace("--help").out);
    EXPECT_LE(help.size(), 24u);
    for (const std::string& line : help) EXPECT_LT(line.size(), 80u) << line;
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
    EXPECT_TRUE(Contains(ReadFile("/tmp/followed"), "needle "));
    EXPECT_FALSE(Contains(ReadFile("/tmp/followed"), "of before"));

    const Result late = Trace("--wait-for 'of before' --timeout 0.1");
    EXPECT_EQ(1, late.code);
    EXPECT_EQ("", late.out + late.err);
    EXPECT_EQ(0, Trace("--wait-for 'of before' --since -1h --timeout 0").code);
    const Result shown = Trace("-f -n 1 --wait-for 'of before' --since -1h");
    EXPECT_TRUE(Contains(shown.out, "of before"));
    EXPECT_EQ(1u, Split(shown.out).size());
    EXPECT_EQ(1, Trace("-f --timeout 0.1 -g nothing").code);
}

TEST_F(TraceCommandTest, FollowsThroughWrapsAndARestartToTheEnd) {
    ConfigureTrace(0);
    ASSERT_TRUE(Debug.Init("kemd"));
    std::string written;
    int count = 0;
    const auto write = [&](int records) {
        for (int i = 0; i < records; ++i) {
            const std::string text = "record " + std::to_string(++count) + ".";
            Debug.Message("%s %s%d", text.c_str(), std::string(800, 'x').c_str(), count);
            written += text + "\n";
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
    // What comes while it is busy is shown as well, once it is asked to end.
    kill(follower, SIGSTOP);
    for (int i = 0; i < 20; ++i) {
        Debug.Message("record %d. x", ++count);
        written += "record " + std::to_string(count) + ".\n";
    }
    kill(follower, SIGTERM);
    kill(follower, SIGCONT);
    int code = -1;
    EXPECT_TRUE(WaitFor([&] { return HasEnded(code); }));
    EXPECT_EQ(0, code);
    std::string shown;
    for (const std::string& line : Split(ReadFile("/tmp/followed"))) {
        const size_t begin = std::min(line.find("record "), line.size());
        shown += line.substr(begin, line.find(" x") - begin) + "\n";
    }
    EXPECT_TRUE(written == shown) << shown;
}

}  // namespace
