// The thread that watches the host.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <system_error>
#include <thread>

#include "base/answer.h"
#include "base/unique_fd.h"
#include "inventory/mount_table.h"
#include "inventory/uevent_socket.h"
#include "inventory/watched_state.h"

struct KemdInventoryWatch {
  public:
    KemdInventoryWatch(uint32_t sections, KemdInventoryOnChange onChange, void* user)
        : m_sections(sections), m_onChange(onChange), m_user(user) {}
    ~KemdInventoryWatch();
    KemdInventoryWatch(const KemdInventoryWatch&) = delete;
    KemdInventoryWatch& operator=(const KemdInventoryWatch&) = delete;

    // An errno number.
    [[nodiscard]] int Open();

  private:
    enum Place { kStop, kUevents, kUdev, kMounts, kSwaps, kArrays, kPlaces };
    using Clock = std::chrono::steady_clock;

    [[nodiscard]] int StartThread();
    void Work();
    // False when it is to end.
    [[nodiscard]] bool Wait();
    void TakeEvents();
    void TakeUevents();
    // Whether it is watched from now on.
    [[nodiscard]] bool WatchUdev();
    void TakeUdevRecords();
    void Concern(uint32_t sections);
    [[nodiscard]] bool IsSettled() const;
    void Update();
    void OpenArrays() { OpenTable(kArrays, "/proc/mdstat"); }
    void OpenTable(Place place, const char* path);

    uint32_t m_sections;
    KemdInventoryOnChange m_onChange;
    void* m_user;
    UniqueFd m_stop;
    UeventSocket m_uevents;
    UniqueFd m_udev;
    std::array<UniqueFd, kPlaces> m_tables;
    std::array<pollfd, kPlaces> m_poll{};
    std::unique_ptr<WatchedState> m_state;
    std::atomic<bool> m_isStopping = false;
    std::thread m_thread;

    // What is to be looked at.
    uint32_t m_concerned = 0;
    bool m_hasLost = false;
    bool m_watchesUdev = false;
    bool m_isQuiet = false;
    Clock::time_point m_since;
    std::vector<Uevent> m_events;
};

namespace {

constexpr size_t kMostEvents = 4096;
constexpr int kQuietMs = 50;
constexpr std::chrono::milliseconds kMostWait{500};

// The file of a device in udev's database: "b8:1", "+pci:0000:00:1f.2", "c189:3".
uint32_t SectionsOfRecord(std::string_view name) {
    if (name.starts_with('b')) return KEMD_INVENTORY_DRIVES | KEMD_INVENTORY_VOLUMES;
    if (name.starts_with("+pci:")) return KEMD_INVENTORY_PCI;
    if (name.starts_with("c189:")) return KEMD_INVENTORY_USB;
    return 0;
}

}  // namespace

KemdInventoryWatch::~KemdInventoryWatch() {
    m_isStopping = true;
    const uint64_t one = 1;
    if (m_stop.IsOpen()) (void)!write(m_stop.Get(), &one, sizeof one);
    if (m_thread.joinable()) m_thread.join();
}

void KemdInventoryWatch::OpenTable(Place place, const char* path) {
    m_tables[place].Reset(KeepHigh(open(path, O_RDONLY | O_CLOEXEC)));
    m_poll[place] = {m_tables[place].Get(), POLLPRI, 0};  // -1 is not looked at
}

