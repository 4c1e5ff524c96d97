#include "kemdctl/facts/daemon_environment.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "base/file_io.h"
#include "base/paths.h"
#include "base/text.h"
#include "kemdctl/ui/text.h"
#include "trace/names.h"

namespace {

bool IsVariableName(std::string_view name) {
    const auto isPart = [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; };
    return !name.empty() && std::isdigit(static_cast<unsigned char>(name[0])) == 0 &&
           std::all_of(name.begin(), name.end(), isPart);
}

bool AddVariable(Variables& variables, std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == line.npos || !IsVariableName(line.substr(0, equals))) return false;
    std::string_view value = Trim(line.substr(equals + 1));
    const bool isQuoted =
        value.size() >= 2 && (value[0] == '"' || value[0] == '\'') && value.front() == value.back();
    if (isQuoted) value = value.substr(1, value.size() - 2);
    variables.insert_or_assign(std::string(line.substr(0, equals)), std::string(value));
    return true;
}

}  // namespace

const char* DaemonEnvironment::Find(std::string_view name) const {
    const auto found = variables.find(name);
    return found != variables.end() ? found->second.c_str() : nullptr;
}

bool ReadDefaultFile(Variables& variables, const std::function<void(size_t line)>& badLine) {
    const auto text = ReadTextFile(kDefaultFile);
    if (!text) return false;
    std::string_view rest = *text;
    for (size_t number = 1; !rest.empty(); ++number) {
        const std::string_view line = Trim(TakeLine(rest));
        if (line.empty() || line[0] == '#' || line[0] == ';') continue;
        if (!AddVariable(variables, line)) badLine(number);
    }
    return true;
}

DaemonEnvironment ReadDaemonEnvironment(const DaemonState& state) {
    DaemonEnvironment environment;
    const auto own = state.daemon ? ReadProcessEnvironment(state.daemon->pid) : std::nullopt;
    if (own) {
        environment.source = "the environment of process " + std::to_string(state.daemon->pid);
        for (const std::string& line : *own) {
            const size_t equals = line.find('=');
            if (equals == std::string::npos) continue;
            environment.variables.emplace(line.substr(0, equals), line.substr(equals + 1));
        }
        return environment;
    }
    environment.error = state.daemon ? errno : 0;
    const bool isThere = ReadDefaultFile(environment.variables, [](size_t) {});
    environment.source = isThere ? kDefaultFile : "no variables";
    if (environment.error != 0) environment.source += ", as kemd's own may not be read";
    return environment;
}

std::string ModuleDirectory(const DaemonEnvironment& environment) {
    const char* const variable = environment.Find("OV_MODULE_DIR");
    return variable != nullptr && *variable != '\0' ? variable : kModuleDirectory;
}

std::string InstallModuleAdvice(const std::string& directory) {
    const std::string shown = ShellQuoted(directory);
    const bool isThere = access(directory.c_str(), F_OK) == 0;
    return (isThere ? "" : "install -d -m 755 " + shown + "; ") + "install -m 644 MODULE.so " +
           shown + "/ and restart kemd";
}

DaemonEnvironment ReadOwnEnvironment() {
    DaemonEnvironment environment;
    (void)ReadDefaultFile(environment.variables, [](size_t) {});
    for (char** each = environ; *each != nullptr; ++each) {
        const std::string_view line = *each;
        const size_t equals = line.find('=');
        if (equals == line.npos) continue;
        environment.variables.insert_or_assign(std::string(line.substr(0, equals)),
                                               std::string(line.substr(equals + 1)));
    }
    environment.source = "the environment of this process";
    return environment;
}

void UseTimeZone(const DaemonEnvironment& environment) {
    const char* const zone = environment.Find("TZ");
    if (zone != nullptr) {
        (void)setenv("TZ", zone, 1);
    } else {
        (void)unsetenv("TZ");
    }
    tzset();
}

TraceSettings::TraceSettings(const DaemonEnvironment& environment) {
    for (const char* const name :
         {"OV_LOG_DEBUG_LEVEL", "OV_LOG_DYNAMIC_UPDATE", "OV_LOG_FILE_MAX_SIZE",
          "OV_LOG_NOHDR_TOSDTERR", "OV_LOG_RINGBUF_DIR", "OV_LOG_RINGBUF_WEIGHT",
          "OV_LOG_RINGBUF_WEIGHT_KEMD", "TraceFileLimit"}) {
        const char* const value = environment.Find(name);
        if (value != nullptr) {
            (void)setenv(name, value, 1);
        } else {
            (void)unsetenv(name);
        }
    }
    m_moduleName = CopyText("kemd");
    ReadTraceConfig(ModuleName());
    m_ringSize = ComputeRingSize();
}

std::string TraceSettings::Directory() const {
    const std::string directory = InForce().logDirectory.Get();
    return directory.empty() ? "/" : directory;
}

uint64_t TraceSettings::SpaceNeeded() const {
    const int64_t rings = HasTracing() ? (kStartupFactor + 1) * m_ringSize : 0;
    return InForce().logLimit + static_cast<uint64_t>(rings);
}
