#include "kemd/semaphore.h"

#include <semaphore.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <new>
#include <utility>

#include "base/never_destroyed.h"
#include "services/name_registry.h"

// The shared state behind all handles of one semaphore.
struct SemaphoreObject {
    sem_t sem;
    std::atomic<int32_t> refCount;
};

namespace {

constinit NeverDestroyed<SemaphoreRegistry> g_semaphores;

enum class Dropped { kOthersRemain, kDestroyed, kDestroyFailed };

// Also empties the handle.
Dropped DropReference(SemaphoreHandle& handle) {
    SemaphoreObject* const object = std::exchange(handle.object, nullptr);
    if (--object->refCount != 0) return Dropped::kOthersRemain;
    const bool destroyed = sem_destroy(&object->sem) == 0;
    delete object;
    return destroyed ? Dropped::kDestroyed : Dropped::kDestroyFailed;
}

void JoinNamed(SemaphoreHandle& handle, const char* name) {
    auto* object = static_cast<SemaphoreObject*>(g_semaphores.object.Find(name));
    if (object == nullptr) return;
    handle.object = object;
    ++object->refCount;
}

SemaphoreObject* NewSemaphore(int64_t initialCount, int64_t maximumCount) {
    if (initialCount < 0 || maximumCount < 0 || maximumCount > SEM_VALUE_MAX) return nullptr;
    auto* object = new (std::nothrow) SemaphoreObject{{}, 1};
    if (object == nullptr) return nullptr;
    const auto value = static_cast<unsigned>(std::min(initialCount, maximumCount));
    if (sem_init(&object->sem, 0, value) == 0) return object;
    delete object;
    return nullptr;
}

}  // namespace

SemaphoreRegistry& NamedSemaphores() {
    return g_semaphores.object;
}

int CreateSemaphore(SemaphoreHandle& handle, int64_t initialCount, int64_t maximumCount,
                    const char* name) {
    if (name != nullptr) {
        JoinNamed(handle, name);
        return 1;
    }
    if (handle.object != nullptr && DropReference(handle) != Dropped::kDestroyed) return 0;
    handle.object = NewSemaphore(initialCount, maximumCount);
    return handle.object != nullptr ? 1 : 0;
}

int CloseSemaphore(SemaphoreHandle& handle) {
    if (handle.object == nullptr) return 0;
    return DropReference(handle) == Dropped::kDestroyed ? 1 : 0;
}

int WaitForSemaphore(SemaphoreHandle& handle, int32_t timeoutMs) {
    if (handle.object == nullptr) return -1;
    if (timeoutMs == -1) return sem_wait(&handle.object->sem) == 0 ? 0 : -1;
    // Required: one attempt, whatever the timeout.
    if (sem_trywait(&handle.object->sem) == 0) return 0;
    return timeoutMs == 0 ? 102 : -1;
}

bool ReleaseSemaphore(SemaphoreHandle& handle, int64_t count) {
    if (handle.object == nullptr || count < 1) return false;
    for (; count > 0; --count) {
        if (sem_post(&handle.object->sem) != 0) return false;
    }
    return true;
}
