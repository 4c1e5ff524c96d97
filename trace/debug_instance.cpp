// The one trace object of the process.
#include <pthread.h>
#include <unistd.h>

#include "trace/debug.h"

// Ready before the first constructor of a static object and there after the last destructor.
constinit NeverDestroyed<CDebug> g_debugObject;

// Before Init there is nothing to keep a child from, and the daemon forks to detach.
static void AbandonInChild() {
    if (Debug.ProcessId() != 0) Debug.AbandonInChild();
}

__attribute__((constructor)) static void WatchForks() {
    (void)pthread_atfork(nullptr, nullptr, AbandonInChild);
}

// The lowest priority number runs last, behind every destructor of the executable. Not in a child
// that was made without the handlers of a fork: the thread that holds the lock may not exist there.
__attribute__((destructor(101))) static void CloseDebug() {
    if (Debug.ProcessId() == getpid()) Debug.Close();
}
