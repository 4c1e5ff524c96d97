// A switch library that throws where the script says so: an exception type of its own that the
// daemon cannot know, or with the word "odd" one that is not even a std::exception, with "memory"
// that there is no memory, with "fork" in a child alone, whose end it waits for; with "back" that
// child returns instead. Or it treats the exit event as no module may.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <exception>
#include <new>
#include <string>
#include <thread>

#include "kemd/api.h"
#include "kemd/exit_event.h"
#include "kemd/module_switch.h"
#include "tests/daemon/script.h"

namespace {

class LibraryError : public std::exception {
  public:
    explicit LibraryError(const char* word) : m_text(std::string("library says ") + word) {}
    [[nodiscard]] const char* what() const noexcept override { return m_text.c_str(); }

  private:
    std::string m_text;
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
    std::thread m_threads[4];  // whoever sets the event hardly ever sees it set
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
