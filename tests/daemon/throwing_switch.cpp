// A switch library that throws where the script says so: an exception of its own type, with the
// word "odd" one that is no std::exception, with "memory" a std::bad_alloc. With "fork" only a
// child throws, or with "back" returns, and the library waits for it. Other words misuse the exit
// event.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include "kemd/api.h"
#include "kemd/exit_event.h"
#include "kemd/module_switch.h"
#include "tests/daemon/script.h"

namespace {

struct LibraryError : std::runtime_error {
    explicit LibraryError(const char* word)
        : std::runtime_error(std::string("library says ") + word) {}
};

struct Oddity {
    std::string text = "odd";
};

void Call(const char* word) {
    Record("%s", word);
    if (!Scripted(word)) return;
    const pid_t child = Scripted("fork") ? fork() : 0;
    if (child > 0) return (void)waitpid(child, nullptr, 0);
    if (Scripted("back")) return;
    if (Scripted("odd")) throw Oddity();
    if (Scripted("memory")) throw std::bad_alloc();
    throw LibraryError(word);
}

class ThrowingSwitch : public IModuleSwitch {
  public:
    bool LoadModules(ModuleLoadParams* /*params*/) override {
        if (Scripted("close-event")) CloseEvent(ExitEvent());
        if (Scripted("assign-event")) ExitEvent() = EventHandle();
        return Call("load"), true;
    }
    bool UnloadModules(uint32_t /*options*/) override { return Call("unload"), true; }
    void StartAllModules() override {
        Call("start");
        if (!Scripted("reset-event")) return;
        for (std::thread& thread : m_threads) {
            thread = std::thread([this] {
                while (!m_stop) ResetEvent(ExitEvent());
            });
        }
    }
    void StopAllModules() override {
        m_stop = true;
        for (std::thread& thread : m_threads) {
            if (thread.joinable()) thread.join();
        }
        Call("stop");
    }
    void NotifyModules(uint32_t /*code*/, void* /*data*/, uint32_t /*word*/) override {
        Call("notify");
    }

  private:
    std::atomic<bool> m_stop{false};
    std::thread m_threads[4];  // so that the event is hardly ever seen set
};

ThrowingSwitch g_switch;

[[maybe_unused]] const bool kIsInitialised =
    !Scripted("init") || (throw LibraryError("init"), true);

}  // namespace

extern "C" {

KEMD_API void SW_AddRef() {}

KEMD_API void SW_Release() {
    Call("SW_Release");
}

KEMD_API bool SW_QueryInterface(int32_t /*identifier*/, IModuleSwitch** interface) {
    if (Scripted("query")) throw Oddity();
    *interface = &g_switch;
    return true;
}

}  // extern "C"
