// The module network: reports links that are lost and come back, changes of speed, duplex and
// addresses, and flapping; and what is different since the last run of the daemon.
#include "kemd/module.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <sstream>
#include <system_error>
#include <thread>

#include "kemd/config.h"
#include "kemd/services.h"
#include "kemd/trace.h"
#include "modules/module_calls.h"
#include "modules/network/links.h"

namespace {

// What containers and virtual machines come and go with.
constexpr const char* kDefaultInterfaces = "* !veth* !tap* !tun* !vnet* !cali*";
// Changes are kept together, as a change seldom comes alone.
constexpr auto kSaveDelay = std::chrono::seconds(10);

using Clock = Links::Clock;

class NetworkModule {
  public:
    static constexpr const char* kTag = "network";

    NetworkModule() = default;
    NetworkModule(const NetworkModule&) = delete;
    NetworkModule& operator=(const NetworkModule&) = delete;
    // A process may exit without a stop.
    ~NetworkModule() { EndThread(); }

    int Configure(const KemdConfig* config);
    int Start();
    void Stop();
    int Health(char* text, size_t size);
    int Request(const std::string& text, KemdReply* reply);

  private:
    static void OnChange(void* user, const KemdNetworkChange* change);
    void Run();
    void EndThread();
    // What is due by now; how long to wait then, in milliseconds.
    uint32_t Tick();

    NetworkWatchHandle m_watch;
    std::thread m_thread;
    // The following are under the mutex: the thread and the daemon's calls use them.
    std::mutex m_mutex;
    Links m_links;
    KeptState m_kept;
    std::optional<Clock::time_point> m_saveAt;
    int m_error = 0;  // why nothing is watched any more
};

std::vector<std::string> Words(const char* text) {
    std::istringstream words(text);
    std::vector<std::string> list;
    for (std::string word; words >> word;) list.push_back(word);
    return list;
}

int NetworkModule::Configure(const KemdConfig* config) {
    LinkSettings settings;
    char interfaces[1024];
    char expected[1024];
    const int errors[] = {
        KemdConfigText(config, "Interfaces", kDefaultInterfaces, interfaces, sizeof interfaces),
        KemdConfigText(config, "Expected", "", expected, sizeof expected),
        KemdConfigNumber(config, "FlapChanges", 6, 2, 100000, &settings.flapChanges),
        KemdConfigTime(config, "FlapTime", 60000, 100, 86400000, &settings.flapMs)};
    for (const int error : errors) {
        if (error != 0) return error;
    }
    settings.interfaces = Words(interfaces);
    settings.expected = Words(expected);
    const std::lock_guard lock(m_mutex);
    m_links.Configure(std::move(settings));
    return 0;
}

int NetworkModule::Start() {
    KemdNetworkWatch* watch = nullptr;
    const uint32_t parts = KEMD_NETWORK_ADDRESSES | KEMD_NETWORK_HARDWARE;
    int error = KemdNetworkWatchOpen(&watch, KEMD_NETWORK_HERE, parts, OnChange, this);
    m_watch.reset(watch);
    KemdNetworkSnapshot* snapshot = nullptr;
    if (error == 0) error = KemdNetworkWatchSnapshot(watch, &snapshot);
    if (error != 0) {
        KemdMessage(kTag, "cannot watch the network interfaces: %s", std::strerror(error));
        m_watch.reset();
        return error;
    }
    const NetworkView view(snapshot);
    {
        const std::lock_guard lock(m_mutex);
        KeptTexts kept;
        m_error = 0;
        const bool hasKept = m_kept.Load(kept);
        m_links.Begin(view, hasKept ? &kept : nullptr, Clock::now());
        m_kept.Save(m_links.Texts());
        m_saveAt.reset();
    }
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (const std::system_error& failure) {
        m_watch.reset();
        return failure.code().value();
    }
    return 0;
}

void NetworkModule::EndThread() {
    if (!m_thread.joinable()) return;
    (void)KemdNetworkWatchStop(m_watch.get());
    m_thread.join();
    m_watch.reset();
}

void NetworkModule::Stop() {
    EndThread();
    const std::lock_guard lock(m_mutex);
    m_kept.Save(m_links.Texts());
}

void NetworkModule::OnChange(void* user, const KemdNetworkChange* change) try {
    auto& module = *static_cast<NetworkModule*>(user);
    const std::lock_guard lock(module.m_mutex);
    const Clock::time_point now = Clock::now();
    module.m_links.OnChange(*change, now);
    if (!module.m_saveAt) module.m_saveAt = now + kSaveDelay;
} catch (const std::bad_alloc&) {
    KemdMessage(kTag, "there is not enough memory: a change of an interface is not reported");
}

uint32_t NetworkModule::Tick() {
    const std::lock_guard lock(m_mutex);
    const Clock::time_point now = Clock::now();
    std::optional<Clock::time_point> next = m_links.Tick(now);
    if (m_saveAt && *m_saveAt <= now) {
        m_saveAt.reset();
        m_kept.Save(m_links.Texts());
    }
    if (m_saveAt) next = next ? std::min(*next, *m_saveAt) : *m_saveAt;
    if (!next) return KEMD_WAIT_FOREVER;
    // Rounded up, so that it is due after the wait.
    return static_cast<uint32_t>(std::chrono::ceil<std::chrono::milliseconds>(*next - now).count());
}

void NetworkModule::Run() {
    int error = 0;
    while (error == 0 || error == ETIMEDOUT) {
        try {
            error = KemdNetworkWatchWait(m_watch.get(), Tick());
        } catch (const std::bad_alloc&) {
            error = ENOMEM;
        }
    }
    if (error == ECANCELED) return;
    KemdMessage(kTag, "cannot watch the network interfaces any more: %s; restart this module",
                std::strerror(error));
    const std::lock_guard lock(m_mutex);
    m_error = error;
}

int NetworkModule::Health(char* text, size_t size) {
    const std::lock_guard lock(m_mutex);
    if (m_error != 0) {
        std::snprintf(text, size, "the interfaces are not watched: %s", std::strerror(m_error));
        return KEMD_HEALTH_FAILED;
    }
    const std::string problems = m_links.Problems();
    std::snprintf(text, size, "%s", problems.c_str());
    return problems.empty() ? KEMD_HEALTH_OK : KEMD_HEALTH_WARNING;
}

int NetworkModule::Request(const std::string& text, KemdReply* reply) {
    constexpr std::string_view kForget = "forget ";
    const std::lock_guard lock(m_mutex);
    if (text.starts_with(kForget)) {
        if (!m_links.Forget(text.substr(kForget.size()))) return ENOENT;
        m_kept.Save(m_links.Texts());
        return 0;
    }
    if (text != "list") return EINVAL;
    const std::string list = m_links.List(Clock::now());
    return reply->write(reply, list.data(), list.size());
}

using Calls = ModuleCalls<NetworkModule>;
NetworkModule g_module;

}  // namespace

KEMD_MODULE_V2 = {KEMD_MODULE_V2_HEAD,
                  "network",
                  "1.0",
                  "Links of the network interfaces",
                  nullptr,
                  &g_module,
                  Calls::Configure,
                  Calls::Start,
                  Calls::Stop,
                  nullptr,
                  Calls::Health,
                  Calls::Request};
