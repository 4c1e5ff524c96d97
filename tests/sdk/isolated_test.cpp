// kemd-module-host --isolated, driven over its socket as the daemon does.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/file_io.h"
#include "base/isolated_protocol.h"
#include "base/unique_fd.h"
#include "kemd/module.h"
#include "kemd/performance.h"
#include "tests/world.h"

using namespace std::string_view_literals;

namespace {

constexpr const char* kModule = "/test/isolated/isolated_probe.so";

// Messages are shown as "!tag: text", others with their level as "3tag: text".
struct Record {
    uint32_t thread;
    std::string shown;
};

class IsolatedTest : public testing::Test {
  protected:
    // A process with the module loaded into it.
    void Begin(const std::string& user = "", uint64_t memoryLimit = 0,
               const std::string& path = kModule) {
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
        const UniqueFd series(KemdSeriesShare("isolated_probe"));
        m_process = fork();
        if (m_process == 0) Exec({sockets[1], pipes[1], page.Get(), series.Get()});
        close(sockets[1]);
        close(pipes[1]);
        ASSERT_TRUE(Call({.call = IsolatedCall::kLoad, .memoryLimit = memoryLimit},
                         path + '\0' + user + '\0'));
    }
    // The worst that a daemon could leave behind.
    [[noreturn]] static void Exec(std::array<int, 4> above) {
        for (int& fd : above) fd = fcntl(fd, F_DUPFD, 20);
        for (int i = 0; i < 4; ++i) dup2(above[static_cast<size_t>(i)], kIsolatedCalls + i);
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
        return AwaitEnd();
    }
    int AwaitEnd() {
        ReadRecords(SIZE_MAX);
        int status = -1;
        EXPECT_EQ(m_process, waitpid(m_process, &status, 0));
        munmap(m_level, 4096);
        return status;
    }
    // Until there are so many in all, or no more.
    void ReadRecords(size_t count) {
        IsolatedRecord head{};
        while (m_records.size() < count &&
               ReadFully(m_trace.Get(), &head, sizeof head).count == sizeof head) {
            std::string rest(head.size - sizeof head, '\0');
            ASSERT_EQ(rest.size(), ReadFully(m_trace.Get(), rest.data(), rest.size()).count);
            const bool isMessage = head.kind == IsolatedRecordKind::kMessage;
            m_records.push_back({head.thread, (isMessage ? "!" : std::to_string(head.level)) +
                                                  rest.insert(head.tagSize, ": ") + "\n"});
        }
    }
    // All, or the first ones.
    [[nodiscard]] std::string Records(size_t count = SIZE_MAX) const {
        std::string all;
        for (size_t i = 0; i < std::min(count, m_records.size()); ++i) all += m_records[i].shown;
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
    EXPECT_EQ(kIsolatedHasConfigure | kIsolatedHasNotify | kIsolatedHasRequest, m_answer.has);
    EXPECT_EQ("1.2\0\0one\0two\0"sv, m_text);
    // Not a file of this test's root: the settings come with the call.
    ASSERT_TRUE(Call({.call = IsolatedCall::kConfigure},
                     "/etc/m.ini\0[Other]\nNumber = 7\n[Settings]\nNumber = 4\n"sv));
    EXPECT_EQ(0, m_answer.result);
    for (const uint32_t code : {KEMD_NOTIFY_STOP, KEMD_NOTIFY_SHUTDOWN}) {
        ASSERT_TRUE(Call({.call = IsolatedCall::kNotify, .code = code, .runLevel = 6}));
    }
    ASSERT_TRUE(Call({.call = IsolatedCall::kStop}));
    EXPECT_EQ(0, End());
    EXPECT_EQ(
        "!probe: number 4\n!probe: notify 20000 -1, exit event 0\n"
        "!probe: notify 30000 6, exit event 1\n!probe: stop, exit event 1\n!probe: unloaded\n",
        Records());
}

TEST_F(IsolatedTest, RecordsAreWholeAndInOrder) {
    Begin();
    EXPECT_EQ("", Ask("trace"));
    *m_level = 0;
    EXPECT_EQ("", Ask("trace"));
    const std::string longest(PIPE_BUF - 1 - sizeof(IsolatedRecord) - 14, 'l');
    const std::string forms = "3probe: level three\n1isolated_probe: " + longest +
                              "\n!probe: on 1, level 3\n2isolated_probe: object 1\n"
                              "!isolated_probe: object 2\n"
                              "!probe: on 0, level 0\n!isolated_probe: object 2\n";
    *m_level = 3;
    std::thread asks([this] { EXPECT_EQ("", Ask("threads")); });
    ReadRecords(7 + 4 * 500);
    asks.join();
    EXPECT_EQ(0, End());
    EXPECT_EQ(forms, Records(7));
    std::map<uint32_t, int> threads;  // and the number of their next record
    for (size_t i = 7; i < m_records.size(); ++i) {
        const auto& [thread, shown] = m_records[i];
        const std::string head = shown.substr(0, 10) + std::to_string(threads[thread]++) + " ";
        const auto size = static_cast<size_t>(shown[8] - '0') * 100;  // as the thread's number says
        ASSERT_EQ(head + std::string(size, 'x') + "\n", shown);
    }
    EXPECT_EQ(4U, threads.size());
}

TEST_F(IsolatedTest, HasNothingButItsOwn) {
    Begin();
    std::string open;
    const std::string process = "/proc/" + std::to_string(m_process);
    for (const auto& entry : std::filesystem::directory_iterator(process + "/fd")) {
        const int fd = std::stoi(entry.path().filename());
        const std::string target = std::filesystem::read_symlink(entry.path());
        open += fd > 512 ? target.substr(0, target.find(':')) : entry.path().filename().string();
        open += fd < 3 ? "=" + target + " " : " ";
    }
    EXPECT_EQ("0=/dev/null 1=/dev/null 2=/dev/null socket pipe ", open);
    EXPECT_EQ("kemd-isolated_p", Status("Name"));
    EXPECT_EQ("0026", Status("Umask"));
    EXPECT_EQ("0000000000000000", Status("SigBlk"));
    // SIGPIPE, SIGXFSZ and SIGIO.
    EXPECT_EQ("0000000011001000", Status("SigIgn"));
    EXPECT_EQ("/", std::filesystem::read_symlink(process + "/cwd"));
    EXPECT_EQ(0, End());
}

TEST_F(IsolatedTest, LastRecordsAreThereAfterItsEnd) {
    Begin();
    EXPECT_EQ("no answer", Ask("die"));
    EXPECT_EQ(SIGKILL, AwaitEnd());
    EXPECT_EQ("1probe: last words\n", Records());
    // A call that is too long is not cut.
    Begin();
    EXPECT_EQ("no answer", Ask(std::string(kIsolatedMostText, 'x')));
    EXPECT_EQ(1 << 8, AwaitEnd());
    EXPECT_TRUE(Contains(Records(), "is too long: the process ends"));
}

TEST_F(IsolatedTest, UserHasNoRights) {
    if (!Contains(ReadFile("/proc/self/uid_map"), "4294967295")) GTEST_SKIP() << "one user only";
    WriteFile("/etc/passwd", "root:x:0:0::/:/bin/sh\nagent:x:4711:4712::/:/bin/sh\n");
    for (const std::string user : {"agent", "root"}) {
        Begin(user);
        ASSERT_EQ(IsolatedOutcome::kReturned, m_answer.outcome) << m_text;
        const bool isRoot = user == "root";
        EXPECT_EQ(isRoot ? "0\t0\t0\t0" : "4711\t4711\t4711\t4711", Status("Uid"));
        EXPECT_EQ(isRoot ? "0\t0\t0\t0" : "4712\t4712\t4712\t4712", Status("Gid"));
        EXPECT_EQ(isRoot ? "0 " : "4712 ", Status("Groups"));
        for (const char* set : {"CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"}) {
            EXPECT_EQ("0000000000000000", Status(set)) << set;
        }
        EXPECT_EQ("1", Status("NoNewPrivs"));
        struct stat status {};  // of a process that may leave a core
        EXPECT_EQ(0, stat(("/proc/" + std::to_string(m_process) + "/stat").c_str(), &status));
        EXPECT_EQ(isRoot ? 0U : 4711U, status.st_uid);
        EXPECT_EQ(0, End());
    }
    // A change of user resets it.
    std::thread([this] { Begin("agent"); }).join();
    EXPECT_EQ(SIGKILL, AwaitEnd());
    std::filesystem::create_directories("/tmp/private");
    std::filesystem::permissions("/tmp/private", std::filesystem::perms(0700));
    std::filesystem::copy(kModule, "/tmp/private/isolated_probe.so");
    const struct {
        const char* path;
        const char* user;
        const char* reason;
    } kRefused[] = {
        {kModule, "nobody", "it cannot become user nobody: there is no such user"},
        {"/tmp/private/isolated_probe.so", "agent",
         "user agent cannot read /tmp/private/isolated_probe.so: Permission denied"},
    };
    for (const auto& [path, user, reason] : kRefused) {
        Begin(user, 0, path);
        EXPECT_EQ(IsolatedOutcome::kRefused, m_answer.outcome);
        EXPECT_EQ(reason, m_text);
        EXPECT_EQ(0, End());
    }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they need more memory
TEST_F(IsolatedTest, ACrashForWantOfMemoryIsExplained) {
    // A module that does not look at what malloc returns.
    Begin("", uint64_t{64} << 20);
    EXPECT_EQ("no answer", Ask("grow"));
    EXPECT_EQ(SIGSEGV, AwaitEnd() & 0x7f);
    EXPECT_TRUE(Contains(Records(), "!isolated_probe: little memory was left within MemoryLimit"));
}
#endif

TEST_F(IsolatedTest, RegistryIsReadAndNeverWritten) {
    constexpr const char* kFile = "/etc/orvmon/registry";
    const std::string text = "[HKEY_LOCAL_MACHINE]\n[there]\nn=d=7\n\n\n\n";
    WriteFile(kFile, text);
    Begin();
    // Opened, read, not written, not deleted, read, nothing to save, no new key; the number.
    EXPECT_EQ("0 0 30 30 0 0 30 7", Ask("registry"));
    ASSERT_TRUE(Call({.call = IsolatedCall::kStop}));
    EXPECT_EQ(0, End());
    EXPECT_EQ(text, ReadFile(kFile));
    EXPECT_FALSE(std::filesystem::exists("/etc/orvmon/registry.old"));
}

}  // namespace
