// ring_tail [--header] [--seconds N] DIRECTORY
// Prints the trace records of a running daemon as they are written: first those of the start-up
// ring buffer DIRECTORY/log.kemd_i, then those of the run-time ring buffer DIRECTORY/log.kemd_a.
// Ends after N seconds or on SIGINT or SIGTERM, in each case after one more look for records.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace {

constexpr std::string_view kTrailer =
    "\n## TRACE-END ##\n";  // with the end of the record before it
constexpr std::string_view kBegin = "### Begin of RingBuffer. ###\n";
constexpr std::string_view kEndOfStartUp = "### End of initialization. ###\n";
constexpr size_t kAll = std::string::npos;

// Follows one ring-buffer file. The daemon stores a record and then the trailer behind it, so what
// stands in front of a trailer is complete once the trailer has been seen. The file is read and not
// mapped, because a starting daemon truncates it.
class Ring {
  public:
    Ring(std::string path, bool showHeader) : m_path(std::move(path)), m_showHeader(showHeader) {}
    ~Ring() { Close(); }
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    bool Open() {
        if (m_fd < 0) m_fd = open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
        return m_fd >= 0;
    }
    void Close() {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }
    void PrintNew();
    bool Unlinked() const { return Status().st_nlink == 0; }
    // Whether the record that ends the start-up phase was printed.
    bool Ended() const { return m_printed.ends_with(kEndOfStartUp); }
    bool OlderThan(const Ring& other) const {
        const timespec mine = Status().st_mtim;
        const timespec its = other.Status().st_mtim;
        return mine.tv_sec != its.tv_sec ? mine.tv_sec < its.tv_sec : mine.tv_nsec < its.tv_nsec;
    }

  private:
    struct stat Status() const {
        struct stat status = {};
        if (m_fd >= 0) (void)fstat(m_fd, &status);
        return status;
    }
    std::string Read(size_t offset, size_t length) const;
    bool FindBegin();
    std::optional<std::string> ReadNew();

    std::string m_path;
    bool m_showHeader;
    int m_fd = -1;
    size_t m_begin = 0;     // where each cycle begins, behind the begin record; 0: not known yet
    size_t m_next = 0;      // where the next record will stand
    std::string m_printed;  // the last bytes in front of m_next, as they were printed
};

std::string Ring::Read(size_t offset, size_t length) const {
    const auto size = static_cast<size_t>(Status().st_size);
    if (offset >= size) return {};
    std::string text(std::min(length, size - offset), '\0');
    const ssize_t got = pread(m_fd, text.data(), text.size(), static_cast<off_t>(offset));
    text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

bool Ring::FindBegin() {
    const std::string text = Read(0, kAll);
    size_t found = text.find(kBegin);
    // The begin record stands at a multiple of 1024; the header could quote its text.
    while (found != kAll && (text.rfind('\n', found) + 1) % 1024 != 0) {
        found = text.find(kBegin, found + 1);
    }
    if (found == kAll) return false;
    const size_t line = text.rfind('\n', found) + 1;
    m_begin = m_next = found + kBegin.size();
    m_printed = Read(line, m_begin - line);
    if (m_showHeader) (void)fwrite(text.data(), 1, text.find(kTrailer) + 1, stdout);
    return true;
}

// The records since the last call, or nothing when some of them were overwritten in the meantime.
std::optional<std::string> Ring::ReadNew() {
    const std::string known =
        Read(m_next - m_printed.size(), m_printed.size() + kTrailer.size() - 1);
    if (known == m_printed + std::string(kTrailer.substr(1))) return "";
    if (!known.starts_with(m_printed)) return std::nullopt;

    // The header is written again for each cycle, so its time stamp tells one from the next.
    const std::string cycle = Read(0, 24);
    // From the begin record on there is one trailer, or none while a record is being written.
    const size_t trailer = Read(m_begin - 1, kAll).find(kTrailer);
    if (trailer == kAll) return "";
    const size_t end = m_begin + trailer;
    std::string text;
    if (end >= m_next) {
        text = Read(m_next, end - m_next);
    } else {  // the old cycle ends with dots
        text = Read(m_next, kAll);
        text.erase(text.find_last_not_of('.') + 1);
        text += Read(m_begin, end - m_begin);
    }

    // Had the daemon come round again while the text was read, one of these would have changed.
    if (Read(0, cycle.size()) != cycle) return "";
    if (Read(m_next - m_printed.size(), m_printed.size()) != m_printed) return std::nullopt;
    m_next = end;
    return text;
}

void Ring::PrintNew() {
    if (m_begin == 0 && !FindBegin()) return;
    const std::optional<std::string> text = ReadNew();
    if (!text) {
        fprintf(stderr, "ring_tail: %s was overwritten, records are missing here\n",
                m_path.c_str());
        m_begin = 0;
        return;
    }
    if (text->empty()) return;
    (void)fwrite(text->data(), 1, text->size(), stdout);
    fflush(stdout);
    m_printed =
        text->substr(text->size() - std::min({text->size(), m_next - m_begin, size_t{512}}));
}

// Both files of a daemon: the start-up ring is read to its end before the run-time ring.
class Follower {
  public:
    Follower(const std::string& directory, bool showHeader)
        : m_startUp(directory + "/log.kemd_i", showHeader),
          m_runTime(directory + "/log.kemd_a", showHeader) {}

    void Look() {
        if (!m_started) {
            // Asked before reading: once the name is gone, nothing more is written to the file.
            const bool complete = m_startUp.Open() ? m_startUp.Unlinked() : m_runTime.Open();
            m_startUp.PrintNew();
            m_started = complete || m_startUp.Ended();
        }
        if (!m_started || !m_runTime.Open()) return;
        // A file that an earlier daemon left; this one will write it anew.
        if (m_runTime.OlderThan(m_startUp)) return m_runTime.Close();
        m_runTime.PrintNew();
    }

  private:
    Ring m_startUp;
    Ring m_runTime;
    bool m_started = false;
};

// The signals that end the program. One that the caller ignores stays ignored, so that a script
// can keep the terminal's interrupt from its background jobs.
sigset_t BlockEndSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM}) {
        struct sigaction action = {};
        sigaction(number, nullptr, &action);
        if (action.sa_handler != SIG_IGN) sigaddset(&set, number);
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return set;
}

}  // namespace

int main(int argc, char** argv) {
    bool showHeader = false;
    std::optional<long> seconds;
    const option options[] = {
        {"header", no_argument, nullptr, 'h'}, {"seconds", required_argument, nullptr, 's'}, {}};
    bool usable = true;
    for (int c = 0; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        if (c == 'h') showHeader = true;
        if (c == 's') seconds = strtol(optarg, nullptr, 10);
        if (c == '?') usable = false;
    }
    if (!usable || optind + 1 != argc) {
        fprintf(stderr, "usage: %s [--header] [--seconds N] DIRECTORY\n", argv[0]);
        return 2;
    }

    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const sigset_t endSignals = BlockEndSignals();
    const timespec pause = {0, 100'000'000};
    Follower follower(argv[optind], showHeader);
    bool more = true;
    while (more) {
        more = sigtimedwait(&endSignals, nullptr, &pause) < 0 &&
               !(seconds && Clock::now() - start >= std::chrono::seconds(*seconds));
        follower.Look();
    }
    return 0;
}
