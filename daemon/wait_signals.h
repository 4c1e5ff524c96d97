// The four signals that are blocked in every thread and taken by the signal loop only.
#pragma once

#include <csignal>

inline sigset_t WaitSignals() {
    sigset_t signals{};
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGALRM);
    return signals;
}
