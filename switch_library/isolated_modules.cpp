#include "switch_library/isolated_modules.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <new>

#include "kemd/trace.h"
#include "switch_library/module_board.h"
#include "switch_library/service_manager.h"

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr size_t kPageSize = 4096;
constexpr const char* kLost = "a module has closed descriptors of kemd: restart kemd";

}  // namespace

std::string IsolatedModules::Start() {
    if (m_thread.joinable()) return {};
    const bool hasWakeup = m_wakeup.Open();
    m_levelFile.Reset(KeepHigh(memfd_create("kemd-trace-level", MFD_CLOEXEC)));
    if (!hasWakeup || !m_levelFile.IsOpen() || ftruncate(m_levelFile.Get(), kPageSize) != 0 ||
        !m_level.MapShared(m_levelFile.Get(), kPageSize)) {
        return std::string("no descriptor for isolated modules: ") + std::strerror(errno);
    }
    // Others only read it.
    const std::string path = "/proc/self/fd/" + std::to_string(m_levelFile.Get());
    m_levelFile.Reset(KeepHigh(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
    if (!m_levelFile.IsOpen()) return path + ": " + std::strerror(errno);
    KemdTraceShareLevel(reinterpret_cast<uint32_t*>(m_level.Data()));
    m_isEnding = false;
    m_isLost = false;
    m_thread = std::thread([this] { Run(); });
    return {};
}

std::shared_ptr<IsolatedProcess> IsolatedModules::Spawn(const std::string& module, bool isRestarted,
                                                        std::string& fault) try {
    fault = Start();
    if (!fault.empty()) return nullptr;
    Order order{module, nullptr, {}, false};
    std::unique_lock lock(m_lock);
    if (m_isLost) {
        fault = kLost;
        return nullptr;
    }
    Restart& restart = m_restarts[module];
    restart.isWanted = isRestarted;
    restart.due.reset();  // that is now
    m_order = &order;
    m_wakeup.Wake();
    m_done.wait(lock, [&] { return order.isDone; });
    fault = std::move(order.fault);
    return std::move(order.process);
} catch (const std::system_error& error) {
    fault = std::string("no thread for isolated modules: ") + error.what();
    return nullptr;
}

void IsolatedModules::Forget(const std::string& module) {
    const std::lock_guard lock(m_lock);
    m_restarts.erase(module);
}

void IsolatedModules::Stop() {
    if (!m_thread.joinable()) return;
    m_isEnding = true;
    m_wakeup.Wake();
    m_thread.join();
    KemdTraceShareLevel(nullptr);
    m_level.Unmap();
    m_levelFile.Reset();
    m_wakeup.Close();
    m_restarts.clear();
}

void IsolatedModules::Run() {
    (void)pthread_setname_np(pthread_self(), "kemd-isolated");
    m_threadId = gettid();
    while (!m_isEnding && !m_isLost) {
        if (!Serve()) usleep(100'000);  // what is there is still there afterwards
    }
    m_processes.clear();
    m_threadId = 0;
}

// Nothing is known of the processes any more.
void IsolatedModules::GiveUp() {
    KemdMessage(kTag, "%s; until then no module runs in a process of its own", kLost);
    {
        const std::lock_guard lock(m_lock);
        m_isLost = true;
        m_restarts.clear();
        if (m_order != nullptr) {
            m_order->fault = kLost;
            std::exchange(m_order, nullptr)->isDone = true;
            m_done.notify_all();
        }
    }
    for (const auto& process : m_processes) {
        process->Kill("it cannot be reached any more");
        ReportEnd(*process);
    }
}

// What happens next; false without memory.
bool IsolatedModules::Serve() try {
    FillOrder();
    Wait();
    std::erase_if(m_processes, [](const auto& process) { return process->IsOver(); });
    ReviveDue();
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

void IsolatedModules::Wait() {
    m_polled.assign(1, m_wakeup.Polled());
    for (const auto& process : m_processes) {
        m_polled.push_back({process->Watch(), POLLIN, 0});
        m_polled.push_back({process->Trace(), POLLIN, 0});
    }
    if (poll(m_polled.data(), m_polled.size(), PollTimeout()) < 0) return;
    if (!m_wakeup.Take(m_polled[0].revents)) return GiveUp();
    for (size_t i = 1; i < m_polled.size(); i += 2) {
        if ((m_polled[i].revents & POLLNVAL) != 0) return GiveUp();
    }
    for (size_t i = 0; i < m_processes.size(); ++i) {
        if (m_polled[2 * i + 2].revents != 0) m_processes[i]->ForwardTrace();
        if (m_polled[2 * i + 1].revents != 0) ReportEnd(*m_processes[i]);
    }
}

void IsolatedModules::FillOrder() {
    const std::lock_guard lock(m_lock);
    if (m_order == nullptr) return;
    Order& order = *std::exchange(m_order, nullptr);
    try {
        m_processes.reserve(m_processes.size() + 1);
        order.process = IsolatedProcess::Spawn(order.module, m_levelFile.Get(), order.fault);
        if (order.process != nullptr) m_processes.push_back(order.process);
    } catch (const std::bad_alloc&) {
        order.fault = "not enough memory";
    }
    if (order.process == nullptr) TryLater(order);
    order.isDone = true;
    m_done.notify_all();
}

// What kept a module from coming back may be gone by then: memory, or a package's files.
void IsolatedModules::TryLater(Order& order) {
    Restart& restart = m_restarts[order.module];
    if (!restart.isWanted || !restart.plan.IsBegun()) return;
    const auto now = Clock::now();
    restart.due = restart.plan.Next(now);
    const auto delay = std::chrono::round<seconds>(*restart.due - now);
    order.fault += "; it is tried again in " + std::to_string(delay.count()) + " s";
}

void IsolatedModules::ReportEnd(IsolatedProcess& process) {
    const bool isReported = process.TakeEnd();
    const std::string end = process.EndText();
    const char* const module = process.Module().c_str();
    if (isReported) {
        std::array<char, 64> next = {"it is not started again"};
        const std::lock_guard lock(m_lock);
        const auto restart = m_restarts.find(process.Module());
        const bool isRestarted = restart != m_restarts.end() && restart->second.isWanted;
        if (isRestarted) {
            const auto now = Clock::now();
            restart->second.due = restart->second.plan.Next(now);
            const auto delay = std::chrono::round<seconds>(*restart->second.due - now);
            std::snprintf(next.data(), next.size(), "it is started again in %ld s",
                          static_cast<long>(delay.count()));
        }
        constexpr const char* kText = "module %s: %s; %s";
        KemdMessage(kTag, kText, module, end.c_str(), next.data());
        WriteToJournal(kText, module, end.c_str(), next.data());
        TheModuleBoard().Set(process.Module(),
                             isRestarted ? ModuleState::kRestarting : ModuleState::kFailed, end);
    }
    // In its stop or when it is unloaded, too.
    const std::string crash = process.CrashText();
    if (!crash.empty()) KemdMessage(kTag, "module %s crashed: %s", module, crash.c_str());
    process.DeclareOver();
}

void IsolatedModules::ReviveDue() {
    std::vector<std::string> due;
    {
        const std::lock_guard lock(m_lock);
        const auto now = Clock::now();
        for (auto& [module, restart] : m_restarts) {
            if (!restart.due || *restart.due > now) continue;
            due.push_back(module);
            restart.due.reset();
        }
    }
    for (const std::string& module : due) {
        if (m_revive(module)) continue;
        const std::lock_guard lock(m_lock);
        const auto restart = m_restarts.find(module);
        if (restart != m_restarts.end()) restart->second.due = Clock::now() + seconds(1);
    }
}

int IsolatedModules::PollTimeout() {
    const std::lock_guard lock(m_lock);
    auto next = Clock::time_point::max();
    for (const auto& [module, restart] : m_restarts) {
        if (restart.due) next = std::min(next, *restart.due);
    }
    if (m_order != nullptr) return 0;
    if (next == Clock::time_point::max()) return -1;
    const auto delay = std::chrono::ceil<milliseconds>(next - Clock::now());
    return static_cast<int>(std::clamp<int64_t>(delay.count(), 0, 3'600'000));
}
