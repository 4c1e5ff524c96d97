// The thread that makes the processes of isolated modules, takes their trace records, notices when
// one ends and says when it is to be started again. It sleeps while nothing happens, and is there
// once the first isolated module is loaded. See docs/control-interface.md.
#pragma once

#include <poll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/mapped_region.h"
#include "base/unique_fd.h"
#include "switch_library/isolated_process.h"
#include "switch_library/restart_plan.h"
#include "switch_library/wakeup.h"

class IsolatedModules {
  public:
    // Has the module started again, by another thread; false: it must be asked again later.
    using Revive = std::function<bool(const std::string& module)>;

    explicit IsolatedModules(Revive revive) : m_revive(std::move(revive)) {}
    ~IsolatedModules() { Stop(); }
    IsolatedModules(const IsolatedModules&) = delete;
    IsolatedModules& operator=(const IsolatedModules&) = delete;

    // A process for the module, which is the name of its file. It is reported when it ends without
    // being expected to, and then started again when `isRestarted`. Null, and why. Throws
    // std::bad_alloc.
    std::shared_ptr<IsolatedProcess> Spawn(const std::string& module, bool isRestarted,
                                           std::string& fault);
    // No start of it is due any more.
    void Forget(const std::string& module);
    // Kills the processes that are left and ends the thread.
    void Stop();
    // The thread's id; 0: there is none.
    [[nodiscard]] pid_t ThreadId() const { return m_threadId; }

  private:
    using Clock = RestartPlan::Clock;

    struct Order {
        const std::string& module;
        std::shared_ptr<IsolatedProcess> process;
        std::string fault;
        bool isDone = false;
    };
    struct Restart {
        bool isWanted = true;
        RestartPlan plan;
        std::optional<Clock::time_point> due;
    };

    std::string Start();
    void GiveUp();
    void Run();
    bool Serve();
    void Wait();
    void FillOrder();
    void TryLater(Order& order);
    void ReportEnd(IsolatedProcess& process);
    void ReviveDue();
    [[nodiscard]] int PollTimeout();

    const Revive m_revive;
    Wakeup m_wakeup;
    UniqueFd m_levelFile;
    MappedRegion m_level;
    std::thread m_thread;
    std::atomic<pid_t> m_threadId{0};
    std::atomic<bool> m_isEnding{false};
    std::vector<std::shared_ptr<IsolatedProcess>> m_processes;  // the thread's
    std::vector<pollfd> m_polled;                               // and this

    std::mutex m_lock;
    std::condition_variable m_done;
    Order* m_order = nullptr;
    bool m_isLost = false;  // the thread has given up
    std::map<std::string, Restart> m_restarts;
};
