// kemd-module-host --isolated, driven over its socket as the daemon does.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/isolated_protocol.h"
#include "base/unique_fd.h"
#include "kemd/module.h"
#include "tests/world.h"

using namespace std::string_view_literals;

namespace {

struct Record {
    IsolatedRecord head;
    std::string tag;
    std::string text;
};

class IsolatedTest : public testing::Test {
  protected:
    // A process with the module loaded into it.
    void Begin(const std::string& user = "", uint64_t memoryLimit = 0) {
        StartProcess();
        const std::string path = "/test/isolated/isolated_probe.so";
        ASSERT_TRUE(Call({.call = IsolatedCall::kLoad, .memoryLimit = memoryLimit},
                         path + '\0' + user + '\0'));
    }
    void StartProcess() {
        std::array<int, 2> sockets{};
        std::array<int, 2> pipes{};
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets.data()));
        ASSERT_EQ(0, pipe2(pipes.data(), O_CLOEXEC));
        const UniqueFd page(memfd_create("level", MFD_CLOEXEC));
        ASSERT_EQ(0, ftruncate(page.Get(), 4096));
        m_level = static_cast<std::atomic<uint32_t>*>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, page.Get(), 0));
        *m_level = 3;
        m_calls.Reset(sockets[0]);
        m_trace.Reset(pipes[0]);
        m_records.clear();
        m_process = fork();
        if (m_process == 0) Exec(sockets[1], pipes[1], page.Get());
        close(sockets[1]);
        close(pipes[1]);
    }
    // The worst that a daemon could leave behind.
    [[noreturn]] static void Exec(int calls, int trace, int level) {
        const std::array<int, 3> above = {fcntl(calls, F_DUPFD, 20), fcntl(trace, F_DUPFD, 20),
                                          fcntl(level, F_DUPFD, 20)};
        for (int i = 0; i < 3; ++i) dup2(above[static_cast<size_t>(i)], kIsolatedCalls + i);
        sigset_t all{};
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
        (void)signal(SIGHUP, SIG_IGN);
        execl("/build/bin/kemd-module-host", "kemd-module-host", "--isolated", nullptr);
        _exit(9);
    }
    // True when it answered; the answer's text is in m_text.
    bool Call(const IsolatedRequest& request, std::string_view text = {}) {
        std::string message(reinterpret_cast<const char*>(&request), sizeof request);
        message += text;
        if (send(m_calls.Get(), message.data(), message.size(), MSG_NOSIGNAL) < 0) return false;
        m_text.resize(kIsolatedMostText);
        const ssize_t size = recv(m_calls.Get(), m_text.data(), m_text.size(), 0);
        if (size < static_cast<ssize_t>(sizeof m_answer)) return false;
        std::memcpy(&m_answer, m_text.data(), sizeof m_answer);
        m_text = m_text.substr(sizeof m_answer, static_cast<size_t>(size) - sizeof m_answer);
        return true;
    }
    std::string Ask(std::string_view request) {
        return Call({.call = IsolatedCall::kRequest}, request) ? m_text : "no answer";
    }
    // What /proc says of the process.
    std::string Status(const std::string& key) const {
        const std::string text = ReadFile("/proc/" + std::to_string(m_process) + "/status");
        const size_t start = text.find("\n" + key + ":\t") + key.size() + 3;
        return text.substr(start, text.find('\n', start) - start);
    }
    // Closes the socket and takes what is left in the pipe. How the process ended.
    int End() {
        m_calls.Reset();
        std::string bytes;
        std::array<char, 65536> part{};
        for (ssize_t size = 1; size > 0;) {
            size = read(m_trace.Get(), part.data(), part.size());
            bytes.append(part.data(), static_cast<size_t>(std::max<ssize_t>(size, 0)));
        }
        TakeRecords(bytes);
        int status = -1;
        EXPECT_EQ(m_process, waitpid(m_process, &status, 0));
        munmap(m_level, 4096);
        return status;
    }
    void TakeRecords(std::string_view bytes) {
        while (!bytes.empty()) {
            Record record{};
            ASSERT_LE(sizeof record.head, bytes.size());
            std::memcpy(&record.head, bytes.data(), sizeof record.head);
            ASSERT_LE(record.head.size, bytes.size());
            ASSERT_LE(sizeof record.head + record.head.tagSize, record.head.size);
            record.tag = bytes.substr(sizeof record.head, record.head.tagSize);
            const size_t start = sizeof record.head + record.head.tagSize;
            record.text = bytes.substr(start, record.head.size - start);
            m_records.push_back(record);
            bytes.remove_prefix(record.head.size);
        }
    }
    // All texts, a line each, messages with "!" and records with their level.
    std::string Records() const {
        std::string all;
        for (const Record& record : m_records) {
            const bool isMessage = record.head.kind == IsolatedRecordKind::kMessage;
            all += (isMessage ? "!" : std::to_string(record.head.level)) + record.tag + ": " +
                   record.text + "\n";
        }
        return all;
    }

    pid_t m_process = -1;
    UniqueFd m_calls;
    UniqueFd m_trace;
    std::atomic<uint32_t>* m_level = nullptr;
    IsolatedAnswer m_answer{};
    std::string m_text;
    std::vector<Record> m_records;
};

TEST_F(IsolatedTest, EachCallIsMadeAndAnswered) {
    Begin();
    EXPECT_EQ(IsolatedOutcome::kReturned, m_answer.outcome) << m_text;
    EXPECT_EQ(kIsolatedHasConfigure | kIsolatedHasNotify | kIsolatedHasHealth | kIsolatedHasRequest,
              m_answer.has);
    EXPECT_EQ("1.2\0\0one\0two\0"sv, m_text);
    // Not a file of this test's root: the settings come with the call.
    ASSERT_TRUE(Call({.call = IsolatedCall::kConfigure},
                     "/etc/m.ini\0[Other]\nNumber = 7\n[Settings]\nNumber = 4\n"sv));
    EXPECT_EQ(0, m_answer.result);
    ASSERT_TRUE(Call({.call = IsolatedCall::kConfigure}, "/etc/m.ini\0[Settings]\nNumber=77"sv));
    EXPECT_EQ(ERANGE, m_answer.result);
    ASSERT_TRUE(Call({.call = IsolatedCall::kStart}));
    ASSERT_TRUE(Call({.call = IsolatedCall::kHealth}));
    EXPECT_EQ(KEMD_HEALTH_WARNING, m_answer.result);
    EXPECT_EQ("so so", m_text);
    EXPECT_EQ("thrown", Ask("throw"));
    EXPECT_EQ(IsolatedOutcome::kThrew, m_answer.outcome);
    for (const uint32_t code : {KEMD_NOTIFY_STOP, KEMD_NOTIFY_SHUTDOWN}) {
        ASSERT_TRUE(Call({.call = IsolatedCall::kNotify, .code = code, .runLevel = 6}));
    }
    ASSERT_TRUE(Call({.call = IsolatedCall::kStop}));
    EXPECT_EQ(0, End());
    EXPECT_EQ(
        "!probe: number 4\n"
        "!isolated_probe: /etc/m.ini: [Settings] Number = 77: a number from 0 to 9 is needed; the "
        "default is used\n"
        "!probe: number 1\n!probe: notify 20000 -1, exit event 0\n"
        "!probe: notify 30000 6, exit event 1\n!probe: stop, exit event 1\n!probe: unloaded\n",
        Records());
}

}  // namespace
