// What a module in a process of its own pays, beside the same module in this process, which traces
// into a ring buffer as the daemon does: a trace record, with this process emptying the pipe, and a
// call; and from the start of the process to the answer that the module is loaded.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "base/isolated_protocol.h"
#include "bench/measure.h"
#include "kemd/module.h"
#include "kemd/performance.h"
#include "trace/debug.h"

namespace {

constexpr const char* kModule = "/test/isolated_bench_module.so";
constexpr uint32_t kLevel = 3;

struct Isolated {
    pid_t process = -1;
    int calls = -1;
    int trace = -1;

    Isolated() {
        std::array<int, 2> sockets{};
        std::array<int, 2> pipes{};
        const int level = memfd_create("level", MFD_CLOEXEC);
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets.data()) != 0 ||
            pipe2(pipes.data(), O_CLOEXEC) != 0 ||
            write(level, &kLevel, sizeof kLevel) != sizeof kLevel) {
            abort();
        }
        const int series = KemdSeriesShare("isolated_bench_module");
        process = fork();
        if (process == 0) Exec({sockets[1], pipes[1], level, series});
        for (const int fd : {sockets[1], pipes[1], level, series}) close(fd);
        calls = sockets[0];
        trace = pipes[0];
        (void)Call(IsolatedCall::kLoad, kModule + std::string(2, '\0'));
    }
    Isolated(const Isolated&) = delete;
    Isolated& operator=(const Isolated&) = delete;
    ~Isolated() {
        close(calls);
        waitpid(process, nullptr, 0);
        close(trace);
    }

    [[noreturn]] static void Exec(std::array<int, 4> given) {
        for (int& fd : given) fd = fcntl(fd, F_DUPFD_CLOEXEC, 20);
        for (int i = 0; i < 4; ++i) dup2(given[static_cast<size_t>(i)], kIsolatedCalls + i);
        execl("/build/bin/kemd-module-host", "kemd-module-host", "--isolated", nullptr);
        abort();
    }
    // The text of the answer.
    [[nodiscard]] std::string Call(IsolatedCall call, const std::string& text) const {
        const IsolatedRequest request = {.call = call};
        std::array<char, 4096> message{};
        std::memcpy(message.data(), &request, sizeof request);
        text.copy(message.data() + sizeof request, 1024);
        const size_t size = sizeof request + text.size();
        if (send(calls, message.data(), size, 0) < 0) abort();
        const ssize_t got = recv(calls, message.data(), message.size(), 0);
        if (got < static_cast<ssize_t>(sizeof(IsolatedAnswer))) abort();
        return {message.data() + sizeof(IsolatedAnswer),
                static_cast<size_t>(got) - sizeof(IsolatedAnswer)};
    }
    [[nodiscard]] std::string Request(const std::string& text) const {
        return Call(IsolatedCall::kRequest, text);
    }
};

// The module in this process.
struct Inside {
    const KemdModuleV2* module = nullptr;

    Inside() {
        void* const library = dlopen(kModule, RTLD_NOW | RTLD_LOCAL);
        if (library != nullptr) {
            module = static_cast<const KemdModuleV2*>(dlsym(library, "kemdModule"));
        }
        if (module == nullptr) abort();
    }
    struct Reply : KemdReply {
        std::string text;
        Reply() : KemdReply{Append} {}
        static int Append(KemdReply* reply, const char* part, size_t length) {
            static_cast<Reply*>(reply)->text.append(part, length);
            return 0;
        }
    };
    [[nodiscard]] std::string Request(const std::string& text) const {
        Reply reply;
        module->request(nullptr, text.c_str(), &reply);
        return reply.text;
    }
};

void StartTrace() {
    std::filesystem::create_directories("/etc/norvik/OrvanaSuite/TraceConfig");
    std::ofstream("/etc/norvik/OrvanaSuite/TraceConfig/kemd.ini")
        << "[kemd]\nFileDebugLevel = " << kLevel
        << "\nRingBufferSizeFactor = 1\nRingBufferSizeWeight = 1\nMemoryTracesFlag = 0\n"
           "RingBufferDirectory = /tmp\n[EndOfFile]\n";
    if (!Debug.Init("kemd")) abort();
    Debug.InitDone();
}

// The module measures itself, so that no call is in it.
void CompareRecords(const Inside& inside, const Isolated& isolated) {
    std::vector<Contender> contenders = {{"record in the daemon", {}},
                                         {"record of an isolated module", {}}};
    for (int round = 0; round < 101; ++round) {
        contenders[0].nanoseconds.push_back(std::stod(inside.Request("5000")));
        contenders[1].nanoseconds.push_back(std::stod(isolated.Request("5000")));
    }
    Report("trace record without the memory column", contenders);
}

void CompareCalls(const Inside& inside, const Isolated& isolated) {
    std::vector<Contender> contenders = {
        Make("call in the daemon", [&](int) { (void)inside.Request("0"); }),
        Make("call of an isolated module", [&](int) { (void)isolated.Request("0"); }),
    };
    MeasureRounds(contenders, 101, 500);
    Report("call", contenders);
}

void MeasureStart() {
    std::vector<Contender> contenders = {Make("start of a process, module loaded, and its end",
                                              [](int) { const Isolated isolated; })};
    MeasureRounds(contenders, 21, 5);
    Report("process", contenders);
}

}  // namespace

int main() {
    StartTrace();
    const Inside inside;
    const Isolated isolated;
    std::thread([pipe = isolated.trace] {
        static std::array<char, 65536> part;
        while (read(pipe, part.data(), part.size()) > 0) {
        }
    }).detach();
    CompareRecords(inside, isolated);
    CompareCalls(inside, isolated);
    MeasureStart();
    std::fflush(stdout);
    _exit(0);
}
