// Counting semaphores of one process.
//
// Any thread may wait on and release a semaphore; one handle must not be created or closed while
// another thread uses it. Nothing throws. A handle is a plain pointer: its destruction releases
// nothing, and a copy does not count as a reference. WaitForSemaphore without limit is a thread
// cancellation point.
#pragma once

#include <cstdint>

#include "kemd/api.h"

struct SemaphoreObject;

struct SemaphoreHandle {
    SemaphoreObject* object = nullptr;  // null when the handle is empty
};

// A new semaphore of the initial count, or of the maximum when that is smaller. The maximum is not
// enforced later. A reference that the handle held is dropped first; when others hold the same
// semaphore the call then fails. 1 on success; 0 on failure, with the handle empty.
//
// With a name: the handle joins the semaphore of that name. When there is none the handle stays as
// it is, and the result is 1 all the same.
KEMD_API int CreateSemaphore(SemaphoreHandle& handle, int64_t initialCount, int64_t maximumCount,
                             const char* name);
// Empties the handle. 1 when that destroyed the semaphore, 0 when others hold it or the handle was
// empty.
KEMD_API int CloseSemaphore(SemaphoreHandle& handle);
// Takes one unit: 0. With -1 it waits for one without limit; with any other timeout (milliseconds)
// it tries once and does not wait, and without a unit the result is 102 for a timeout of 0 and -1
// for the others. -1 on failure too.
KEMD_API int WaitForSemaphore(SemaphoreHandle& handle, int32_t timeoutMs);
// Adds `count` units. False for an empty handle, for a count below 1, and when a unit was refused;
// the units before it stay added.
KEMD_API bool ReleaseSemaphore(SemaphoreHandle& handle, int64_t count);

static_assert(sizeof(SemaphoreHandle) == 8, "size of SemaphoreHandle");
