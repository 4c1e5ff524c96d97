#include "module_host/module_calls.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <thread>

#include "base/library_file.h"
#include "base/module_object.h"
#include "base/process_setup.h"
#include "kemd/config.h"
#include "kemd/exit_event.h"
#include "kemd/module_switch.h"

namespace {

struct Module {
    void* library = nullptr;
    std::string fileName;
    ModuleObject object;
};

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

void Load(CallBoard& board, Module& module, const char* path) {
    const LibraryFault fault = LookAtLibrary(path);
    if (!fault.text.empty()) return SetText(board, Outcome::kNoModule, fault.text.c_str());
    // dlopen is declared not to throw, but an initialiser of the module may. The volatile pointer
    // hides dlopen from the compiler, which would otherwise leave the handler out.
    void* (*volatile const open)(const char*, int) = dlopen;
    module.library = open(path, RTLD_NOW | RTLD_LOCAL);
    if (module.library == nullptr) {
        return SetText(board, Outcome::kNoModule, LoaderText(dlerror()).c_str());
    }
    module.fileName = std::strrchr(path, '/') + 1;  // the path is absolute
    const std::string reason =
        module.object.Take(dlsym(module.library, "kemdModule"), module.fileName);
    if (!reason.empty()) return SetText(board, Outcome::kNoModule, reason.c_str());
    board.hasConfigure = module.object.HasConfigure();
    board.hasHealth = module.object.HasHealth();
    board.hasRequest = module.object.HasRequest();
    board.hasNotify = module.object.HasNotify();
}

int Configure(const CallBoard& board, const Module& module) {
    const std::string name = ModuleName(module.fileName);
    const std::unique_ptr<KemdConfig, void (*)(KemdConfig*)> config(
        KemdConfigOpen(board.input.data(), "Settings", name.c_str()), KemdConfigClose);
    if (config == nullptr) throw std::bad_alloc();
    return module.object.Configure(config.get());
}

void Make(CallBoard& board, Module& module, const char* path) {
    switch (board.call) {
        case Call::kLoad:
            return Load(board, module, path);
        case Call::kConfigure:
            board.result = Configure(board, module);
            return;
        case Call::kStart:
            board.result = module.object.Start();
            return;
        case Call::kHealth:
            board.result = module.object.Health(board.text.data(), board.text.size());
            return;
        case Call::kRequest: {
            BoardReply reply(board);
            board.result = module.object.Request(board.input.data(), reply);
            return;
        }
        case Call::kNotifyStop:
            return module.object.Notify(kNotifyStop, nullptr);
        case Call::kNotifyShutdown:
            return module.object.Notify(kNotifyShutdown, &board.runLevel);
        case Call::kStop:
            (void)SetEvent(ExitEvent());  // as the daemon has done by then
            return module.object.Stop();
        case Call::kUnload:
            (void)dlclose(module.library);
            return;
        case Call::kNone:
            return;
    }
}

void MakeGuarded(CallBoard& board, Module& module, const char* path) {
    const auto begin = std::chrono::steady_clock::now();
    board.outcome = Outcome::kReturned;
    try {
        Make(board, module, path);
        pthread_testcancel();  // a pending request is obeyed here, where it is noticed
    } catch (const std::exception& error) {
        SetText(board, Outcome::kThrew, error.what());
    } catch (...) {
        if (abi::__cxa_current_exception_type() == nullptr) throw;  // the thread is ending
        SetText(board, Outcome::kThrew, "an exception that is no std::exception");
    }
    board.nanoseconds = (std::chrono::steady_clock::now() - begin).count();
}

// Reports a thread that ends inside the call.
struct LastWord {
    CallBoard& board;

    explicit LastWord(CallBoard& shared) : board(shared) {}
    LastWord(const LastWord&) = delete;
    LastWord& operator=(const LastWord&) = delete;
    ~LastWord() {
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
    const LastWord lastWord(board);
    Module module;
    for (;;) {
        sem_post(&board.done);
        WaitForTurn(board);
        MakeGuarded(board, module, path);
    }
}
