// A module to start from, in C++: a thread that does its work every few seconds until it has to
// stop. template_c.c is the same in C.
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>

#include "kemd/config.h"
#include "kemd/module.h"
#include "kemd/performance.h"
#include "kemd/services.h"
#include "kemd/trace.h"

static constexpr const char* kName = "template";  // the file is called template.so

static std::atomic<int64_t> g_intervalMs;
static KemdEvent* g_stop;
static std::thread g_thread;

static std::atomic<unsigned> g_rounds;  // the thread counts, other calls read
static KemdSeries* g_roundsSeries;      // the same for kemdctl performance

// An exception that leaves a thread ends the daemon: catch here what may throw.
static void Work() {
    do {
        KemdTrace(kName, 3, "round %u", ++g_rounds);
        KemdSeriesAdd(g_roundsSeries, 1);
    } while (KemdEventWait(g_stop, static_cast<uint32_t>(g_intervalMs)) != 0);
}

// Before each start, and on kemdctl modules reload while the thread runs: what is wrong in the file
// has been reported when a read fails, and the module keeps what it had.
static int Configure(void* /*user*/, const KemdConfig* config) {
    int64_t interval = 0;
    const int error = KemdConfigTime(config, "Interval", 10'000, 1'000, 3'600'000, &interval);
    if (error == 0) g_intervalMs = interval;
    return error;
}

// Any result other than 0 is traced, and the module is left out: then nothing may be left running.
static int Start(void* /*user*/) {
    g_stop = KemdEventOpen(nullptr, 1, 0);
    if (g_stop == nullptr) return ENOMEM;
    const KemdSeriesDescription series = {sizeof series, KEMD_SERIES_COUNTER, "work_rounds",
                                          nullptr,       "Rounds of work",    nullptr};
    const int failure = KemdSeriesRegister(&g_roundsSeries, &series);
    if (failure != 0) KemdMessage(kName, "no series: %s", std::strerror(failure));  // works without
    try {
        g_thread = std::thread(Work);
    } catch (const std::system_error& error) {
        KemdMessage(kName, "no thread: %s", error.what());
        KemdSeriesRelease(g_roundsSeries);
        KemdEventClose(g_stop);
        return error.code().value();
    }
    return 0;
}

// The module is unloaded after this returns, so its thread must have ended.
static void Stop(void* /*user*/) {
    KemdEventSet(g_stop);
    g_thread.join();
    KemdSeriesRelease(g_roundsSeries);
    KemdEventClose(g_stop);
}

static int Health(void* /*user*/, char* text, size_t size) {
    const std::string rounds = std::to_string(g_rounds) + " rounds";
    text[rounds.copy(text, size - 1)] = '\0';
    return KEMD_HEALTH_OK;
}

static int Request(void* /*user*/, const char* text, KemdReply* reply) {
    if (std::strcmp(text, "rounds") != 0) {
        constexpr char kHelp[] = "this module knows the request \"rounds\"";
        reply->write(reply, kHelp, sizeof kHelp - 1);
        return EINVAL;
    }
    const std::string rounds = std::to_string(g_rounds);
    return reply->write(reply, rounds.data(), rounds.size());
}

// In the order of the members: version and size, name, version and description of the module, what
// must run before it, a pointer for every call, and the calls.
KEMD_MODULE_V2 = {KEMD_MODULE_V2_HEAD,
                  kName,
                  "1.0",
                  "A module to start from",
                  nullptr,
                  nullptr,
                  Configure,
                  Start,
                  Stop,
                  nullptr,
                  Health,
                  Request};
