// A module for a process of its own: it does what the requests ask for.
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "kemd/config.h"
#include "kemd/module.h"
#include "kemd/registry.h"
#include "kemd/services.h"
#include "kemd/trace.h"
#include "kemd/trace_object.h"

namespace {

constexpr const char* kTag = "probe";

__attribute__((destructor)) void Unload() {
    KemdMessage(kTag, "unloaded");
}

int Configure(void* /*user*/, const KemdConfig* config) {
    int64_t number = 0;
    const int error = KemdConfigNumber(config, "Number", 1, 0, 9, &number);
    KemdMessage(kTag, "number %lld", static_cast<long long>(number));
    return error;
}

void Stop(void* /*user*/) {
    KemdMessage(kTag, "stop, exit event %d", KemdEventIsSet(KemdExitEvent()));
}

void Notify(void* /*user*/, uint32_t code, const void* data) {
    KemdMessage(kTag, "notify %x %d, exit event %d", code,
                data != nullptr ? *static_cast<const int32_t*>(data) : -1,
                KemdEventIsSet(KemdExitEvent()));
}

// What reading and changing come to.
std::string UseRegistry() {
    KemdRegistryKey* key = nullptr;
    int32_t number = 0;
    std::string results = std::to_string(KemdRegistryOpen(&key, "HKEY_LOCAL_MACHINE/there", 1));
    const int errors[] = {KemdRegistryReadNumber(key, "n", &number),
                          KemdRegistryWriteNumber(key, "n", 8), KemdRegistryDelete(key, "n"),
                          KemdRegistryReadNumber(key, "n", &number), KemdRegistrySave()};
    for (const int error : errors) results += " " + std::to_string(error);
    KemdRegistryClose(key);
    results += " " + std::to_string(KemdRegistryOpen(&key, "HKEY_LOCAL_MACHINE/new", 1));
    return results + " " + std::to_string(number);
}

void TraceOfThreads() {
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([thread] {
            const std::string tail(static_cast<size_t>(thread) * 100, 'x');
            for (int i = 0; i < 500; ++i) KemdTrace(kTag, 3, "%d %d %s", thread, i, tail.c_str());
        });
    }
    for (std::thread& thread : threads) thread.join();
}

// The trace in all its forms.
void TraceInAllForms() {
    KemdTrace(kTag, 3, "\n%s", "level three");
    KemdTrace(kTag, 4, "not this");
    KemdTrace(nullptr, 0, "%s", std::string(5000, 'l').c_str());
    KemdMessage(kTag, "on %d, level %u", KemdTraceOn(), KemdTraceLevel());
    Debug.table->trace(&Debug, 2, "object %d", 1);
    Debug.table->trace(&Debug, 4, "not this");
    Debug.table->message(&Debug, "object %d", 2);
}

int Request(void* /*user*/, const char* text, KemdReply* reply) {
    const std::string request = text;
    if (request == "registry") {
        const std::string results = UseRegistry();
        return reply->write(reply, results.data(), results.size());
    }
    if (request == "grow") {
        for (;;) *static_cast<volatile char*>(std::malloc(100'000)) = 1;
    }
    if (request == "threads") TraceOfThreads();
    if (request == "trace") TraceInAllForms();
    if (request == "die") {
        KemdTrace(kTag, 1, "last words");
        (void)raise(SIGKILL);
    }
    return 0;
}

const char* const kAfter[] = {"one", "two", nullptr};

}  // namespace

KEMD_MODULE_V2 = {.version = KEMD_MODULE_VERSION_2,
                  .size = sizeof(KemdModuleV2),
                  .name = "isolated_probe",
                  .moduleVersion = "1.2",
                  .description = nullptr,
                  .startAfter = static_cast<const char* const*>(kAfter),
                  .user = nullptr,
                  .configure = Configure,
                  .start = nullptr,
                  .stop = Stop,
                  .notify = Notify,
                  .health = nullptr,
                  .request = Request};
