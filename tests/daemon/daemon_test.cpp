#include "tests/daemon/daemon_test.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "base/paths.h"
#include "tests/modules.h"

namespace fs = std::filesystem;

constexpr const char* kStandardError = "/tmp/stderr";

void DaemonTest::SetUp() {
    std::error_code ignored;
    for (const char* path : {kPidFile, kLockFile, "/etc/orvmon", "/var/log/orvmon"}) {
        fs::remove_all(path, ignored);
    }
    fs::create_directories(m_logDirectory);
    WriteFile("/usr/bin/systemctl", "");
    WriteFile("/etc/orvmon/RunLevel", "3\n");  // a stop without a delay
    ConfigureTrace(3);
    m_environment = {{"OV_NICKNAME", "SLES12"}, {"PATH", "/nowhere"}};
    UseSwitch("c");
}

void DaemonTest::TearDown() {
    while (!m_running.empty()) Kill(m_running.back());
}

void DaemonTest::UseSwitch(const std::string& name, const std::string& script) {
    m_environment["LD_LIBRARY_PATH"] =
        name == "reference" ? "/build/lib" : "/test/switches/" + name;
    WriteFile("/tmp/script", script);
}

void DaemonTest::UseReferenceSwitch() {
    UseSwitch("reference");
    m_environment["OV_MODULE_DIR"] = kModules;
    ClearModules();
    for (const char* const path : {"/etc/kemd", kModuleHost}) fs::remove_all(path);
    fs::create_symlink("/build/bin/kemd-module-host", kModuleHost);
}

void DaemonTest::Settings(const std::string& module, const std::string& lines) {
    const fs::path file = fs::path(kModuleSettingsDirectory) / (module + ".ini");
    WriteFile(file, "[Module]\n" + lines);
    for (const fs::path& path : {file.parent_path().parent_path(), file.parent_path(), file}) {
        MakeSafe(path);
    }
}

pid_t DaemonTest::Start(const std::vector<std::string>& arguments, void (*prepare)()) {
    for (const char* file : {"/tmp/calls", kStandardError}) fs::remove(file);
    const pid_t pid = fork();
    if (pid != 0) {
        if (pid > 0) m_running.push_back(pid);
        return pid;
    }
    dup2(open(kStandardError, O_WRONLY | O_CREAT, 0644), STDERR_FILENO);
    if (prepare != nullptr) prepare();
    for (const auto& [name, value] : m_environment) setenv(name.c_str(), value.c_str(), 1);
    const char* program = "/build/bin/kemd";
    std::vector<const char*> argv{program};
    for (const std::string& argument : arguments) argv.push_back(argument.c_str());
    argv.push_back(nullptr);
    execv(program, const_cast<char**>(argv.data()));
    _exit(127);
}

pid_t DaemonTest::StartAndWait(const std::vector<std::string>& arguments) {
    const pid_t pid = Start(arguments);
    EXPECT_TRUE(WaitFor([] { return Contains(Calls(), "StartAllModules\n"); }));
    return pid;
}

pid_t DaemonTest::Run(std::vector<std::string> arguments, const std::string& until) {
    arguments.insert(arguments.begin(), "-n");
    const std::string ring = m_logDirectory + "/log.kemd_a";
    for (const std::string& file : {m_logDirectory + "/log.kemd", ring}) fs::remove(file);
    const pid_t pid = Start(arguments);
    EXPECT_TRUE(WaitFor([&] {
        siginfo_t ended{};
        waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT);
        // A module may close the log file.
        return ended.si_pid == pid || Contains(Log() + RingText(ring), until);
    }));
    return pid;
}

int DaemonTest::WaitForExit(pid_t pid) {
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    std::erase(m_running, pid);
    return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
}

int DaemonTest::Stop(pid_t pid, int signal) {
    if (pid <= 0) return -1;  // there was no process; 0 would be all of ours
    kill(pid, signal);
    return WaitForExit(pid);
}

void DaemonTest::ExpectNoChildLeft() {
    EXPECT_TRUE(WaitFor([] { return waitpid(-1, nullptr, WNOHANG) < 0; }));
}

pid_t DaemonTest::PidFromFile() {
    EXPECT_TRUE(WaitFor([] { return ReadFile(kPidFile).ends_with('\n'); }));
    const auto pid = static_cast<pid_t>(strtol(ReadFile(kPidFile).c_str(), nullptr, 10));
    if (pid > 0) m_running.push_back(pid);
    return pid;
}

std::string DaemonTest::Complaints() {
    return ReadFile(kStandardError);
}
