#include "tests/daemon/daemon_test.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

constexpr const char* kStandardError = "/tmp/stderr";

[[noreturn]] void Become(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment) {
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
    std::string program = "/build/kemd";
    std::vector<char*> argv{program.data()};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
}

}  // namespace

void DaemonTest::SetUp() {
    std::error_code ignored;
    for (const char* path : {kPidFile, kLockFile, "/tmp/calls", "/etc/orvmon", "/var/log/orvmon"}) {
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

pid_t DaemonTest::Start(const std::vector<std::string>& arguments, void (*prepare)()) {
    fs::remove("/tmp/calls");
    fs::remove(kStandardError);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open(kStandardError, O_WRONLY | O_CREAT, 0644), STDERR_FILENO);
        if (prepare != nullptr) prepare();
        Become(arguments, m_environment);
    }
    if (pid > 0) m_running.push_back(pid);
    return pid;
}

pid_t DaemonTest::Run(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"-n"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    fs::remove(m_logDirectory + "/log.kemd");
    const pid_t pid = Start(all);
    EXPECT_TRUE(WaitForLog("Waiting for signals"));
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

void DaemonTest::Kill(pid_t pid) {
    (void)Stop(pid, SIGKILL);
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

std::string DaemonTest::Trace() const {
    return RingText(m_logDirectory + "/log.kemd_i") + RingText(m_logDirectory + "/log.kemd_a");
}

bool DaemonTest::WaitForLog(const std::string& text) const {
    return WaitFor([&] { return Log().find(text) != std::string::npos; });
}

bool DaemonTest::WaitForCall(const std::string& name) {
    return WaitFor([&] { return Calls().find(name + "\n") != std::string::npos; });
}
