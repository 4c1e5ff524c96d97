// The header that opens every trace file: the command line, the environment, and the trace settings
// as read and in force. Emitted record by record through a callback; nothing here writes or locks.
#pragma once

#include <sys/types.h>

#include <cstdarg>
#include <cstdint>

#include "kemd/api.h"
#include "trace/environment.h"
#include "trace/trace_config.h"

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

// What the trace object knows beside its configuration. The texts belong to the caller.
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
