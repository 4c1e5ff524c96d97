#include "trace/trace_config.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>

#include "base/paths.h"
#include "trace/config_file.h"

namespace {

constexpr const char* kGlobalFile = "global_trace.ini";
constexpr std::string_view kGlobalSection = "GlobalDebugSettings";

// A variable that is set counts, whatever it holds: an empty one is the number 0.
std::optional<int32_t> EnvironmentNumber(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr) return std::nullopt;
    return static_cast<int32_t>(std::strtol(value, nullptr, 10));
}

// Reads the settings that `isWanted` picks from a section.
template <typename Predicate>
void ReadSettings(TraceValuesAsRead& values, std::string_view section, Predicate isWanted) {
    for (const TraceSetting& setting : kTraceSettings) {
        if (!isWanted(setting)) continue;
        if (setting.number != nullptr) {
            values.*setting.number = FindConfigNumber(section, setting.key, setting.unset);
        } else {
            (values.*setting.path)
                .Assign(FindConfigValue(section, setting.key, sizeof(TracePath)).value_or(""));
        }
    }
}

}  // namespace

CDebugTraceConfig::VariableName CDebugTraceConfig::RingWeightVariable() const {
    std::array<char, 48> name = {"OV_LOG_RINGBUF_WEIGHT"};
    if (m_moduleName) AppendUpperCase(name.data(), name.size(), m_moduleName.get());
    VariableName result;
    result.Assign(name.data());
    return result;
}

bool CDebugTraceConfig::ReadTraceConfig(const char* moduleName) {
    const auto files = ListConfigFiles();
    if (files && files->empty()) return true;  // Required: not even the environment is consulted.

    const int32_t dynamicUpdate = m_asRead.dynamicUpdate;
    m_asRead = TraceValuesAsRead();
    m_asRead.dynamicUpdate = dynamicUpdate;  // Required: stays without a global file.

    (void)ReadGlobalFile();
    m_moduleFile.Forget();
    if (files) {
        for (const std::string& name : *files) {
            if (ReadModuleFile(name.c_str(), moduleName)) break;
        }
    }
    SetValuesInForce();
    return true;
}

bool CDebugTraceConfig::ReadGlobalFile() {
    m_globalFile.path.Format("%s/%s", kTraceConfigDirectory, kGlobalFile);
    const auto modified = ModificationTime(m_globalFile.path.Get());
    const auto text = modified ? ReadConfigFile(m_globalFile.path.Get()) : std::nullopt;
    if (!text) {
        m_globalFile.Forget();
        return false;
    }
    m_globalFile.modified = *modified;
    const auto section = FindConfigSection(*text, kGlobalSection);
    if (section) ReadSettings(m_asRead, *section, [](const auto& s) { return s.isGlobal; });
    return section.has_value();
}

bool CDebugTraceConfig::ReadModuleFile(const char* name, const char* moduleName) {
    WatchedFile candidate;
    candidate.path.Format("%s/%s", kTraceConfigDirectory, name);
    const auto modified = ModificationTime(candidate.path.Get());
    const auto text = modified ? ReadConfigFile(candidate.path.Get()) : std::nullopt;
    const auto section = text ? FindConfigSection(*text, moduleName) : std::nullopt;
    if (!section) return false;
    candidate.modified = *modified;
    m_moduleFile = candidate;
    ReadSettings(m_asRead, *section, [](const auto& s) { return !s.isGlobal; });
    return true;
}

void CDebugTraceConfig::SetValuesInForce() {
    // Required: OV_LOG_FILE_DIR has no effect. The log file and the ring buffers share one
    // directory, and OV_LOG_RINGBUF_DIR names it.
    const char* directory = std::getenv("OV_LOG_RINGBUF_DIR");
    if (directory == nullptr) {
        directory =
            m_asRead.ringDirectory.IsEmpty() ? kTraceDirectory : m_asRead.ringDirectory.Get();
    }
    m_inForce.logDirectory.Assign(directory);
    m_inForce.logLimit =
        static_cast<uint32_t>(EnvironmentNumber(kLogLimitVariable).value_or(51200));
    for (const TraceSetting& setting : kTraceSettings) {
        if (setting.inForce == nullptr) continue;
        const int32_t asRead = m_asRead.*setting.number;
        const bool isAbsent = setting.hasAbsent && asRead == -1;
        m_inForce.*setting.inForce =
            EnvironmentNumber(setting.variable).value_or(isAbsent ? setting.byDefault : asRead);
    }
    m_updateInterval = static_cast<uint32_t>(m_inForce.dynamicUpdate);
    SetLevel(static_cast<uint32_t>(m_inForce.level));
    m_savedLevel = TraceLevel();
}

