#include "module_host/module_calls.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <thread>

#include "base/library_file.h"
#include "base/process_setup.h"
#include "kemd/exit_event.h"
#include "kemd/module.h"
#include "kemd/module_switch.h"

namespace {

struct Module {
    void* library = nullptr;
    const KemdModule* entry = nullptr;
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
    if (module.library == nullptr) return SetText(board, Outcome::kNoModule, dlerror());
    module.entry = static_cast<const KemdModule*>(dlsym(module.library, "kemdModule"));
    const char* reason = RefuseModule(module.entry);
    if (reason != nullptr) return SetText(board, Outcome::kNoModule, reason);
    board.hasNotify = module.entry->notify != nullptr;
}

void Make(CallBoard& board, Module& module, const char* path) {
    switch (board.call) {
        case Call::kLoad:
            return Load(board, module, path);
        case Call::kStart:
            board.result = module.entry->start();
            return;
        case Call::kNotifyStop:
            return module.entry->notify(kNotifyStop, nullptr);
        case Call::kNotifyShutdown:
            return module.entry->notify(kNotifyShutdown, &board.runLevel);
        case Call::kStop:
            (void)SetEvent(ExitEvent());  // as the daemon has done by then
            return module.entry->stop();
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