int KemdInventoryWatch::Open() {
    const int error = m_uevents.Open();
    if (error != 0) return error;
    m_stop.Reset(KeepHigh(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
    if (!m_stop.IsOpen()) return errno;
    // udev writes what it found out after the kernel's event. It may be missing.
    m_udev.Reset(KeepHigh(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)));
    (void)WatchUdev();
    m_poll[kStop] = {m_stop.Get(), POLLIN, 0};
    m_poll[kUevents] = {m_uevents.Descriptor(), POLLIN, 0};
    m_poll[kUdev] = {m_udev.Get(), POLLIN, 0};
    OpenTable(kMounts, (HostMountsProcess() + "/mountinfo").c_str());
    OpenTable(kSwaps, "/proc/swaps");
    OpenArrays();
    m_state = std::make_unique<WatchedState>(m_sections, [this](const ItemDifference& difference) {
        if (!m_isStopping) DeliverChange(difference, m_onChange, m_user);
    });
    return StartThread();
}

int KemdInventoryWatch::StartThread() {
    // Signals are for the program's own threads.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int error = 0;
    try {
        m_thread = std::thread([this] { Work(); });
    } catch (const std::system_error& failure) {
        error = failure.code().value();
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

void KemdInventoryWatch::Work() {
    pthread_setname_np(pthread_self(), "inventory-watch");
    while (Wait()) {
        try {
            TakeEvents();
            if (IsSettled()) Update();
        } catch (const std::bad_alloc&) {
            m_hasLost = true;  // tried again after the next quiet moment
            m_events.clear();
            Concern(m_sections);
        }
    }
}

bool KemdInventoryWatch::Wait() {
    for (;;) {
        const int count = poll(m_poll.data(), m_poll.size(), m_concerned == 0 ? -1 : kQuietMs);
        if (count < 0 && errno == EINTR) continue;
        m_isQuiet = count == 0;
        return count >= 0 && m_poll[kStop].revents == 0;
    }
}

void KemdInventoryWatch::Concern(uint32_t sections) {
    sections &= m_sections;
    if (sections != 0 && m_concerned == 0) m_since = Clock::now();
    m_concerned |= sections;
}

bool KemdInventoryWatch::IsSettled() const {
    return m_concerned != 0 &&
           (m_isQuiet || m_events.size() >= kMostEvents || Clock::now() - m_since >= kMostWait);
}

void KemdInventoryWatch::TakeEvents() {
    if (m_poll[kUevents].revents != 0) {
        if (WatchUdev()) Concern(m_sections);
        TakeUevents();
    }
    if (m_poll[kUdev].revents != 0) TakeUdevRecords();
    const bool hasVolumes =
        m_poll[kMounts].revents != 0 || m_poll[kSwaps].revents != 0 || m_poll[kArrays].revents != 0;
    if (hasVolumes) Concern(KEMD_INVENTORY_VOLUMES);
    // The kernel reports a change of the arrays until the file is opened again. The module may have
    // been loaded by now.
    if (m_poll[kArrays].revents != 0 || m_poll[kArrays].fd < 0) OpenArrays();
}

void KemdInventoryWatch::TakeUevents() {
    while (m_events.size() < kMostEvents) {
        std::optional<Uevent> event;
        const int error = m_uevents.Receive(event);
        if (error == EAGAIN) return;
        if (error == ENOBUFS) {
            m_hasLost = true;
            Concern(m_sections);
            continue;
        }
        if (error != 0) return;
        const uint32_t sections = event ? WatchedState::SectionsOf(*event) & m_sections : 0;
        Concern(sections);
        if (sections != 0) m_events.push_back(std::move(*event));
    }
}

// Early in the boot its directory is not there yet.
bool KemdInventoryWatch::WatchUdev() {
    if (m_watchesUdev || !m_udev.IsOpen()) return false;
    m_watchesUdev = inotify_add_watch(m_udev.Get(), "/run/udev/data", IN_MOVED_TO) >= 0;
    return m_watchesUdev;
}

void KemdInventoryWatch::TakeUdevRecords() {
    constexpr size_t kRoom = 4096;
    alignas(inotify_event) std::array<char, kRoom> buffer;  // NOLINT(*-member-init)
    for (;;) {
        const ssize_t length = read(m_udev.Get(), buffer.data(), buffer.size());
        if (length <= 0) return;
        for (ssize_t at = 0; at < length;) {
            const auto* const event = reinterpret_cast<const inotify_event*>(&buffer.at(at));
            at += static_cast<ssize_t>(sizeof *event + event->len);
            const bool isOverflow = (event->mask & IN_Q_OVERFLOW) != 0;
            Concern(isOverflow ? m_sections : SectionsOfRecord(event->len ? event->name : ""));
        }
    }
}

void KemdInventoryWatch::Update() {
    const uint32_t sections = std::exchange(m_concerned, 0);
    const std::vector<Uevent> events = std::exchange(m_events, {});
    m_state->Update(sections, events);
    if (std::exchange(m_hasLost, false)) m_state->Resynchronise();
}

int KemdInventoryWatchOpen(KemdInventoryWatch** watch, uint32_t sections,
                           KemdInventoryOnChange onChange, void* user) {
    if (watch == nullptr || onChange == nullptr) return EINVAL;
    *watch = nullptr;
    return Guarded([&] {
        auto opened = std::make_unique<KemdInventoryWatch>(sections, onChange, user);
        const int error = opened->Open();
        if (error == 0) *watch = opened.release();
        return error;
    });
}

void KemdInventoryWatchClose(KemdInventoryWatch* watch) {
    delete watch;
}