int64_t CDebugTraceConfig::ComputeRingSize() {
    if (const auto own = EnvironmentNumber(RingWeightVariable().Get())) m_inForce.ringWeight = *own;
    m_inForce.ringFactor = std::min(m_inForce.ringFactor, 2);
    const auto product =
        static_cast<uint32_t>(m_inForce.ringFactor) * static_cast<uint32_t>(m_inForce.ringWeight);
    const int64_t page = sysconf(_SC_PAGESIZE);
    return (page > 0 ? page : 4096) * product * 256;
}

void CDebugTraceConfig::UpdateTraceConfig(int64_t now) {
    const int64_t interval = m_updateInterval.load(std::memory_order_relaxed);
    if (now < m_lastCheck + interval && now >= m_lastCheck) return;
    m_lastCheck = now;
    UpdateGlobalFile();
    UpdateModuleFile();
}

void CDebugTraceConfig::UpdateGlobalFile() {
    if (m_globalFile.path.IsEmpty()) {
        m_globalFile.path.Format("%s/%s", kTraceConfigDirectory, kGlobalFile);
    }
    const auto modified = ModificationTime(m_globalFile.path.Get());
    if (!modified) {
        m_globalFile.Forget();
        return;
    }
    if (*modified <= m_globalFile.modified) return;
    // The environment is not consulted again.
    if (ReadGlobalFile()) m_updateInterval = static_cast<uint32_t>(m_asRead.dynamicUpdate);
}

void CDebugTraceConfig::UpdateModuleFile() {
    if (m_moduleFile.path.IsEmpty()) return;
    const auto modified = ModificationTime(m_moduleFile.path.Get());
    if (!modified || *modified <= m_moduleFile.modified) return;
    const auto text = ReadConfigFile(m_moduleFile.path.Get());
    if (!text) {
        m_moduleFile.Forget();
        return;
    }
    m_moduleFile.modified = *modified;
    if (const auto section = FindConfigSection(*text, ModuleName())) UpdateValues(*section);
}

void CDebugTraceConfig::UpdateValues(std::string_view section) {
    ReadSettings(m_asRead, section, [](const auto& s) { return s.isUpdated; });
    SetLevel(static_cast<uint32_t>(m_asRead.level));
    m_savedLevel = TraceLevel();
}

void CDebugTraceConfig::SetLevel(uint32_t level) {
    m_level = level;
    PublishLevel();
}

void CDebugTraceConfig::SetTraceOn(bool on) {
    m_traceOn = on;
    PublishLevel();
}

void CDebugTraceConfig::ShareLevelWith(uint32_t* shared) {
    m_sharedLevel = shared;
    PublishLevel();
}

void CDebugTraceConfig::PublishLevel() const {
    if (m_sharedLevel == nullptr) return;
    const uint32_t level = IsTraceOn() ? TraceLevel() : 0;
    std::atomic_ref(*m_sharedLevel).store(level, std::memory_order_relaxed);
}

void AppendUpperCase(char* buffer, size_t size, const char* text) {
    size_t length = strnlen(buffer, size);
    if (length + 1 >= size) return;
    buffer[length++] = '_';
    for (; *text != '\0' && length + 1 < size; ++text) {
        buffer[length++] = static_cast<char>(std::toupper(static_cast<unsigned char>(*text)));
    }
    buffer[length] = '\0';
}

void ToLowerCase(char* text) {
    for (; *text != '\0'; ++text) {
        *text = static_cast<char>(std::tolower(static_cast<unsigned char>(*text)));
    }
}

std::unique_ptr<char[]> CopyText(const char* text) {
    const size_t size = std::strlen(text) + 1;
    std::unique_ptr<char[]> copy(new (std::nothrow) char[size]);
    if (copy) std::memcpy(copy.get(), text, size);
    return copy;
}
