// A fixture that runs the real daemon on its real paths with the switch library that a test
// selects. Traced at level 3, with start-up and run-time ring buffers; the start-up ring stays
// readable because the daemon finds no gzip.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <map>
#include <string>
#include <vector>

#include "tests/world.h"

#if defined __SANITIZE_THREAD__ || defined __SANITIZE_ADDRESS__
#define KEMD_SANITIZED  // with memory, signal handlers, and perhaps a thread, of its own
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

class DaemonTest : public testing::Test {
  protected:
    static constexpr const char* kPidFile = "/var/run/kemd.pid";
    static constexpr const char* kLockFile = "/var/lock/kemd.lock";
    static constexpr const char* kWaits = "Waiting for signals";

    void SetUp() override;
    void TearDown() override;

    // "c" of the tests or "reference"; `script`: see c_switch.cpp.
    void UseSwitch(const std::string& name, const std::string& script = "");

    // The one that ships, with modules in the directory of tests/modules.h, which is empty.
    void UseReferenceSwitch();
    // The section [Module] of a module's file.
    static void Settings(const std::string& module, const std::string& lines);

    // The process id of the started program. `prepare` runs in it before the daemon does.
    pid_t Start(const std::vector<std::string>& arguments, void (*prepare)() = nullptr);
    // The same, until the C switch library is asked to start its modules.
    pid_t StartAndWait(const std::vector<std::string>& arguments);
    // Starts in the foreground, until the daemon waits for signals (its log says `until`) or has
    // ended.
    pid_t Run(std::vector<std::string> arguments = {}, const std::string& until = kWaits);
    // The exit status, or 1000 and the number of the signal that ended the process.
    int WaitForExit(pid_t pid);
    int Stop(pid_t pid, int signal = SIGTERM);
    void Kill(pid_t pid) { (void)Stop(pid, SIGKILL); }
    // A child of a module has become a child of this process, which is process 1.
    static void ExpectNoChildLeft();
    // The process that wrote the process-id file; waits for the file.
    pid_t PidFromFile();

    static std::string Complaints();  // standard error of the last start
    static std::string Calls() { return ReadFile("/tmp/calls"); }
    [[nodiscard]] std::string Log() const { return ReadFile(m_logDirectory + "/log.kemd"); }
    [[nodiscard]] bool WaitForLog(const std::string& text) const {
        return WaitFor([&] { return Contains(Log(), text); });
    }
    // Both ring buffers, one after the other.
    [[nodiscard]] std::string Trace() const {
        return RingText(m_logDirectory + "/log.kemd_i") + RingText(m_logDirectory + "/log.kemd_a");
    }

    std::map<std::string, std::string> m_environment;
    std::string m_logDirectory = "/var/log/orvmon";

  private:
    std::vector<pid_t> m_running;
};
