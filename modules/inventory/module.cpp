// The module inventory: keeps the inventory of the host, and reports what changed since the last
// run and what comes, goes and changes.
#include "kemd/module.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <sstream>
#include <system_error>
#include <thread>

#include "kemd/config.h"
#include "kemd/trace.h"
#include "modules/inventory/keeper.h"
#include "modules/module_calls.h"

namespace {

constexpr const char* kDefaultSections = "system memory slots pci usb drives network volumes";
constexpr uint32_t kWatched =
    KEMD_INVENTORY_PCI | KEMD_INVENTORY_USB | KEMD_INVENTORY_DRIVES | KEMD_INVENTORY_VOLUMES;
constexpr int64_t kDay = 86'400'000;
constexpr int kMostDelays = 10;

// Of <linux/ioprio.h>, which is no C++.
constexpr int kIoClassShift = 13;
constexpr int kIoIdle = 3;
constexpr int kIoNone = 0;
constexpr int kIoOfThread = 1;

using Clock = std::chrono::steady_clock;

constexpr struct {
    const char* name;
    uint32_t section;
} kSections[] = {{"system", KEMD_INVENTORY_SYSTEM},   {"memory", KEMD_INVENTORY_MEMORY},
                 {"slots", KEMD_INVENTORY_SLOTS},     {"pci", KEMD_INVENTORY_PCI},
                 {"usb", KEMD_INVENTORY_USB},         {"drives", KEMD_INVENTORY_DRIVES},
                 {"network", KEMD_INVENTORY_NETWORK}, {"volumes", KEMD_INVENTORY_VOLUMES}};

// False, after a message, when a word is no section.
bool ReadSections(const char* text, uint32_t& sections) {
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        uint32_t section = 0;
        for (const auto& each : kSections) section |= word == each.name ? each.section : 0;
        if (section == 0) {
            KemdMessage("inventory", "Sections: there is no section %s; known are: %s",
                        word.c_str(), kDefaultSections);
            return false;
        }
        sections |= section;
    }
    return true;
}

std::vector<std::string> Patterns(const char* text) {
    std::vector<std::string> patterns;
    std::istringstream parts(text);
    for (std::string part; std::getline(parts >> std::ws, part, '|');) {
        part.erase(part.find_last_not_of(" \t") + 1);
        if (!part.empty()) patterns.push_back(part);
    }
    return patterns;
}

// A scan reads much and nobody waits for it. What is refused stays as it was.
void SetPriority(pid_t thread, bool isLow) {
    const struct sched_param none {};
    (void)sched_setscheduler(thread, isLow ? SCHED_IDLE : SCHED_OTHER, &none);
    (void)setpriority(PRIO_PROCESS, static_cast<id_t>(thread), isLow ? 19 : 0);
    const int io = (isLow ? kIoIdle : kIoNone) << kIoClassShift;
    (void)syscall(SYS_ioprio_set, kIoOfThread, thread, io);
}

class InventoryModule {
  public:
    static constexpr const char* kTag = "inventory";

    InventoryModule() = default;
    InventoryModule(const InventoryModule&) = delete;
    InventoryModule& operator=(const InventoryModule&) = delete;
    // A process may exit without a stop.
    ~InventoryModule() { Stop(); }

    int Configure(const KemdConfig* config);
    int Start();
    void Stop();
    int Health(char* text, size_t size);
    int Request(const std::string& text, KemdReply* reply);

  private:
    static void OnChange(void* user, const KemdInventoryChange* change);
    void Run();
    void OpenWatch();
    // Until something is due; false when the thread is to end. `isQuiet`: the watch traced it.
    bool Wait(bool& isQuiet, bool& asksAll);
    [[nodiscard]] std::optional<Clock::time_point> NextFullScan() const;
    [[nodiscard]] std::optional<Clock::time_point> NextScan() const;

    InventoryKeeper m_keeper;
    std::unique_ptr<KemdInventoryWatch, InventoryCloser> m_watch;  // the thread's
    std::thread m_thread;
    // The following are under the mutex.
    std::mutex m_mutex;
    std::condition_variable m_wake;
    InventorySettings m_settings;
    bool m_isStopping = false;
    bool m_isAsked = false;                          // for a scan
    std::optional<Clock::time_point> m_lastFull;     // scan that asked all drives
    std::optional<Clock::time_point> m_firstChange;  // since the scan, as the watch saw it
    std::optional<Clock::time_point> m_changed;      // the last one
    Clock::time_point m_started;
    pid_t m_threadId = 0;
    int m_watchError = 0;
};

int InventoryModule::Configure(const KemdConfig* config) {
    InventorySettings settings;
    char sections[256];
    char accepted[4096];
    int withHealth = 1;
    const int errors[] = {
        KemdConfigTime(config, "Delay", 10000, 0, kDay, &settings.delayMs),
        KemdConfigTime(config, "Period", kDay, 0, 365 * kDay, &settings.periodMs),
        KemdConfigBool(config, "Health", 1, &withHealth),
        KemdConfigText(config, "Sections", kDefaultSections, sections, sizeof sections),
        KemdConfigText(config, "Accepted", "", accepted, sizeof accepted)};
    for (const int error : errors) {
        if (error != 0) return error;
    }
    if (!ReadSections(sections, settings.sections)) return EINVAL;
    if (withHealth != 0) settings.sections |= KEMD_INVENTORY_HEALTH;
    settings.accepted = Patterns(accepted);
    m_keeper.Configure(settings);
    const std::lock_guard lock(m_mutex);
    m_settings = std::move(settings);
    m_wake.notify_all();
    return 0;
}

