#include "module_host/module_process.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <new>
#include <system_error>

namespace {

using Clock = std::chrono::steady_clock;

// Waits for a post, but only for a moment: the process that posts may die.
bool AwaitPost(sem_t& semaphore) {
    constexpr long kSlice = 10'000'000;
    constexpr long kSecond = 1'000'000'000;
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_nsec += kSlice;
    until.tv_sec += until.tv_nsec / kSecond;
    until.tv_nsec %= kSecond;
    return sem_timedwait(&semaphore, &until) == 0;
}

CallBoard* MakeBoard() {
    void* memory =
        mmap(nullptr, sizeof(CallBoard), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
    auto* board = new (memory) CallBoard{};
    sem_init(&board->go, 1, 0);
    sem_init(&board->done, 1, 0);
    return board;
}

}  // namespace

ModuleProcess::ModuleProcess(const char* path)
    : m_board(MakeBoard()), m_ownChildren(ChildrenOf(getpid())) {
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1);  // we inherit orphans and can end them
    m_id = fork();
    if (m_id < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (m_id == 0) ServeCalls(*m_board, path);
    (void)AwaitDone(10);
}

ModuleProcess::~ModuleProcess() {
    if (!m_gone) {
        kill(m_id, SIGKILL);
        waitpid(m_id, nullptr, 0);
    }
    // The processes that it leaves are our children now, and so are those that they leave.
    for (bool found = true; found;) {
        found = false;
        for (const auto& [process, name] : ChildrenOf(getpid())) {
            if (m_ownChildren.contains(process)) continue;
            found = kill(process, SIGKILL) == 0 && waitpid(process, nullptr, 0) == process;
        }
    }
    munmap(m_board, sizeof(CallBoard));
}

bool ModuleProcess::IsGone() {
    if (!m_gone) m_gone = waitpid(m_id, &m_status, WNOHANG) == m_id;
    return m_gone;
}

ModuleProcess::State ModuleProcess::AwaitDone(unsigned timeoutSeconds) {
    const auto deadline = Clock::now() + std::chrono::seconds(timeoutSeconds);
    while (!AwaitPost(m_board->done)) {
        // It may have posted and died after that; then the post counts.
        if (IsGone()) return sem_trywait(&m_board->done) == 0 ? State::kWaiting : State::kGone;
        if (Clock::now() >= deadline) return State::kBlocked;
    }
    return State::kWaiting;
}

ModuleProcess::State ModuleProcess::MakeCall(Call call, unsigned timeoutSeconds) {
    m_board->call = call;
    sem_post(&m_board->go);
    return AwaitDone(timeoutSeconds);
}

bool ModuleProcess::Pause(unsigned seconds) {
    const auto deadline = Clock::now() + std::chrono::seconds(seconds);
    while (!IsGone() && Clock::now() < deadline) usleep(10'000);
    return !IsGone();
}

std::string ModuleProcess::EndText() const {
    if (!WIFSIGNALED(m_status)) {
        return "the module ended the process with status " + std::to_string(WEXITSTATUS(m_status));
    }
    const int signal = WTERMSIG(m_status);
    return "died by signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
}
