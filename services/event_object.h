// The shared state behind all handles of one event. Tests read its fields.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

struct EventObject {
    pthread_cond_t cond;  // on CLOCK_MONOTONIC
    // Guards IsSignaled and waiters; both are also read without it.
    pthread_mutex_t mutex;
    int32_t refCount;  // guarded by the reference lock of event.cpp
    std::atomic<bool> IsManual;
    std::atomic<bool> IsSignaled;
    char* name;  // null: anonymous
    std::atomic<int32_t> waiters;
    pthread_condattr_t condAttr;
};
