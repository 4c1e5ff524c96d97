// The crash file: a JSON object a line, for each crash of the daemon (base/crash_handler.h) and of
// modules in processes of their own, and for each module that was brought back after crashes. The
// newest 100 lines are kept. Docs: trace-files.md.
//
// Any thread. Reading throws std::bad_alloc.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

// A line. What it does not have is empty or 0.
struct CrashRecord {
    int64_t time = 0;         // milliseconds since 1970, UTC
    std::string enabled;      // the module was brought back: there is nothing else
    bool isIsolated = false;  // of a module's own process
    int64_t process = 0;
    int64_t signal = 0;
    std::string name;     // of the signal
    std::string address;  // that the fault is about, in hexadecimal digits after 0x
    int64_t sender = 0;   // the process that sent the signal
    int64_t thread = 0;
    std::string threadName;
    std::string module;               // without ".so"; empty: none was involved
    std::vector<std::string> frames;  // where it was, then return addresses: "PATH+0xOFFSET"
};

// Lines that are none are left out.
[[nodiscard]] std::vector<CrashRecord> ParseCrashes(std::string_view text);
// Nothing, with errno, when the file cannot be read; no file is an empty one. Root decides with it
// what runs: neither a link nor a file of others, or that others may write, is read.
[[nodiscard]] std::optional<std::vector<CrashRecord>> ReadCrashes();

// Why one of these calls failed, from errno, for messages.
[[nodiscard]] std::string CrashFileFault(int error);

// To append lines: makes the file and, first of all, drops lines beyond the newest 100 but those
// that IsHeldBack needs. For the daemon, at its start. Not open, with errno, on failure.
[[nodiscard]] UniqueFd OpenCrashFile();

// The line of a module's own process, as its handler made it, with a mark. The process may have
// lost its rights: what is no line of a crash is refused with EINVAL. Dropped, with EFBIG, when the
// file has grown beyond 1 MiB. False with errno.
[[nodiscard]] bool AppendIsolatedCrash(std::string_view line);
// Crashes of the module before this no longer count.
[[nodiscard]] bool AppendEnabled(const std::string& module);

// Whether the module has crashed so often that it is not to be started: `isRestarted` three times
// within ten minutes, otherwise once. Crashes of isolated modules do not count, nor does what
// another process sent.
[[nodiscard]] bool IsHeldBack(const std::vector<CrashRecord>& crashes, std::string_view module,
                              bool isRestarted);
