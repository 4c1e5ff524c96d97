// The module performance: samples the host and the series of other modules into a history that
// survives crashes, and reports what is beyond its limits.
#include "kemd/module.h"

#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "kemd/config.h"
#include "modules/module_calls.h"
#include "modules/performance/alarms.h"
#include "modules/performance/monitor.h"
#include "modules/performance/settings.h"
#include "performance/history_reader.h"

namespace {

constexpr int64_t kPatience = 10'000'000'000;  // ns

class PerformanceModule {
  public:
    static constexpr const char* kTag = "performance";

    int Configure(const KemdConfig* config);
    int Start();
    void Stop();
    int Health(char* text, size_t size);
    int Request(const std::string& text, KemdReply* reply);

  private:
    [[nodiscard]] std::string Status();

    PerformanceSettings m_settings;
    bool m_isStarted = false;
    Monitor m_monitor;
};

int PerformanceModule::Configure(const KemdConfig* config) {
    PerformanceSettings settings;
    if (const int error = ReadSettings(config, settings)) return error;
    m_settings = settings;
    if (m_isStarted) m_monitor.Apply(settings);
    return 0;
}

int PerformanceModule::Start() {
    m_isStarted = m_monitor.Start(m_settings);
    return m_isStarted ? 0 : EAGAIN;
}

void PerformanceModule::Stop() {
    m_isStarted = false;
    m_monitor.Stop();
}

int PerformanceModule::Health(char* text, size_t size) {
    const MonitorState state = m_monitor.State();
    if (!state.error.empty()) {
        std::snprintf(text, size, "no sample is written: %s", state.error.c_str());
        return KEMD_HEALTH_FAILED;
    }
    if (state.syncError != 0) {
        std::snprintf(text, size, "%s does not reach the disk: %s", kHistoryFile,
                      std::strerror(state.syncError));
        return KEMD_HEALTH_FAILED;
    }
    const int64_t age = SampleTime::Now().monotonic - state.at;
    if (age > 3 * state.periodMs * 1'000'000 + kPatience) {
        std::snprintf(text, size, "the last sample is %lld s old: something does not answer",
                      static_cast<long long>(age / 1'000'000'000));
        return KEMD_HEALTH_FAILED;
    }
    std::snprintf(text, size, "%s", state.alarms.c_str());
    return state.alarms.empty() ? KEMD_HEALTH_OK : KEMD_HEALTH_WARNING;
}

std::string PerformanceModule::Status() {
    const MonitorState state = m_monitor.State();
    char head[256];
    std::snprintf(
        head, sizeof head,
        "%llu samples, one every %g s; %llu missed\n%zu series with values; %zu of modules\n",
        static_cast<unsigned long long>(state.samples), static_cast<double>(state.periodMs) / 1000,
        static_cast<unsigned long long>(state.gaps), state.series, state.ofModules);
    std::string text = head;
    std::string error;
    struct stat file {};
    const auto history = HistoryReader::Open(kHistoryFile, error);
    if (history != nullptr && stat(kHistoryFile, &file) == 0) {
        const HistorySpan range = history->Range();
        text += std::string(kHistoryFile) + ": " + std::to_string(file.st_size >> 20) + " MiB";
        if (range.to > range.from)
            text += ", " + WallText(range.from) + " to " + WallText(range.to);
        text += "\n";
    } else {
        text += error + "\n";
    }
    if (!state.alarms.empty()) text += "alarms: " + state.alarms + "\n";
    return text + state.notes;
}

int PerformanceModule::Request(const std::string& text, KemdReply* reply) {
    if (text == "sync") return m_monitor.Sync();
    if (text != "status") return EINVAL;
    const std::string status = Status();
    return reply->write(reply, status.data(), status.size());
}

using Calls = ModuleCalls<PerformanceModule>;
PerformanceModule g_module;

}  // namespace

KEMD_MODULE_V2 = {KEMD_MODULE_V2_HEAD,
                  "performance",
                  "1.0",
                  "History of the host's load, second by second",
                  nullptr,
                  &g_module,
                  Calls::Configure,
                  Calls::Start,
                  Calls::Stop,
                  nullptr,
                  Calls::Health,
                  Calls::Request};
