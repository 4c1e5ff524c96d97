#include "daemon/startup.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "base/file_io.h"
#include "base/paths.h"
#include "base/run_modes.h"
#include "base/unique_fd.h"
#include "base/version.h"
#include "daemon/notify.h"
#include "trace/debug.h"

namespace {

void ParseSwitch(ModuleLoadParams& params, std::string_view argument) {
    if (argument == "-rescan") {
        params.flags |= kForceRescan;
        TRACE(2, "\n%s-MAIN::ParseCommandLine   : RESCAN due to -rescan", kTag);
    }
    for (const RunModeOption& each : kRunModeOptions) {
        if (argument != each.option) continue;
        params.runMode = each.mode;
        TRACE(2, "\n%s-MAIN::ParseCommandLine   : %s mode due to %s", kTag, each.traced,
              each.option);
    }
}

std::string HelpText() {
    std::string modes;
    std::string lines;
    for (const RunModeOption& each : kRunModeOptions) {
        modes += std::string(modes.empty() ? "" : " | ") + each.option;
        std::array<char, 80> line{};
        std::snprintf(line.data(), line.size(), "  %-12s  run mode %d, %s\n", each.option,
                      static_cast<int>(each.mode), each.help);
        lines += line.data();
    }
    return "usage: kemd [-n | -nodemon] [-rescan] [" + modes +
           "]\n"
           "       kemd --help | --version\n"
           "Brings the extension modules of the server management agents up and down and keeps a\n"
           "trace of it. One instance runs at a time, as root, in the background.\n"
           "\n"
           "  -n, -nodemon  stay in the foreground\n"
           "  -rescan       look for the installed modules again\n" +
           lines +
           "  --help        print this text; only as the sole argument\n"
           "  --version     print the version; only as the sole argument\n"
           "\n"
           "SIGTERM stops it, SIGHUP switches tracing off and on again. See kemd(8), and kemdctl(8)\n"
           "for its state and its trace. Exit status: 0 stopped in order or gone to the background,\n"
           "1 an error, which is on standard error or in the trace.\n";
}

// "Nov 15 20:00:05": the time without weekday and year.
using TimeText = std::array<char, 26>;  // as asctime_r wants it

TimeText StartTime() {
    TimeText text{};
    const time_t now = time(nullptr);
    tm local{};
    if (localtime_r(&now, &local) == nullptr || asctime_r(&local, text.data()) == nullptr) {
        // Required: the same four characters are skipped, so this one is shown skewed.
        std::snprintf(text.data(), text.size(), "mmm dd hh:mm:ss yyyy\n");
    }
    return text;
}

// The starter may wait until no process holds its standard streams open any more.
void DropStandardStreams() {
    const UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!null.IsOpen()) return;
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) (void)dup2(null.Get(), fd);
}

// 0 or an errno number; after a failure there is no file.
int WritePid(const char* path) {
    UniqueFd file = OpenRegularFile(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (!file.IsOpen()) return errno;
    if (dprintf(file.Get(), "%d\n", getpid()) > 0) return 0;
    const int error = errno;
    unlink(path);
    return error;
}

}  // namespace

bool AnswerQuestion(int argc, char** argv, int& status) {
    const std::string_view question = argc == 2 ? argv[1] : "";
    if (question != "--help" && question != "--version") return false;
    const int written = question == "--help"
                            ? std::fputs(HelpText().c_str(), stdout)
                            : std::printf("%s %s\n", kVersion.programName, kPackageVersion);
    status = written >= 0 && std::fflush(stdout) == 0 ? 0 : 1;
    if (status != 0) {
        std::fprintf(stderr, "%s: standard output: %s\n", argv[0], std::strerror(errno));
    }
    return true;
}

bool Detach(int argc, char** argv) {
    const bool foreground = std::any_of(argv + std::min(argc, 1), argv + argc, [](const char* arg) {
        return std::string_view(arg) == "-n" || std::string_view(arg) == "-nodemon";
    });
    if (foreground) {
        std::fprintf(stderr, "%s: %s-MAIN: started in \"No Demon\" Mode\n", argv[0], kTag);
        return true;
    }
    const pid_t child = fork();
    if (child < 0) {
        std::fprintf(stderr, "%s: %s-MAIN: Error! Cannot fork --> no demon !!!: %s\n", argv[0],
                     kTag, std::strerror(errno));
        return false;
    }
    if (child > 0) exit(0);  // not return: the lock now belongs to the child
    DropStandardStreams();
    return true;
}

void ReportMissingLog() {
    if (Debug.LogError() == 0) return;
    ReportStart("no trace: cannot open %s (%s); kemdctl check says what to do", Debug.LogPath(),
                std::strerror(Debug.LogError()));
}

ModuleLoadParams ParseCommandLine(int argc, char** argv) {
    ModuleLoadParams params{};
    for (int i = 1; i < argc; ++i) ParseSwitch(params, argv[i]);
    TRACE(2, "%s-MAIN: RUN MODE: %d", kTag, params.runMode);
    return params;
}

void WriteBanner() {
    const VersionNumbers version = ParseVersion(kVersion.version);
    Debug.Message("%s Version=\"%d.%02d-%02d\" Milestone=\"%s\" Built=\"%s\" Start=\"%.15s\"",
                  kVersion.programName, static_cast<int>(version.major),
                  static_cast<int>(version.minor), static_cast<int>(version.build),
                  kVersion.milestone, kVersion.buildDate, StartTime().data() + 4);
    Debug.Message("%s-MAIN: running as x86_64 (64-Bit) process; Build on SLES11 GA x86_64 (64-Bit)",
                  kTag);
}

void OpenSystemLog() {
    tzset();
    openlog(kVersion.programName, LOG_PID | LOG_NOWAIT, LOG_DAEMON);
    TRACE(3, "%s-MAIN: Syslog %s openend,", kTag, kVersion.programName);
}

void CreatePidFile() {
    const int error = WritePid(kPidFile);
    if (error == 0) {
        TRACE(2, "%s-MAIN: kemd PID file %s created; kemd PID = %d", kTag, kPidFile, getpid());
        return;
    }
    TRACE(1, "%s-MAIN: ERROR! Cannot create kemd PID file %s for kemd PID %d (errno=%d)!", kTag,
          kPidFile, getpid(), error);
    syslog(LOG_ERR, "Cannot create kemd PID file %s for kemd PID %d (errno = %d)!", kPidFile,
           getpid(), error);
}

void RemovePidFile() {
    (void)unlink(kPidFile);
}
