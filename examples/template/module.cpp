// A module to start from: a thread that does its work every few seconds until it has to stop. The
// interval is a number in the registry.
#include "kemd/module.h"

#include <cstdint>
#include <system_error>
#include <thread>

#include "kemd/event.h"
#include "kemd/registry.h"
#include "kemd/trace.h"

static constexpr const char* kTag = "template";
static constexpr const char* kKey = "SOFTWARE\\kemd\\template";

static EventHandle g_stop;
static std::thread g_thread;

// 10 when the registry has no valid number.
static uint32_t SecondsBetweenRounds() {
    CRegistry registry;
    int32_t seconds = 0;
    if (registry.Open(kKey, HKEY_LOCAL_MACHINE) != 0) return 10;
    if (registry.QueryValue(&seconds, "Seconds") != 0 || seconds < 1 || seconds > 3600) return 10;
    return static_cast<uint32_t>(seconds);
}

// Stands for something that takes a while.
static unsigned CountBits(unsigned number) {
    unsigned bits = 0;
    for (; number != 0; number >>= 1) bits += number & 1;
    return bits;
}

// An exception that leaves a thread ends the daemon: catch here what may throw.
static void Work(uint32_t seconds) {
    unsigned round = 0;
    do {
        ++round;
        // The arguments of a call are computed even when tracing is off.
        if (KemdTraceOn() != 0) KemdTrace(kTag, 3, "round %u, %u bits", round, CountBits(round));
    } while (WaitForEvent(g_stop, seconds * 1000) == kWaitTimedOut);
}

// Any result other than 0 is traced, and the module is left out: then nothing may be left running.
static int Start() {
    const uint32_t seconds = SecondsBetweenRounds();
    CreateEvent(g_stop, false, true, nullptr);
    if (g_stop.event == nullptr) return 1;
    try {
        g_thread = std::thread(Work, seconds);
    } catch (const std::system_error& error) {
        KemdMessage(kTag, "no thread: %s", error.what());
        return 2;
    }
    KemdTrace(kTag, 2, "every %u s", seconds);
    return 0;
}

// The module is unloaded after this returns, so its thread must have ended.
static void Stop() {
    SetEvent(g_stop);
    g_thread.join();
}

KEMD_MODULE = {KEMD_MODULE_VERSION, Start, Stop, nullptr};
