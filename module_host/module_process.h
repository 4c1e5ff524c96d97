// The process that holds the module, seen from the host: it is asked for calls, watched, and killed
// at the end with every process that the module leaves.
#pragma once

#include <sys/types.h>

#include <string>

#include "module_host/findings.h"
#include "module_host/module_calls.h"

class ModuleProcess {
  public:
    enum class State { kWaiting, kGone, kBlocked };  // for the next call; ended; stuck in a call

    // Starts the process and waits until it is ready. The path must outlive the object.
    explicit ModuleProcess(const char* path);
    ~ModuleProcess();
    ModuleProcess(const ModuleProcess&) = delete;
    ModuleProcess& operator=(const ModuleProcess&) = delete;

    [[nodiscard]] pid_t Id() const { return m_id; }
    // Valid while the process waits for the next call.
    [[nodiscard]] CallBoard& Board() { return *m_board; }

    State MakeCall(Call call, unsigned timeoutSeconds);
    // Lets the module's own threads run. False when the process ended meanwhile.
    bool Pause(unsigned seconds);
    // How it ended. Valid when it is gone.
    [[nodiscard]] std::string EndText() const;

  private:
    State AwaitDone(unsigned timeoutSeconds);
    bool IsGone();

    CallBoard* m_board;
    Processes m_ownChildren;  // from before the exec of the host: not the module's
    pid_t m_id = -1;
    int m_status = 0;
    bool m_gone = false;
};
