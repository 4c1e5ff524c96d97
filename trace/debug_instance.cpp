// The one trace object of the process.
#include "services/base/never_destroyed.h"
#include "trace/debug.h"

// `Debug` must be there before the first constructor of a static object and after the last
// destructor, so it is initialised at compile time and never destroyed. The union that sees to that
// is defined under the linker name of `Debug`: extension modules written in any language find the
// object itself there, with its virtual table first.
extern KEMD_API NeverDestroyed<CDebug> g_debugObject __asm__("Debug");
constinit NeverDestroyed<CDebug> g_debugObject;

// The lowest priority number runs last, behind every destructor of the executable.
__attribute__((destructor(101))) static void CloseDebug() {
    g_debugObject.object.Close();
}
