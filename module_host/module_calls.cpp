#include "module_host/module_calls.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

#include "base/process_setup.h"
#include "kemd/config.h"
#include "kemd/exit_event.h"
#include "kemd/module_switch.h"
#include "module_host/loaded_module.h"
#include "services/module_config.h"

namespace {

// Takes the answer to a request into the board's text.
struct BoardReply : KemdReply {
    CallBoard& board;
    size_t length = 0;

    explicit BoardReply(CallBoard& shared) : KemdReply{Append}, board(shared) { board.text[0] = 0; }

    static int Append(KemdReply* reply, const char* text, size_t length) {
        auto& self = static_cast<BoardReply&>(*reply);
        if (length >= self.board.text.size() - self.length) return EMSGSIZE;
        std::memcpy(self.board.text.data() + self.length, text, length);
        self.length += length;
        self.board.text[self.length] = '\0';
        return 0;
    }
};

void SetText(CallBoard& board, Outcome outcome, const char* text) {
    board.outcome = outcome;
    std::snprintf(board.text.data(), board.text.size(), "%s", text);
}

void Load(CallBoard& board, LoadedModule& module, const char* path) {
    const std::string reason = module.Load(path);
    if (!reason.empty()) return SetText(board, Outcome::kNoModule, reason.c_str());
    board.hasConfigure = module.Object().HasConfigure();
    board.hasHealth = module.Object().HasHealth();
    board.hasRequest = module.Object().HasRequest();
    board.hasNotify = module.Object().HasNotify();
}

int Configure(const CallBoard& board, const LoadedModule& module) {
    const char* const file = board.input.data();
    const char* const name = module.Name().c_str();
    const std::string_view nothing;
    // A file that is not there is no failure to report.
    return module.Configure(access(file, F_OK) == 0
                                ? KemdConfigOpen(file, "Settings", name)
                                : OpenConfigText(file, "Settings", name, nothing));
}

void Make(CallBoard& board, LoadedModule& module, const char* path) {
    switch (board.call) {
        case Call::kLoad:
            return Load(board, module, path);
        case Call::kConfigure:
            board.result = Configure(board, module);
            return;
        case Call::kStart:
            board.result = module.Object().Start();
            return;
        case Call::kHealth:
            board.result = module.Object().Health(board.text.data(), board.text.size());
            return;
        case Call::kRequest: {
            BoardReply reply(board);
            board.result = module.Object().Request(board.input.data(), reply);
            return;
        }
        case Call::kNotifyStop:
            return module.Object().Notify(kNotifyStop, nullptr);
        case Call::kNotifyShutdown:
            return module.Object().Notify(kNotifyShutdown, &board.runLevel);
        case Call::kStop:
            (void)SetEvent(ExitEvent());  // as the daemon has done by then
            return module.Object().Stop();
        case Call::kUnload:
            module.Unload();
            return;
        case Call::kNone:
            return;
    }
}

void MakeGuarded(CallBoard& board, LoadedModule& module, const char* path) {
    const auto begin = std::chrono::steady_clock::now();
    board.outcome = Outcome::kReturned;
    Thrown thrown{};
    const bool returned = CallGuarded(thrown, [&] {
        Make(board, module, path);
        pthread_testcancel();  // a pending request is obeyed here, where it is noticed
    });
    if (!returned) SetText(board, Outcome::kThrew, thrown.data());
    board.nanoseconds = (std::chrono::steady_clock::now() - begin).count();
}

// Reports a thread that ends inside the call.
struct EndOfThread {
    CallBoard& board;

    explicit EndOfThread(CallBoard& shared) : board(shared) {}
    EndOfThread(const EndOfThread&) = delete;
    EndOfThread& operator=(const EndOfThread&) = delete;
    ~EndOfThread() {
        board.outcome = Outcome::kEnded;
        sem_post(&board.done);
    }
};

void WaitForTurn(CallBoard& board) {
    while (sem_wait(&board.go) != 0) {
    }
}

}  // namespace

void ServeCalls(CallBoard& board, const char* path) {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    PrepareProcess();
    // Stands for the daemon's own files, and stays open.
    (void)!open("/dev/null", O_RDWR | O_CLOEXEC);
    // Whatever the run-time library creates with the first thread exists before the module is
    // loaded.
    std::thread([] {}).join();
    const EndOfThread lastWord(board);
    LoadedModule module;
    for (;;) {
        sem_post(&board.done);
        WaitForTurn(board);
        MakeGuarded(board, module, path);
    }
}
