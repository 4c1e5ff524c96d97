// An example module: counts its starts in the registry. A thread of its own works off orders, which
// a semaphore counts; a profile file says how many orders each start brings.
#include <atomic>

#include "kemd/module.h"
#include "kemd/profile.h"
#include "kemd/registry.h"
#include "kemd/semaphore.h"
#include "kemd/thread.h"
#include "kemd/trace.h"

static constexpr const char* kTag = "counter";
static constexpr const char* kProfile = "/etc/orvmon/counter.ini";

static SemaphoreHandle g_orders;
static std::atomic<bool> g_stop{false};
static CThread g_thread;

static void* WorkOffOrders(void* /*argument*/) {
    for (unsigned order = 1; WaitForSemaphore(g_orders, -1) == 0 && !g_stop; ++order) {
        KemdTrace(kTag, 3, "order %u", order);
    }
    return nullptr;
}

static void CountStart() {
    CRegistry registry;
    if (registry.CreateKey(HKEY_LOCAL_MACHINE, "SOFTWARE\\kemd\\counter") != 0) {
        KemdMessage(kTag, "no registry: the start is not counted");
        return;
    }
    int32_t starts = 0;
    registry.QueryValue(&starts, "Starts");  // 0 when it is not there yet
    registry.SetValue("Starts", starts + 1);
    KemdMessage(kTag, "start number %d", starts + 1);
}

static int Start() {
    CProfileFile profile;
    profile.SetFileName(kProfile, false);
    const uint32_t orders = profile.GetUInt("Counter", "Orders", 1);
    CountStart();
    g_stop = false;
    if (CreateSemaphore(g_orders, orders, orders, nullptr) != 1) return 1;
    if (g_thread.Start(WorkOffOrders, nullptr, 0, false, 0, true)) return 0;
    CloseSemaphore(g_orders);
    return 2;
}

static void Stop() {
    g_stop = true;
    ReleaseSemaphore(g_orders, 1);
    g_thread.WaitForTermination(-1);
    CloseSemaphore(g_orders);
}

KEMD_MODULE = {KEMD_MODULE_VERSION, Start, Stop, nullptr};
