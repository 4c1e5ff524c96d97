// kemdctl performance live, on a terminal of its own whose screen is read back.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <chrono>
#include <csignal>
#include <functional>

#include "performance/history_writer.h"
#include "tests/kemdctl/ctl.h"

namespace {

// What the escape sequences of the command make of a screen; any other one fails the test.
class Screen {
  public:
    void Put(const std::string& bytes) {
        m_rest += bytes;
        size_t at = 0;
        for (; at < m_rest.size();) {
            const size_t length = m_rest[at] == '\x1b' ? Sequence(at) : Character(at);
            if (length == 0) break;
            at += length;
        }
        m_rest.erase(0, at);
    }
    std::string Line(size_t number) const { return number < m_lines.size() ? m_lines[number] : ""; }
    std::string Text() const {
        std::string text;
        for (const std::string& line : m_lines) text += line + "\n";
        return text;
    }
    bool isAlternate = false;
    size_t widest = 0;
    void Clear() {
        m_lines.clear();
        widest = 0;
    }

  private:
    size_t Sequence(size_t at) {
        const size_t end = m_rest.find_first_of("HKJmhl", at);
        if (end == std::string::npos) return 0;
        const std::string code = m_rest.substr(at + 1, end - at);
        if (code == "[K") {
            m_lines.resize(std::max(m_lines.size(), m_row + 1));
            m_lines[m_row].clear();
        } else if (code == "[?1049h" || code == "[?1049l")
            isAlternate = code.back() == 'h';
        else if (code.back() == 'H')
            m_row = std::stoul(code.substr(1)) - 1;
        else
            EXPECT_TRUE(code.back() == 'm' || code[1] == '?' || code == "[2J") << code;
        return end - at + 1;
    }
    size_t Character(size_t at) {
        if (m_row >= m_lines.size()) m_lines.resize(m_row + 1);
        // "°" of a temperature is one column.
        if ((m_rest[at] & 0xc0) != 0x80) m_lines[m_row] += m_rest[at];
        widest = std::max(widest, m_lines[m_row].size());
        return 1;
    }

