// Crashes of the daemon and what follows from them: the handler that notes one in the crash file,
// and the modules that are not started any more since they crashed again and again.
#pragma once

#include <optional>
#include <string>

#include "base/crash_handler.h"
#include "services/module_settings.h"

class CrashReports {
  public:
    // On the initial thread; does nothing the second time. A file that cannot be written is traced
    // and done without.
    void Begin();

    // Why the module is not to be loaded; empty when it may. `name` is without ".so".
    [[nodiscard]] std::string WhyHeldBack(const std::string& name, const ModuleSettings& settings);

  private:
    std::optional<CrashHandler> m_handler;
};

// The one of this library; with it, the handler goes.
CrashReports& TheCrashReports();
