#include "daemon/run_level.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utmp.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/file_io.h"
#include "base/paths.h"
#include "base/unique_fd.h"
#include "base/version.h"
#include "trace/debug.h"

namespace {

constexpr const char* kSystemctl = "/usr/bin/systemctl";
constexpr int kAttempts = 3;

bool UsesRunLevelFile(std::string_view nickname) {
    struct stat status {};
    if (stat(kSystemctl, &status) == 0) {
        TRACE(1, "%s-MAIN: %s detected on this OS\n", kTag, kSystemctl);
        return true;
    }
    return nickname == "RHEL7" || nickname == "SLES12" || nickname == "OL7";
}

FILE* OpenRunLevelFile() {
    UniqueFd file = OpenRegularFile(kRunLevelFile, O_RDONLY);
    FILE* stream = file.IsOpen() ? fdopen(file.Get(), "r") : nullptr;
    if (stream != nullptr) (void)file.Release();
    return stream;
}

int32_t ReadRunLevel(FILE* file) {
    int value = 0;
    if (std::fscanf(file, "%d", &value) != 1) return kRunLevelUnknown;
    TRACE(1, "%s-MAIN: OS shutdown reguired: RunLevel = %d from %s\n", kTag, value, kRunLevelFile);
    return value == kRunLevelHalt || value == kRunLevelReboot ? value : kRunLevelUnknown;
}

int32_t RunLevelFromFile() {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (FILE* file = OpenRunLevelFile()) {
            const int32_t level = ReadRunLevel(file);
            std::fclose(file);
            return level;
        }
        Debug.Message("%s-MAIN: cannot open %s (try %d)\n", kTag, kRunLevelFile, attempt);
        sleep(1);
    }
    Debug.Message("%s-MAIN: this seems to be a simple stop of %s (not OS shutdown)\n", kTag, kTag);
    return kRunLevelPlainStop;
}

// Both utmp and runlevel give a character.
int32_t LevelOf(int character) {
    return character - '0';
}

int32_t RunLevelFromUtmp() {
    int32_t level = kRunLevelUnknown;
    setutent();
    while (const utmp* record = getutent()) {
        if (record->ut_type != RUN_LVL) continue;
        level = LevelOf(record->ut_pid % 256);
        break;
    }
    endutent();
    return level;
}

int32_t RunLevelFromCommand() {
    FILE* command = popen("/sbin/runlevel", "re");
    if (command == nullptr) return kRunLevelUnknown;
    std::array<char, 64> line{};
    int32_t level = kRunLevelUnknown;
    if (std::fgets(line.data(), line.size(), command) != nullptr) {
        const char* blank = std::strchr(line.data(), ' ');
        if (blank != nullptr) level = LevelOf(blank[1]);
    }
    (void)pclose(command);
    return level;
}

int32_t RunLevelOfOlderSystem() {
    TRACE(1, "%s-MAIN: try to indentify runlevel on older OS\n", kTag);
    const int32_t level = RunLevelFromUtmp();
    return level != kRunLevelUnknown ? level : RunLevelFromCommand();
}

}  // namespace

int32_t DetectRunLevel() {
    const char* value = std::getenv("OV_NICKNAME");
    const std::string_view nickname = value != nullptr ? value : "";
    if (nickname.empty()) {
        Debug.Message("%s-MAIN: cannot identify OS (from OV_NICKNAME) on which we are running\n",
                      kTag);
    } else {
        TRACE(1, "%s-MAIN: we are runing on OS \"%s\"\n", kTag, value);
    }
    return UsesRunLevelFile(nickname) ? RunLevelFromFile() : RunLevelOfOlderSystem();
}
