// The one trace object of the process.
#include <unistd.h>

#include "trace/debug.h"

// Ready before the first constructor of a static object and there after the last destructor.
constinit NeverDestroyed<CDebug> g_debugObject;

// The lowest priority number runs last, behind every destructor of the executable. Not in a child
// that a module forked: the thread that holds the lock may not exist there.
__attribute__((destructor(101))) static void CloseDebug() {
    if (Debug.ProcessId() == getpid()) Debug.Close();
}
