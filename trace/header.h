// The header that opens every trace file: the command line, the environment, and the trace settings
// as read and in force. Emitted record by record through a callback; nothing here writes or locks.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdarg>
#include <cstdint>
#include <memory>

#include "kemd/api.h"
#include "trace/trace_config.h"

// The two tables of variables that every header lists, with the values they had at `Init`. The
// suite's start scripts export both: the environment proper, and the keys of the agents'
// configuration file.
struct NamedValue {
    const char* name;               // null ends a table
    std::unique_ptr<char[]> value;  // own copy (later changes do not show); null when unset
};

struct EnvironmentSnapshot {
    std::array<NamedValue, 42> environment = {{
        {"LD_LIBRARY_PATH", {}},
        {"OV_SYSTEM", {}},
        {"OV_OS", {}},
        {"OV_OS_MAJOR", {}},
        {"OV_OS_MINOR", {}},
        {"OV_VVOS", {}},
        {"OV_RELEASE", {}},
        {"OV_VENDOR", {}},
        {"OV_HOSTNAME", {}},
        {"OV_HOSTOSREVMAJOR", {}},
        {"OV_HOSTOSREVMINOR", {}},
        {"OV_SYSNAME", {}},
        {"OV_VERSION", {}},
        {"OV_NICKNAME", {}},
        {"OV_HWPLATFORM", {}},
        {"OV_RUNNINGONVM", {}},
        {"OV_RUNNINGONPAN", {}},
        {"OV_VMREL", {}},
        {"OV_ARCH", {}},
        {"OV_REPO", {}},
        {"OV_RAID_EXISTS", {}},
        {"OV_RAID_READY", {}},
        {"OV_RAID_VERSION", {}},
        {"OV_INSTALL_DATE", {}},
        {"OV_USE_SG_IO_HDR_T", {}},
        {"OV_AGENT_X_SOCKET", {}},
        {"OV_KEMD_REPLY_TIME", {}},
        {"OV_DAEMON_COREFILE_LIMIT", {}},
        {"OV_VME_WAIT_TIME_FOR_VMSERVER", {}},
        {"OV_SCS_PROVIDER_TRACE", {}},
        {"OV_SCS_NOSIGNAL", {}},
        {"OV_LOG_DYNAMIC_UPDATE", {}},
        {"OV_SCS_DEBUG_LEVEL", {}},
        {"OV_LOG_FILE_DIR", {}},
        {"OV_LOG_FILE_MAX_SIZE", {}},
        {"OV_LOG_RINGBUF_DIR", {}},
        {"OV_LOG_DEBUG_LEVEL", {}},
        {"OV_LOG_RINGBUF_WEIGHT", {}},
        {"OV_LOG_NOHDR_TOSDTERR", {}},
        {"KXA_OV_HOME", {}},
        {"KXA_SYSLOG_FIFO", {}},
        {nullptr, {}},
    }};

    std::array<NamedValue, 14> configuration = {{
        {"AgentPermission", {}},
        {"AgentShut", {}},
        {"ShutdownDelay", {}},
        {"UserGroup", {}},
        {"ScanTapeDevices", {}},
        {"TraceFileLimit", {}},
        {"NoAccountCheck", {}},
        {"InventoryRescan", {}},
        {"CDPollInterval", {}},
        {"AgentsToBeStarted", {}},
        {"WaitForKemdSockets", {}},
        {"WaitForKemdTerm", {}},
        {"InvAgtPollNetUtilization", {}},
        {nullptr, {}},
    }};

    // Reads both tables again. A value for which there is no memory counts as unset.
    void Take();
};

// Where header lines go: one printf-style call per record.
class HeaderSink {
  public:
    using Writer = void (*)(void* context, const char* format, va_list args);

    HeaderSink(Writer writer, void* context) : m_writer(writer), m_context(context) {}
    void operator()(const char* format, ...) const KEMD_PRINTF(2, 3);

  private:
    Writer m_writer;
    void* m_context;
};

// What the trace object knows besides its configuration. The texts belong to the caller.
struct HeaderFacts {
    const char* moduleName;  // never null
    int argumentCount;
    char** arguments;
    const EnvironmentSnapshot& environment;
    pid_t processId;
    uint32_t target;
    bool initDone;
    const char* logPath;
    uint32_t logLimit;
    int ringDescriptor;
    int64_t ringSize;
    const char* ringPath;
};

void EmitCommandLine(const HeaderFacts& facts, const HeaderSink& line);
void EmitHeader(const HeaderFacts& facts, const CDebugTraceConfig& config, const HeaderSink& line);
