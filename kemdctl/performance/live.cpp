// kemdctl performance live: the host now, on one screen. It samples by itself and needs no kemd.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "base/unique_fd.h"
#include "kemdctl/performance/command.h"
#include "kemdctl/performance/format.h"
#include "kemdctl/performance/live_screen.h"
#include "kemdctl/performance/live_terminal.h"
#include "kemdctl/ui/text.h"
#include "performance/sampler.h"

namespace {

// The first rates come soon.
constexpr int64_t kFirst = kSecond / 4;

// What is sampled, and what of it is on the screen: a pause holds only that.
class LiveHost {
  public:
    LiveHost(int64_t period, bool hasProcesses)
        : m_period(SpanText(period)), m_hasProcesses(hasProcesses) {
        std::array<char, 256> name{};
        (void)gethostname(name.data(), name.size() - 1);
        m_host = Printable(name.data());
        MakeSampler();
    }

    void SetProcesses(bool hasProcesses) {
        m_hasProcesses = hasProcesses;
        MakeSampler();
    }
    // The next sample is of other series than the one before.
    void MakeSampler() {
        m_table = {};
        m_values = {};
        m_sampler = std::make_unique<Sampler>(SamplerSettings{m_hasProcesses});
        Sample();
    }
    void Sample() {
        const SampleTime now = SampleTime::Now();
        m_sampler->Sample(m_table);
        m_values.Take(m_table, now.monotonic);
        m_time = now;
    }
    [[nodiscard]] LiveFacts Facts() {
        return {m_host,   TimeText(m_time.wall).substr(0, 19), m_period,
                m_values, m_modules.Newest(m_time.wall),       m_sampler->Processes()};
    }

  private:
    std::string m_host;
    std::string m_period;
    bool m_hasProcesses;
    SampleTime m_time;
    SeriesTable m_table;
    std::unique_ptr<Sampler> m_sampler;
    LiveValues m_values;
    LiveModules m_modules;
};

class LiveView {
  public:
    LiveView(const PerformanceOptions& options, int64_t period)
        : m_period(period), m_host(period, options.hasProcesses) {
        m_state.hasProcesses = options.hasProcesses;
    }
    int Run(int signals);

  private:
    [[nodiscard]] bool StartTimer();
    [[nodiscard]] bool Draw();
    [[nodiscard]] bool Tick();
    // The four return false when it is over.
    [[nodiscard]] bool TakeKeys();
    [[nodiscard]] bool TakeKey(const std::string& key);
    [[nodiscard]] bool TakeSignal(int signals);
    [[nodiscard]] bool Suspend();
    void TypeKey(const std::string& key);
    void Choose(size_t section);
    void Scroll(const std::string& key);

