#include "switch_library/crash_reports.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "base/crash_file.h"
#include "kemd/trace.h"
#include "switch_library/module_board.h"
#include "switch_library/module_call.h"

namespace {

UniqueFd g_file;
struct stat g_status {};

// A module may have closed the descriptor and opened another file in its place.
void Write(std::string_view line) {
    struct stat status {};
    if (fstat(g_file.Get(), &status) != 0) return;
    if (status.st_ino != g_status.st_ino || status.st_dev != g_status.st_dev) return;
    (void)!write(g_file.Get(), line.data(), line.size());
}

const char* RunningModule() {
    const ModuleCall* const call = ModuleCall::Current();
    return call != nullptr ? call->Module() : nullptr;
}

}  // namespace

CrashReports& TheCrashReports() {
    static CrashReports reports;
    return reports;
}

void CrashReports::Begin() {
    if (m_handler) return;
    g_file = OpenCrashFile();
    if (!g_file.IsOpen() || fstat(g_file.Get(), &g_status) != 0) {
        const std::string fault = CrashFileFault(errno);
        return KemdMessage(kTag, "crashes will not be noted: %s", fault.c_str());
    }
    m_handler.emplace(CrashTarget{Write, RunningModule});
}

// Read each time: kemdctl brings modules back while the daemon runs.
std::string CrashReports::WhyHeldBack(const std::string& name, const ModuleSettings& settings) {
    if (settings.isIsolated) return {};
    const auto crashes = ReadCrashes();
    if (!crashes) {
        const std::string fault = CrashFileFault(errno);
        KemdMessage(kTag, "whether module %s crashed before is not known: %s", name.c_str(),
                    fault.c_str());
        return {};
    }
    if (!IsHeldBack(*crashes, name, settings.isRestarted)) return {};
    const char* const how =
        settings.isRestarted ? "it crashed three times within ten minutes" : "it crashed";
    return std::string(how) +
           " (kemdctl trace --last-run); to bring it back: kemdctl modules enable " + name;
}
