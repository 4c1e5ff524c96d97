// What is known of each module, for whoever asks while modules are being called: state, since when,
// why, and which call is running. Written by the threads that call modules, read by the control
// thread; nothing here waits for a module.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/module_object.h"
#include "base/unique_fd.h"
#include "services/module_settings.h"
#include "switch_library/live_threads.h"

inline constexpr const char* kTag = "switch";  // of all that this library traces

enum class ModuleState {
    kNotLoaded,
    kDisabled,
    kStarting,
    kRunning,
    kFailed,
    kRestarting,
    kStopping,
    kStopped,
};

struct ModuleInfo {
    std::string file;
    ModuleState state = ModuleState::kNotLoaded;
    time_t since = 0;
    std::string reason;  // of the state; may be empty
    std::string version;
    std::string description;
    std::vector<std::string> startAfter;
    int64_t startTimeoutMs = 0;
    int64_t stopTimeoutMs = 0;
    pid_t process = 0;  // its own; 0: it is in the daemon's
    bool hasHealth = false;
    int health = -1;  // KEMD_HEALTH_*; -1: not asked yet
    std::string healthText;
    ThreadIds threads;  // that came up in its start; some may have ended
};

class ModuleBoard {
  public:
    using Clock = std::chrono::steady_clock;

    // A module's call that is running.
    struct Call {
        std::array<char, 256> file{};  // empty: there is none
        const char* name = "";
        Clock::time_point begin;
        std::chrono::milliseconds timeout{};
        bool isOverdue = false;

        [[nodiscard]] bool IsRunning() const { return file[0] != '\0'; }
        [[nodiscard]] double Seconds() const;
    };

    // A module that is there from now on; throws std::bad_alloc.
    void Add(const std::string& file, const ModuleSettings& settings);
    // These need no memory but for texts and lists, which are dropped when there is none.
    void Describe(const std::string& file, const ModuleObject& object) noexcept;
    void Set(const std::string& file, ModuleState state, std::string_view reason = {}) noexcept;
    // Only if its state is still `from`: the end of its process may have changed it meanwhile.
    void Change(const std::string& file, ModuleState from, ModuleState to,
                std::string_view reason = {}) noexcept;
    void SetProcess(const std::string& file, pid_t process) noexcept;
    void SetHealth(const std::string& file, int health, std::string_view text) noexcept;
    void SetThreads(const std::string& file, const ThreadIds& threads) noexcept;
    void Clear();

    // Around each call. The time-out is that of the module for this call.
    void BeginCall(const std::string& file, const char* name) noexcept;
    void EndCall() noexcept;
    // Its end is not reported: it was ended.
    void ForgetOverdue() noexcept;

    // A descriptor that becomes readable when a call exceeds its time-out, for as long as it is
    // open: -1 before OpenWatch and after CloseWatch.
    [[nodiscard]] bool OpenWatch();
    void CloseWatch();
    [[nodiscard]] int Watch() const { return m_watch.Get(); }
    // To be called when it is: names the call in the trace, once.
    void NameOverdueCall();

    [[nodiscard]] bool Has(const std::string& file);
    // Of the state of one; empty when it has none.
    [[nodiscard]] std::string Reason(const std::string& file);
    // Sorted by name, and the call that is running.
    [[nodiscard]] std::vector<ModuleInfo> Modules() const;
    [[nodiscard]] Call RunningCall() const;

  private:
    [[nodiscard]] ModuleInfo* Find(std::string_view file);
    void SetTimer(std::chrono::milliseconds delay) const;

    mutable std::mutex m_lock;
    std::vector<ModuleInfo> m_modules;
    Call m_call;
    UniqueFd m_watch;
};

// The one of this library.
ModuleBoard& TheModuleBoard();

// "not loaded", "running" ...
const char* StateName(ModuleState state);
