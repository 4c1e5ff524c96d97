// Around each call into a module, on the initial thread: which call it is, and that the process is
// still the daemon, with its signal mask, when the call is over.
#pragma once

#include <unistd.h>

#include <string>

#include "switch_library/signal_mask.h"

class ModuleCall {
  public:
    // `name` is that of one of a module's calls, "start" for example. Both outlive the object.
    ModuleCall(const std::string& module, const char* name);
    // However the call ended. A child that the module forked and that came back ends here.
    ~ModuleCall();
    ModuleCall(const ModuleCall&) = delete;
    ModuleCall& operator=(const ModuleCall&) = delete;

    // The one that the calling thread is in; null: none.
    static const ModuleCall* Current();

    [[nodiscard]] const char* Module() const { return m_module.c_str(); }
    [[nodiscard]] const char* Name() const { return m_name; }
    [[nodiscard]] bool IsForked() const { return getpid() != m_process; }

  private:
    const std::string& m_module;
    const char* m_name;
    pid_t m_process = getpid();
    SignalMask m_mask;
};
