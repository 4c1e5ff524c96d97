// What /proc says about a process. Plain readers without state: any thread may call.
//
// Nothing is traced (the trace object itself stands on this) and nothing throws: a process or file
// that cannot be read leaves numbers 0, the process id -1, texts empty and results false; so does
// a name that is null. A thread that is cancelled inside is cancelled after the call.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "kemd/api.h"
#include "kemd/cxx_library.h"

// One figure of the process's status file. `key` carries its colon ("VmRSS:"). The result is in
// bytes, divided by 1024 `scaleSteps` times (1: KiB). When the key is not found the value that the
// caller left in `value` is scaled all the same: set it to 0 first. Allocates nothing: every trace
// record with the memory column comes through here.
KEMD_API void ReadProcStatusValue(pid_t pid, uint64_t& value, std::string_view key,
                                  uint32_t scaleSteps);

struct ProcessMemoryInfo {
    uint64_t size;            // VmSize, bytes
    uint64_t peak;            // VmPeak, bytes
    uint64_t swap;            // VmSwap, bytes
    uint64_t reserved;        // always 0
    uint64_t sizeLessShared;  // VmSize minus VmLib, also when one of them is missing
};
// True when both the peak and the size are known.
KEMD_API bool GetProcessMemoryInfo(pid_t pid, ProcessMemoryInfo& info);

// The first process in the order of /proc whose command name is `name`; -1 and false for none.
KEMD_API bool FindProcessByName(int32_t& pid, const char* name);

KEMD_API bool GetProcessExePath(std::string& path, pid_t pid);

// The first line of /proc/<pid>/<fileName>, without its line feed.
KEMD_API bool ReadProcFileLine(pid_t pid, const char* fileName, std::string& text);

KEMD_CLASS_SIZE(ProcessMemoryInfo, 40);
