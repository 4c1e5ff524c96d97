// Where the suite's files are on a host, for whatever writes, reads or checks them.
#pragma once

// The lock file without its ".lock", as CFileLock takes it.
inline constexpr const char* kLockName = "/var/lock/kemd";
inline constexpr const char* kLockFile = "/var/lock/kemd.lock";
inline constexpr const char* kPidFile = "/var/run/kemd.pid";
inline constexpr const char* kModuleDirectory = "/usr/lib/kemd/modules";
// One file of settings for each module that needs one: NAME.ini.
inline constexpr const char* kModuleSettingsDirectory = "/etc/kemd/modules.d";
// Of the daemon and what ships with it: the control socket.
inline constexpr const char* kSettingsFile = "/etc/kemd/kemd.ini";
inline constexpr const char* kControlDirectory = "/run/kemd";
inline constexpr const char* kControlSocket = "/run/kemd/control";
// Runs a module in a process of its own.
inline constexpr const char* kModuleHost = "/usr/bin/kemd-module-host";
// The variables that the service starts the daemon with.
inline constexpr const char* kDefaultFile = "/etc/default/kemd";
// Written by the stop scripts.
inline constexpr const char* kRunLevelFile = "/etc/orvmon/RunLevel";
inline constexpr const char* kRegistryDirectory = "/etc/orvmon";
inline constexpr const char* kRegistryFile = "/etc/orvmon/registry";
inline constexpr const char* kRegistryOldFile = "/etc/orvmon/registry.old";
inline constexpr const char* kRegistryDefaultFile = "/etc/orvmon/registry.default";
inline constexpr const char* kRegistryImportFile = "/etc/orvmon/registry.import";
inline constexpr const char* kRegistryLockFile = "/etc/orvmon/registry.lock";
inline constexpr const char* kTraceConfigDirectory = "/etc/norvik/OrvanaSuite/TraceConfig";
// Unless it is configured otherwise.
inline constexpr const char* kTraceDirectory = "/var/log/orvmon";
// What the daemon and its modules died of; see base/crash_file.h.
inline constexpr const char* kCrashFile = "/var/log/orvmon/kemd.crashes";
