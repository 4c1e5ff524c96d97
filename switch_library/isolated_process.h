// One process that holds one module: kemd-module-host --isolated, spoken to by
// base/isolated_protocol.h. Made and watched by IsolatedModules' thread, called by the threads that
// call modules, one call at a time.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "base/isolated_protocol.h"
#include "base/unique_fd.h"

class IsolatedProcess {
  public:
    // `level`: the descriptor of the page with the trace level. The process dies with the calling
    // thread. Null, and why, when it cannot be made.
    static std::unique_ptr<IsolatedProcess> Spawn(const std::string& module, int level,
                                                  std::string& fault);
    // Kills the process, with those that it left in its group.
    ~IsolatedProcess();
    IsolatedProcess(const IsolatedProcess&) = delete;
    IsolatedProcess& operator=(const IsolatedProcess&) = delete;

    [[nodiscard]] pid_t Id() const { return m_id; }
    [[nodiscard]] const std::string& Module() const { return m_module; }

    // Returns the answer and its text. Throws std::runtime_error with the reason when the module
    // threw, or the process ends, or has to be killed because `timeout` is over.
    IsolatedAnswer Call(const IsolatedRequest& request, std::string_view text,
                        std::chrono::milliseconds timeout, std::string& answer);
    // From now on its end is what is wanted, and not reported.
    void ExpectEnd();
    // Ends the calls, so that it ends by itself, and kills it after `timeout`. Empty, or how it
    // ended otherwise than in order; that was not reported.
    std::string End(std::chrono::milliseconds timeout);
    [[nodiscard]] bool IsOver() const;

    // Of the thread that watches.
    [[nodiscard]] int Watch() const { return m_watch.Get(); }  // readable when the process ended
    // Readable when there are records; -1 when no more will come.
    [[nodiscard]] int Trace() {
        const std::lock_guard lock(m_traceLock);
        return m_trace.Get();
    }
    // Writes the records that are there into the trace, at most about a pipe full.
    void ForwardTrace();
    // After its end: takes what is left. True when the end was not expected.
    bool TakeEnd();
    // How it ended; valid after TakeEnd.
    [[nodiscard]] std::string EndText() const;
    // Where a crash was; empty when the crash handler did not say.
    [[nodiscard]] std::string CrashText() const;
    // Wakes those that wait for the end.
    void DeclareOver();
    // `why` is how it ended.
    void Kill(std::string_view why);

  private:
    explicit IsolatedProcess(std::string module) : m_module(std::move(module)) {}
    int Start(int level, int calls, int trace, int series);
    bool ForwardRecords();
    void Forward(const IsolatedRecord& record, std::string_view rest);
    [[nodiscard]] bool AwaitEnd(std::chrono::milliseconds timeout);
    [[noreturn]] void FailHanging(std::chrono::milliseconds timeout);

    const std::string m_module;
    pid_t m_id = -1;
    UniqueFd m_calls;
    UniqueFd m_trace;
    UniqueFd m_watch;
    // A call takes the records too, so that those of the call are there when it returns.
    std::mutex m_traceLock;
    // Records that are not whole yet, and the crash handler's line.
    std::array<char, size_t{64} << 10> m_records{};
    size_t m_length = 0;
    std::string m_crash;

    mutable std::mutex m_lock;
    std::condition_variable m_change;
    bool m_isEnding = false;
    bool m_isReaped = false;  // the id may be another's
    bool m_isOver = false;
    bool m_isInOrder = false;  // it ended by itself, with status 0
    std::string m_killedFor;   // why we killed it
    std::string m_end;
};