int InventoryModule::Start() {
    m_isStopping = false;
    m_isAsked = false;
    m_lastFull.reset();
    m_firstChange.reset();
    m_changed.reset();
    m_started = Clock::now();
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (const std::system_error& failure) {
        return failure.code().value();
    }
    return 0;
}

void InventoryModule::Stop() {
    if (!m_thread.joinable()) return;
    {
        const std::lock_guard lock(m_mutex);
        m_isStopping = true;
        // A scan that runs is waited for: on a busy host it must not wait for an idle processor.
        if (m_threadId != 0) SetPriority(m_threadId, false);
    }
    m_wake.notify_all();
    m_thread.join();
}

void InventoryModule::OnChange(void* user, const KemdInventoryChange* change) try {
    auto& module = *static_cast<InventoryModule*>(user);
    module.m_keeper.Trace(*change);
    const std::lock_guard lock(module.m_mutex);
    module.m_changed = Clock::now();
    if (!module.m_firstChange) module.m_firstChange = module.m_changed;
    module.m_wake.notify_all();
} catch (const std::bad_alloc&) {
    KemdMessage(kTag, "there is not enough memory: a change is not reported");
}

// Changes do not put it off.
std::optional<Clock::time_point> InventoryModule::NextFullScan() const {
    if (m_isAsked) return Clock::time_point::min();
    if (!m_lastFull) return m_started + std::chrono::milliseconds(m_settings.delayMs);
    if (m_settings.periodMs == 0) return std::nullopt;
    return *m_lastFull + std::chrono::milliseconds(m_settings.periodMs);
}

std::optional<Clock::time_point> InventoryModule::NextScan() const {
    const std::chrono::milliseconds delay(m_settings.delayMs);
    const std::optional<Clock::time_point> full = NextFullScan();
    if (!m_lastFull || !m_changed) return full;
    // Changes seldom come alone, and those that never end are not waited for.
    const auto next = std::min(*m_changed + delay, *m_firstChange + kMostDelays * delay);
    return full ? std::min(*full, next) : next;
}

bool InventoryModule::Wait(bool& isQuiet, bool& asksAll) {
    std::unique_lock lock(m_mutex);
    for (;;) {
        if (m_isStopping) return false;
        const auto next = NextScan();
        if (next && *next <= Clock::now()) break;
        if (next) {
            m_wake.wait_until(lock, *next);
        } else {
            m_wake.wait(lock);
        }
    }
    const Clock::time_point now = Clock::now();
    const std::optional<Clock::time_point> full = NextFullScan();
    isQuiet = m_changed && !m_isAsked;
    asksAll = full && *full <= now;
    if (asksAll) m_lastFull = now;
    m_isAsked = false;
    m_firstChange.reset();
    m_changed.reset();
    return true;
}

void InventoryModule::OpenWatch() {
    uint32_t sections = 0;
    {
        const std::lock_guard lock(m_mutex);
        sections = m_settings.sections & kWatched;
    }
    if (sections == 0) return;
    KemdInventoryWatch* watch = nullptr;
    const int error = KemdInventoryWatchOpen(&watch, sections, OnChange, this);
    m_watch.reset(watch);
    if (error != 0) {
        KemdMessage(kTag, "cannot watch for changes: %s; they are found by the next scan",
                    std::strerror(error));
    }
    const std::lock_guard lock(m_mutex);
    m_watchError = error;
}

void InventoryModule::Run() {
    {
        const std::lock_guard lock(m_mutex);
        m_threadId = static_cast<pid_t>(syscall(SYS_gettid));
        if (!m_isStopping) SetPriority(m_threadId, true);
    }
    pthread_setname_np(pthread_self(), "inventory");
    bool isQuiet = false;
    bool asksAll = false;
    while (Wait(isQuiet, asksAll)) {
        try {
            if (m_watch == nullptr) OpenWatch();
            m_keeper.Take(isQuiet, asksAll);
        } catch (const std::bad_alloc&) {
            KemdMessage(kTag, "there is not enough memory for an inventory");
        }
    }
    m_watch.reset();
    const std::lock_guard lock(m_mutex);
    m_threadId = 0;
}

int InventoryModule::Health(char* text, size_t size) {
    if (const int error = m_keeper.Error(); error != 0) {
        std::snprintf(text, size, "the inventory is not kept: %s", std::strerror(error));
        return KEMD_HEALTH_FAILED;
    }
    std::string problems = m_keeper.Problems();
    const std::lock_guard lock(m_mutex);
    if (m_watchError != 0) {
        problems = std::string("changes are not watched: ") + std::strerror(m_watchError) +
                   (problems.empty() ? "" : "; ") + problems;
    }
    std::snprintf(text, size, "%s", problems.c_str());
    return problems.empty() ? KEMD_HEALTH_OK : KEMD_HEALTH_WARNING;
}

int InventoryModule::Request(const std::string& text, KemdReply* reply) {
    if (text == "scan") {
        const std::lock_guard lock(m_mutex);
        m_isAsked = true;
        m_wake.notify_all();
        return 0;
    }
    if (text != "status") return EINVAL;
    const std::string status = m_keeper.Status();
    return reply->write(reply, status.data(), status.size());
}

using Calls = ModuleCalls<InventoryModule>;
InventoryModule g_module;

}  // namespace

KEMD_MODULE_V2 = {KEMD_MODULE_V2_HEAD,
                  "inventory",
                  "1.0",
                  "Hardware and volumes of the host, and what changes about them",
                  nullptr,
                  &g_module,
                  Calls::Configure,
                  Calls::Start,
                  Calls::Stop,
                  nullptr,
                  Calls::Health,
                  Calls::Request};
