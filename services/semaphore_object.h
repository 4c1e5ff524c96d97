// The shared state behind all handles of one semaphore, and the table of the named ones.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <cstdint>

#include "services/name_registry.h"

struct SemaphoreObject {
    sem_t sem;
    std::atomic<int32_t> refCount;
};

// Semaphores are looked up here; nothing in kemd enters one.
SemaphoreRegistry& NamedSemaphores();