    std::vector<std::string> m_lines;
    std::string m_rest;
    size_t m_row = 0;
};

class Live {
  public:
    Live(unsigned short columns, unsigned short rows, const std::string& before = "") {
        winsize size = {rows, columns, 0, 0};
        m_child = forkpty(&m_terminal, nullptr, nullptr, &size);
        if (m_child == 0) {
            const std::string command =
                before + " TERM=xterm exec /build/bin/kemdctl perf live --period 100ms";
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        tcgetattr(m_terminal, &m_before);
    }
    ~Live() {
        if (m_child > 0) kill(m_child, SIGKILL), waitpid(m_child, nullptr, 0);
        close(m_terminal);
    }
    void Type(const std::string& keys) {
        ASSERT_EQ(write(m_terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    void Resize(unsigned short columns, unsigned short rows) {
        screen.Clear();
        winsize size = {rows, columns, 0, 0};
        ioctl(m_terminal, TIOCSWINSZ, &size);
    }
    // Reads until this is so; the terminal may end before.
    testing::AssertionResult Until(const std::function<bool()>& isSo) {
        constexpr int kLong = 20'000;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLong);
        while (!isSo()) {
            pollfd waited = {m_terminal, POLLIN, 0};
            char bytes[4096];
            const bool isLate = std::chrono::steady_clock::now() > end;
            const ssize_t got =
                !isLate && poll(&waited, 1, kLong) > 0 ? read(m_terminal, bytes, sizeof bytes) : 0;
            if (got <= 0) return testing::AssertionFailure() << "the screen is\n" << screen.Text();
            written.append(bytes, static_cast<size_t>(got));
            screen.Put({bytes, static_cast<size_t>(got)});
        }
        return testing::AssertionSuccess();
    }
    testing::AssertionResult Shows(const std::string& text) {
        return Until([&] { return Contains(screen.Text(), text); });
    }
    int Signal(int signal) { return kill(m_child, signal); }
    // SIGCONT before that would be lost.
    bool Stops() const {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(m_child), &info, WSTOPPED) == 0;
    }
    // How the process ended; what it wrote until then is read.
    int Wait() {
        (void)Until([] { return false; });
        int status = 0;
        waitpid(std::exchange(m_child, 0), &status, 0);
        return status;
    }
    bool IsGivenBack() const {
        termios now{};
        return tcgetattr(m_terminal, &now) == 0 && now.c_lflag == m_before.c_lflag &&
               now.c_iflag == m_before.c_iflag && !screen.isAlternate;
    }

    Screen screen;
    std::string written;

  private:
    int m_terminal = -1;
    pid_t m_child = 0;
    termios m_before{};
};

TEST(Live, FitsEverySizeWhileItRuns) {
    Live live(80, 24);
    const struct {
        unsigned short columns, rows;
    } sizes[] = {{80, 24}, {40, 10}, {200, 60}, {20, 4}, {80, 24}};
    for (const auto& [columns, rows] : sizes) {
        live.Resize(columns, rows);
        ASSERT_TRUE(live.Until([&] { return live.screen.Line(rows - 1U).starts_with("q quit"); }));
        EXPECT_EQ(live.screen.Line(rows), "") << columns;
        EXPECT_LE(live.screen.widest, columns);
        EXPECT_TRUE(Contains(live.screen.Line(1), "CPU    ["));
        // A wide screen has two sections beside each other.
        const std::string text = live.screen.Text();
        const size_t first = text.find("[1] CPUs"), end = text.find('\n', first);
        if (rows == 4) continue;
        EXPECT_EQ(columns >= 150,
                  text.substr(first, end - first).find("[2] disks") != text.npos ||
                      text.substr(first, end - first).find("[3] inter") != text.npos);
    }
    live.Type("q");
    EXPECT_EQ(live.Wait(), 0);
}

TEST(Live, KeysChooseWhatIsShown) {
    Live live(80, 24);
    ASSERT_TRUE(live.Shows("\n[3] interfaces"));
    const struct {
        std::string keys, shown;
    } steps[] = {{"h", "this help"},
                 {"h", "[3] interfaces"},
                 {"\x1b[A3", "\n[3] interfaces"},
                 {"s", "s sort: name"},
                 {"s", "s sort: column"},
                 {"/L", "filter: L_"},
                 {"o\r", "  filter: Lo"},
                 {"p", "  paused"},
                 {"\x1b", "[1] CPUs"},
                 {"p7", "press t to have them"},
                 {"t", "kemdctl"}};
    for (const auto& [keys, shown] : steps) {
        live.Type(keys);
        EXPECT_TRUE(live.Shows(shown)) << keys;
    }
    // The interface has the name that was filtered.
    live.Type("3/lo\r");
    EXPECT_TRUE(live.Shows("\nlo "));
    live.Type("/x\r");
    EXPECT_TRUE(live.Shows("there are none"));
    live.Type("\x1b");
    ASSERT_TRUE(live.Shows("[1] CPUs"));
    live.Type("\x1b");
    EXPECT_EQ(live.Wait(), 0);
}

TEST(Live, WritesOnlyTheLinesThatChanged) {
    Live live(80, 24);
    ASSERT_TRUE(live.Shows("q quit"));
    live.Type("p");
    ASSERT_TRUE(live.Shows("paused"));
    live.written.clear();
    live.Type("/");
    ASSERT_TRUE(live.Shows("filter: _"));
    EXPECT_EQ(live.written, "\x1b[24;1H\x1b[0m\x1b[K\x1b[1mfilter: _\x1b[0m");
}

TEST(Live, GivesTheTerminalBackOnEveryWayOut) {
    const struct {
        const char* keys;
        int signal;
        int status;
    } ways[] = {{"q", 0, 0},      {"\x1b", 0, 0},  {"\x03", 0, 0},         {"\x1c", 0, 0},
                {"", SIGTERM, 0}, {"", SIGHUP, 0}, {"", SIGSEGV, SIGSEGV}, {"", SIGABRT, SIGABRT}};
    for (const auto& [keys, signal, status] : ways) {
        Live live(80, 24, "ulimit -c 0;");
        ASSERT_TRUE(live.Shows("q quit"));
        EXPECT_FALSE(live.IsGivenBack());
        if (signal != 0) live.Signal(signal);
        live.Type(keys);
        EXPECT_EQ(live.Wait() & 0x7f, status) << keys << signal;
        EXPECT_TRUE(live.IsGivenBack()) << keys << signal;
    }
    // A stop by the job control, too; then it goes on.
    Live live(80, 24);
    ASSERT_TRUE(live.Shows("q quit"));
    live.Signal(SIGTSTP);
    ASSERT_TRUE(live.Until([&] { return live.IsGivenBack(); }));
    ASSERT_TRUE(live.Stops());
    live.screen.Clear();
    live.Signal(SIGCONT);
    EXPECT_TRUE(live.Shows("q quit"));
    EXPECT_FALSE(live.IsGivenBack());
}

TEST(Live, HasTheSeriesOfModulesFromTheHistory) {
    std::filesystem::create_directories("/var/lib/kemd/performance");
    HistorySettings settings = {"/var/lib/kemd/performance/history", 4U << 20, 1'000'000'000, "h",
                                "b"};
    std::string error;
    const auto writer = HistoryWriter::Open(settings, error);
    ASSERT_TRUE(writer) << error;
    SeriesTable table;
    SeriesInfo info;
    info.name = "queue_bytes";
    info.unit = "bytes";
    info.labels = SeriesLabel("module", "web\x1b[2J");
    table.Set(table.Add(info), 2048);
    writer->Append(SampleTime::Now(), table);

    Live live(100, 40, "NO_COLOR=1");
    ASSERT_TRUE(live.Shows("[6] modules"));
    EXPECT_TRUE(live.Shows("queue_bytes/web\\x1b[2J")) << "a label is no order to the terminal";
    EXPECT_TRUE(live.Shows(" 2 KiB"));
    EXPECT_FALSE(Contains(live.written, "\x1b[1m") || Contains(live.written, "\x1b[32m"));
}

TEST(Live, PrintsOnceWithoutATerminal) {
    const Result once = Ctl("perf live --once --period 100ms --processes", "COLUMNS=90");
    EXPECT_EQ(once.code, 0) << once.err;
    EXPECT_TRUE(
        Holds(once.out, {"CPU    [", "memory [", "interfaces", "lo ", "[7] processes"}, {"\x1b"}));
    // /proc/stat is one with 256 processors.
    EXPECT_TRUE(Holds(once.out, {"each digit is one", "\n    216 "}));
    EXPECT_TRUE(Shows("perf live </dev/null", 2, {"live needs a terminal; --once"}));
    EXPECT_TRUE(Shows("perf live --period 50ms", 2, {"not a period from 100ms to 1h"}));
    EXPECT_TRUE(Shows("perf live cpu", 2, {"live takes no series"}));
    EXPECT_TRUE(Shows("perf --html /tmp/x --step 1s", 2, {"--step: not with --html"}));
    EXPECT_TRUE(Shows("perf --html /tmp/x --file /tmp/none", 2, {"/tmp/none"}));
    EXPECT_TRUE(Shows("perf show --once", 2, {"--once: not an option of show"}));
}

}  // namespace
