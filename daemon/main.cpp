// kemd: brings the extension modules of the agent suite up and down and keeps a trace of it.
#include <unistd.h>

#include <cstdio>

#include "base/paths.h"
#include "base/process_setup.h"
#include "base/version.h"
#include "daemon/notify.h"
#include "daemon/process_guard.h"
#include "daemon/service.h"
#include "daemon/startup.h"
#include "lock/file_lock.h"
#include "trace/debug.h"

int main(int argc, char** argv) {
    int status = 0;
    if (AnswerQuestion(argc, argv, status)) return status;
    if (getuid() != 0) {
        std::fprintf(stderr, "%s: %s-MAIN: Error! Permission denied\n", argv[0], kTag);
        return 1;
    }
    OpenStandardDescriptors();
    IgnoreFileSizeLimit();

    // Taken before the fork, so that whoever starts a second instance sees it fail. Every return
    // gives it up.
    CFileLock lock;
    if (!lock.Lock(kLockName, "kemd", 0)) {
        std::fprintf(stderr, "%s: %s-MAIN: Error! Another process instance is already running!\n",
                     argv[0], kTag);
        return 1;
    }
    if (!Detach(argc, argv)) return 1;

    (void)Debug.Init("kemd");  // the daemon also runs without trace files
    Debug.SetCommandLine(argc, argv);
    ModuleLoadParams params = ParseCommandLine(argc, argv);
    PrepareProcess();
    const ProcessGuard guard(lock.Descriptor());
    ReportMissingLog();
    WriteBanner();
    OpenSystemLog();
    if (params.runMode == kRunModeNormal) DiscoverSmbusDriverInfo();

    // Lives as long as this frame; every way out closes it.
    SwitchBinding binding{};
    const bool isBound = binding.Load();
    EndForkedChild();
    if (!isBound) {
        Debug.Message(0U, "%s-MAIN: FATAL ERROR! Server Control SWITCH could not be loaded!", kTag);
        ReportStart("no switch library: %s; kemdctl check says what to do", binding.failure.data());
        binding.CloseLibrary();
        return 1;
    }
    return RunService(binding, params) ? 0 : 1;
}
