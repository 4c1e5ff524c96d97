// A switch library with a table of virtual functions made by hand, as a library in C has one. Every
// call appends a line to /tmp/calls, and words in /tmp/script say what goes wrong: the name of a
// call makes it throw an exception of the library's own type, with "odd" one that is no
// std::exception, with "memory" a std::bad_alloc. With "fork" only a child throws, or with "back"
// returns, and the library waits for it. With BARE_SWITCH two entry points are missing.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kemd/exit_event.h"
#include "kemd/module_switch_table.h"

namespace {

struct LibraryError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

bool Scripted(const std::string& word) {
    using Words = std::istream_iterator<std::string>;
    std::ifstream script("/tmp/script");
    return std::find(Words(script), Words(), word) != Words();
}

void Call(const std::string& line) {
    std::ofstream("/tmp/calls", std::ios::app) << line << '\n';
    const std::string name = line.substr(0, line.find(' '));
    if (!Scripted(name)) return;
    const pid_t child = Scripted("fork") ? fork() : 0;
    if (child > 0) return (void)waitpid(child, nullptr, 0);
    if (Scripted("back")) return;
    if (Scripted("odd")) throw 1;
    if (Scripted("memory")) throw std::bad_alloc();
    throw LibraryError("library says " + name);
}

// Only the lowest byte is the answer, and any that is not 0 means yes.
unsigned Answer(bool yes) {
    return yes ? 0x102 : 0xFFFFFF00;
}

unsigned LoadModules(void* self, ModuleLoadParams* params) {
    Call("LoadModules flags=" + std::to_string(params->flags) +
         " mode=" + std::to_string(params->runMode));
    return Answer(self != nullptr && !Scripted("fail-load"));
}

unsigned UnloadModules(void* self, uint32_t options) {
    Call("UnloadModules options=" + std::to_string(options));
    return Answer(self != nullptr);
}

std::atomic<bool> g_stop{false};
std::vector<std::thread> g_threads;  // several, so that the event is hardly ever seen set

void StartAllModules(void* /*self*/) {
    Call("StartAllModules");
    while (Scripted("block-start")) pause();
    EventHandle event = ExitEvent();
    if (Scripted("set-event")) CloseEvent(ExitEvent());
    if (Scripted("set-event")) SetEvent(event);
    for (int i = 0; i < 4 && Scripted("reset-event"); ++i) {
        g_threads.emplace_back([] {
            while (!g_stop) ResetEvent(ExitEvent());
        });
    }
}

void StopAllModules(void* /*self*/) {
    g_stop = true;
    for (std::thread& thread : g_threads) thread.join();
    Call("StopAllModules");
}

void NotifyModules(void* /*self*/, uint32_t code, void* data, uint32_t word) {
    const std::string level = data != nullptr ? std::to_string(*static_cast<int32_t*>(data)) : "-";
    Call("NotifyModules code=" + std::to_string(code >> 16) + " data=" + level +
         " word=" + std::to_string(word));
}

template <typename Slot, typename Function>
Slot As(Function* function) {
    return reinterpret_cast<Slot>(reinterpret_cast<void (*)()>(function));
}

// The slots that are never called stay null.
const ModuleSwitchTable kTable = {
    .destructors = {},
    .loadModules = As<decltype(ModuleSwitchTable::loadModules)>(LoadModules),
    .unloadModules = As<decltype(ModuleSwitchTable::unloadModules)>(UnloadModules),
    .startAllModules = StartAllModules,
    .stopAllModules = StopAllModules,
    .reserved = {},
    .notifyModules = NotifyModules,
};
const ModuleSwitchTable* g_object = &kTable;

[[maybe_unused]] const bool kIsInitialised =
    !Scripted("init") || (throw LibraryError("library says init"), true);

}  // namespace

extern "C" {

KEMD_API bool SW_QueryInterface(int32_t identifier, void** interface) {
    *interface = &g_object;
    Call("SW_QueryInterface identifier=" + std::to_string(identifier));
    return !Scripted("fail-query");
}

#ifndef BARE_SWITCH
KEMD_API void SW_AddRef() {
    Call("SW_AddRef");
}

KEMD_API void SW_Release() {
    Call("SW_Release");
}
#endif

}  // extern "C"