    int64_t m_period;
    LiveHost m_host;
    LiveState m_state;
    LiveFacts m_shown;
    LiveTerminal m_terminal;
    UniqueFd m_timer;
    std::optional<int> m_error;  // an errno number that ends it
};

timespec TimeSpec(int64_t nanoseconds) {
    return {static_cast<time_t>(nanoseconds / kSecond), static_cast<long>(nanoseconds % kSecond)};
}

bool LiveView::StartTimer() {
    m_timer.Reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
    const itimerspec times = {TimeSpec(m_period), TimeSpec(std::min(kFirst, m_period))};
    return m_timer.IsOpen() && timerfd_settime(m_timer.Get(), 0, &times, nullptr) == 0;
}

bool LiveView::Draw() {
    const auto [columns, rows] = LiveTerminal::CurrentSize();
    const LiveSize size = {columns, rows, TerminalHasColor()};
    if (m_terminal.Show(LiveLines(m_shown, m_state, size))) return true;
    m_error = errno;
    return false;
}

bool LiveView::Tick() {
    uint64_t missed = 0;
    (void)!read(m_timer.Get(), &missed, sizeof missed);
    m_host.Sample();
    if (m_state.isPaused) return true;
    m_shown = m_host.Facts();
    return Draw();
}

void LiveView::TypeKey(const std::string& key) {
    if (key == "enter" || key == "escape") {
        m_state.isTyping = false;
        if (key == "escape") m_state.filter.clear();
    } else if (key == "backspace") {
        while (!m_state.filter.empty()) {
            const char last = m_state.filter.back();
            m_state.filter.pop_back();
            if ((static_cast<unsigned char>(last) & 0xc0) != 0x80) break;
        }
    } else if (key.size() == 1 || static_cast<unsigned char>(key[0]) >= 0x80) {
        m_state.filter += Printable(key);
    }
}

void LiveView::Choose(size_t section) {
    m_state.alone = m_state.alone == section ? 0 : section;
    m_state.scroll = 0;
    m_state.sort = std::min<size_t>(m_state.sort, 1);
    m_state.showsHelp = false;
}

void LiveView::Scroll(const std::string& key) {
    const size_t page = std::max<size_t>(LiveTerminal::CurrentSize().rows / 2, 1);
    const size_t step = key.starts_with("page") ? page : 1;
    if (key == "home") m_state.scroll = 0;
    if (key == "end") m_state.scroll = SIZE_MAX;
    if (key == "down" || key == "page down") m_state.scroll += step;
    if (key == "up" || key == "page up") m_state.scroll -= std::min(step, m_state.scroll);
}

bool LiveView::TakeKey(const std::string& key) {
    if (m_state.isTyping) {
        TypeKey(key);
        return true;
    }
    if (key == "q") return false;
    // It first ends what was begun.
    if (key == "escape") {
        if (!m_state.showsHelp && m_state.filter.empty() && m_state.alone == 0) return false;
        m_state.showsHelp = false;
        m_state.filter.clear();
        m_state.alone = 0;
    }
    if (key == "p" || key == " ") m_state.isPaused = !m_state.isPaused;
    if (key == "h" || key == "?") m_state.showsHelp = !m_state.showsHelp;
    if (key == "/") m_state.isTyping = true;
    if (key == "s") m_state.sort = (m_state.sort + 1) % SortCount(m_state);
    if (key == "t") {
        m_state.hasProcesses = !m_state.hasProcesses;
        m_host.SetProcesses(m_state.hasProcesses);
    }
    if (key.size() == 1 && key[0] >= '0' && key[0] <= '0' + static_cast<int>(kLiveSections)) {
        Choose(static_cast<size_t>(key[0] - '0'));
    }
    Scroll(key);
    return true;
}

bool LiveView::TakeKeys() {
    std::array<char, 256> bytes{};
    const ssize_t got = read(STDIN_FILENO, bytes.data(), bytes.size());
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return true;
    if (got <= 0) return false;  // the terminal has gone
    for (const std::string& key : ParseKeys({bytes.data(), static_cast<size_t>(got)})) {
        if (!TakeKey(key)) return false;
    }
    return Draw();
}

bool LiveView::Suspend() {
    m_terminal.GiveBack();
    (void)raise(SIGSTOP);
    if (m_terminal.Take()) return Draw();
    m_error = errno;
    return false;
}

bool LiveView::TakeSignal(int signals) {
    signalfd_siginfo info{};
    if (read(signals, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return true;
    if (info.ssi_signo == SIGTSTP) return Suspend();
    if (info.ssi_signo != SIGWINCH) return false;
    m_terminal.Forget();
    return Draw();
}

int LiveView::Run(int signals) {
    enum { kTimer, kKeys, kSignals, kCount };
    m_shown = m_host.Facts();
    if (!StartTimer() || !m_terminal.Take()) m_error = errno;
    bool goesOn = !m_error && Draw();
    std::array<pollfd, kCount> waited = {
        {{m_timer.Get(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}}};
    while (goesOn) {
        if (poll(waited.data(), waited.size(), -1) < 0) {
            if (errno == EINTR) continue;
            m_error = errno;
            break;
        }
        if (waited[kSignals].revents != 0) goesOn = TakeSignal(signals);
        if (goesOn && waited[kKeys].revents != 0) goesOn = TakeKeys();
        if (goesOn && waited[kTimer].revents != 0) goesOn = Tick();
    }
    m_terminal.GiveBack();
    if (!m_error) return kYes;
    Complain("cannot use the terminal: %s", std::strerror(*m_error));
    return kError;
}

// Before there is another thread, which has the mask from this one. A signal that the caller
// ignores stays ignored: if it were blocked, it would still come.
UniqueFd TakeSignals() {
    sigset_t set{};
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH}) {
        struct sigaction action {};
        (void)sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_IGN) sigaddset(&set, signal);
    }
    (void)sigprocmask(SIG_BLOCK, &set, nullptr);
    return UniqueFd(signalfd(-1, &set, SFD_CLOEXEC));
}

// For scripts: the rates of one period.
int ShowOnce(const PerformanceOptions& options, int64_t period) {
    LiveHost host(period, options.hasProcesses);
    const timespec wait = TimeSpec(period);
    (void)nanosleep(&wait, nullptr);
    host.Sample();
    const size_t width = TerminalWidth();
    const char* const columns = std::getenv("COLUMNS");
    LiveSize size = {width, 0, TerminalHasColor()};
    if (width == 0) size.columns = columns != nullptr ? std::strtoul(columns, nullptr, 10) : 0;
    constexpr size_t kUsual = 100, kLeast = 20;
    if (size.columns < kLeast) size.columns = kUsual;
    for (const std::string& line : LiveLines(host.Facts(), {}, size)) {
        Write(line.substr(0, line.find_last_not_of(' ') + 1) + "\n");
    }
    return kYes;
}

}  // namespace

int ShowLive(const PerformanceOptions& options, ReportWriter& /*report*/) {
    if (!options.words.empty()) {
        Complain("live takes no series: press / to filter");
        return kError;
    }
    const int64_t period = options.period.value_or(kSecond);
    if (options.once) return ShowOnce(options, period);
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
        Complain("live needs a terminal; --once prints one screen as text");
        return kError;
    }
    const UniqueFd signals = TakeSignals();
    if (!signals.IsOpen()) {
        Complain("cannot wait for signals: %s", std::strerror(errno));
        return kError;
    }
    return LiveView(options, period).Run(signals.Get());
}
