// The one trace object of the process.
#include <unistd.h>

#include "services/base/never_destroyed.h"
#include "trace/debug.h"

// `Debug` must be there before the first constructor of a static object and after the last
// destructor, so it is initialised at compile time and never destroyed. It is another name of the
// union that sees to that: extension modules written in any language find the object itself under
// it, with its virtual table first.
extern "C" {
constinit NeverDestroyed<CDebug> g_debugObject;
}
extern KEMD_API CDebug Debug __attribute__((alias("g_debugObject")));

// The lowest priority number runs last, behind every destructor of the executable. Not in a child
// that a module forked: the thread that holds the lock may not exist there.
__attribute__((destructor(101))) static void CloseDebug() {
    if (g_debugObject.object.ProcessId() == getpid()) g_debugObject.object.Close();
}
