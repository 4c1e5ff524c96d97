// Calls into a module, one at a time: records which call it is and what it throws, and makes sure
// that afterwards the process is still the daemon, with its signal mask.
#pragma once

#include <cxxabi.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

class ModuleCall {
  public:
    // `name` is that of one of a module's calls, "start" for example. Both outlive the object.
    ModuleCall(const std::string& module, const char* name);
    // A child that the module forked and that returned ends here. Restores the signal mask: with
    // SIGTERM unblocked on this thread the next stop would kill the daemon at once.
    ~ModuleCall();
    ModuleCall(const ModuleCall&) = delete;
    ModuleCall& operator=(const ModuleCall&) = delete;

    // The call that the calling thread is in; null: none.
    static const ModuleCall* Current();

    [[nodiscard]] const char* Module() const { return m_module.c_str(); }
    [[nodiscard]] const char* Name() const { return m_name; }
    [[nodiscard]] bool IsForked() const { return getpid() != m_process; }

  private:
    [[nodiscard]] bool RestoreMask() const;

    const std::string& m_module;
    const char* m_name;
    pid_t m_process = getpid();
    sigset_t m_mask{};
};

// False when the call threw; `thrown` is what, cut to a line. A cancelled thread is not a failure.
using Thrown = std::array<char, 512>;
template <typename Call>
bool CallModule(const std::string& name, const char* callName, Thrown& thrown, Call call) {
    const ModuleCall guard(name, callName);
    try {
        call();
        return true;
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        std::snprintf(thrown.data(), thrown.size(), "%s", error.what());
    } catch (...) {
        std::snprintf(thrown.data(), thrown.size(), "unknown exception");
    }
    return false;
}

// Loads the module's library; null with dlerror. Does not come back when an initialiser throws: the
// process ends.
void* OpenModule(const std::string& name, const std::string& path);
void CloseModule(const std::string& name, void* library);
