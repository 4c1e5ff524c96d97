#include "module_host/walk.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "base/text.h"
#include "kemd/module.h"
#include "module_host/findings.h"
#include "module_host/module_process.h"

namespace {

using Clock = std::chrono::steady_clock;
using State = ModuleProcess::State;

constexpr double kSlowMs = 500;

class Walk {
  public:
    Walk(const char* path, const WalkOptions& options)
        : m_path(path),
          m_options(options),
          m_process(path),
          m_first(LookAt(m_process.Id())),
          m_last(m_first) {}

    WalkResult Run();

  private:
    bool Start();
    void RunStarted();
    void AskHealth();
    void MakeRequests();
    void Notify();
    // True when the call returned normally.
    bool Make(Call call, const char* name, const char* detail = "");
    bool Judge(const char* name);
    void Finding(const std::string& text);
    void Look();
    [[nodiscard]] Processes ThreadsLeft() const;
    bool AwaitThreads();

    const char* const m_path;
    const WalkOptions& m_options;
    ModuleProcess m_process;
    const ProcessView m_first;
    ProcessView m_last;
    bool m_over = false;  // the process is gone or makes no more calls
    unsigned m_findings = 0;
};

void Walk::Finding(const std::string& text) {
    std::printf("  ! %s\n", text.c_str());
    std::fflush(stdout);
    ++m_findings;
}

// Reports what has changed since the last look.
void Walk::Look() {
    ProcessView view = LookAt(m_process.Id());
    if (!view.readable) return Finding("the process cannot be looked at any more");
    for (const std::string& text : Changes(m_process.Id(), m_last, view)) Finding(text);
    m_last = std::move(view);
}

bool Walk::Make(Call call, const char* name, const char* detail) {
    const State state = m_process.MakeCall(call, m_options.timeout);
    m_over = state != State::kWaiting;
    if (state == State::kGone) Finding(m_process.EndText() + " in " + name);
    if (state == State::kBlocked) {
        Finding(std::string(name) + " has not returned within " +
                std::to_string(m_options.timeout) + " s");
    }
    if (m_over) return false;
    if (m_process.Board().outcome == Outcome::kNoModule) return false;
    const double ms = static_cast<double>(m_process.Board().nanoseconds) / 1e6;
    std::printf("%-9s%9.2f ms%s\n", name, ms, detail);
    std::fflush(stdout);
    if (ms > kSlowMs) Finding(std::string(name) + " takes long: everything else waits for it");
    return Judge(name);
}

bool Walk::Judge(const char* name) {
    const CallBoard& board = m_process.Board();
    if (board.outcome == Outcome::kEnded) {
        Finding("the calling thread was cancelled or ended itself in " + std::string(name));
        m_over = true;
        return false;
    }
    if (board.outcome == Outcome::kThrew) {
        Finding("exception out of " + std::string(name) + ": " + board.text.data());
    }
    Look();
    return board.outcome == Outcome::kReturned;
}

void Walk::RunStarted() {
    if (!m_process.Pause(m_options.seconds)) {
        m_over = true;
        return Finding(m_process.EndText() + " while it ran");
    }
    std::printf("running  %9.2f ms\n", m_options.seconds * 1e3);
    Look();
    if (m_process.Board().hasHealth) AskHealth();
    MakeRequests();
    if (!m_over && m_process.Board().hasNotify) Notify();
    if (!m_over && Make(Call::kStop, "stop") && AwaitThreads()) (void)Make(Call::kUnload, "unload");
}

// A text of the module, each line below the call.
static void Show(std::string_view text) {
    while (!text.empty()) std::printf("    %s\n", std::string(TakeLine(text)).c_str());
    std::fflush(stdout);
}

void Walk::AskHealth() {
    if (!Make(Call::kHealth, "health")) return;
    constexpr std::array<const char*, 3> kWords = {"ok", "warning", "failed"};
    const auto state = static_cast<size_t>(m_process.Board().result);
    const std::string text = m_process.Board().text.data();
    if (state >= kWords.size()) {
        return Finding("health is " + std::to_string(m_process.Board().result) +
                       ", which means nothing");
    }
    Show(std::string(kWords[state]) + (text.empty() ? "" : ": " + text));
    if (state == KEMD_HEALTH_FAILED) Finding("health has failed");
}

void Walk::MakeRequests() {
    for (const std::string& request : m_options.requests) {
        if (m_over) return;
        CallBoard& board = m_process.Board();
        if (!board.hasRequest) return Finding("it takes no requests");
        board.input[request.copy(board.input.data(), board.input.size() - 1)] = '\0';
        if (!Make(Call::kRequest, "request")) continue;
        Show(board.text.data());
        if (board.result == 0) continue;
        Finding("request \"" + request + "\" failed: " + std::strerror(board.result));
    }
}

void Walk::Notify() {
    (void)Make(Call::kNotifyStop, "notify", "  0x20000");
    if (m_over || !m_options.runLevel) return;
    m_process.Board().runLevel = *m_options.runLevel;
    (void)Make(Call::kNotifyShutdown, "notify",
               *m_options.runLevel == 0 ? "  0x30000, halt" : "  0x30000, reboot");
}

// Whether it runs.
bool Walk::Start() {
    CallBoard& board = m_process.Board();
    if (board.hasConfigure) {
        board.input[m_options.settings.copy(board.input.data(), board.input.size() - 1)] = '\0';
        if (!Make(Call::kConfigure, "configure")) return false;
        if (board.result != 0) {
            Finding("it refused its settings with result " + std::to_string(board.result) +
                    ": the module is left out");
            return false;
        }
    }
    if (!Make(Call::kStart, "start")) return false;
    if (board.result == 0) return true;
    Finding("start failed with result " + std::to_string(board.result) +
            ": the module is left out");
    return false;
}

Processes Walk::ThreadsLeft() const {
    Processes left;
    for (const auto& [id, thread] : LookAt(m_process.Id()).threads) {
        if (!m_first.threads.contains(id)) left[id] = thread.name;
    }
    return left;
}

// Like the switch library, waits up to a second for threads that are about to end. True when none
// is left.
bool Walk::AwaitThreads() {
    constexpr int kUnnoticedMs = 100;  // one that was joined stays listed for a moment
    const auto begin = Clock::now();
    Processes left = ThreadsLeft();
    const Processes atFirst = left;
    while (!left.empty() && Clock::now() < begin + std::chrono::seconds(1)) {
        usleep(1000);
        left = ThreadsLeft();
    }
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
    for (const auto& [id, name] : left.empty() ? atFirst : left) {
        const std::string thread = "thread " + std::to_string(id) + " (" + name + ") ";
        if (!left.empty()) {
            Finding(thread + "is left after stop: the module stays in memory");
        } else if (ms > kUnnoticedMs) {
            Finding(thread + "ended only " + std::to_string(ms) + " ms after stop returned");
        }
    }
    return left.empty();
}

WalkResult Walk::Run() {
    if (!Make(Call::kLoad, "load")) {
        if (m_over || m_process.Board().outcome != Outcome::kNoModule) return WalkResult::kFindings;
        std::fprintf(stderr, "kemd-module-host: no module: %s\n", m_process.Board().text.data());
        return WalkResult::kNoModule;
    }
    for (const std::string& text : ReplacedSymbols(m_path)) Finding(text);
    if (Start()) {
        RunStarted();
    } else if (!m_over) {
        (void)AwaitThreads();  // a module that failed is not unloaded
    }
    if (!m_over) {
        for (const std::string& text : LeftBehind(m_first, LookAt(m_process.Id()))) Finding(text);
    }
    if (m_findings == 0) {
        std::puts("clean");
        return WalkResult::kClean;
    }
    std::printf("%u finding%s\n", m_findings, m_findings == 1 ? "" : "s");
    return WalkResult::kFindings;
}

}  // namespace

WalkResult WalkModule(const char* path, const WalkOptions& options) {
    return Walk(path, options).Run();
}
