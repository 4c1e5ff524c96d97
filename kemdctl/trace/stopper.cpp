#include "kemdctl/trace/stopper.h"

#include <sys/time.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t g_isInterrupted = 0;

// A signal may come just before the process begins to wait: alarms follow until it is seen.
void NoteInterrupt(int /*signal*/) {
    g_isInterrupted = 1;
    alarm(1);
}

void Repeat(int /*signal*/) {
    alarm(1);
}

void StartTimer(int64_t milliseconds) {
    itimerval timer = {};
    timer.it_value.tv_sec = milliseconds / 1000;
    timer.it_value.tv_usec = milliseconds % 1000 * 1000;
    (void)setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

Stopper::Stopper(std::optional<int64_t> timeout) {
    g_isInterrupted = 0;
    struct sigaction action = {};
    action.sa_handler = NoteInterrupt;
    // The second one ends the process, whatever it waits for.
    action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
    (void)sigaction(SIGINT, nullptr, &m_oldInterrupt);
    if (m_oldInterrupt.sa_handler != SIG_IGN) (void)sigaction(SIGINT, &action, nullptr);
    (void)sigaction(SIGTERM, &action, &m_oldTermination);
    action.sa_handler = Repeat;
    action.sa_flags = SA_RESTART;
    (void)sigaction(SIGALRM, &action, &m_oldAlarm);
    if (!timeout) return;
    m_end = Clock::now() + std::chrono::milliseconds(*timeout);
    if (*timeout > 0) StartTimer(*timeout);
}

Stopper::~Stopper() {
    StartTimer(0);
    (void)sigaction(SIGALRM, &m_oldAlarm, nullptr);
    (void)sigaction(SIGTERM, &m_oldTermination, nullptr);
    (void)sigaction(SIGINT, &m_oldInterrupt, nullptr);
}

bool Stopper::IsInterrupted() const {
    return g_isInterrupted != 0;
}

bool Stopper::IsOver() const {
    return m_end && Clock::now() >= *m_end;
}
