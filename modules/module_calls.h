// The calls that a module offers, on an object with methods of the same names: no exception may
// leave a module. Header only; one object for each module.
#pragma once

#include <cerrno>
#include <cstddef>
#include <exception>
#include <new>

#include "kemd/module.h"
#include "kemd/trace.h"

template <typename Module>
class ModuleCalls {
  public:
    static int Configure(void* user, const KemdConfig* config) {
        return Guarded([&] { return Of(user).Configure(config); });
    }
    static int Start(void* user) {
        return Guarded([&] { return Of(user).Start(); });
    }
    static void Stop(void* user) {
        (void)Guarded([&] { return Of(user).Stop(), 0; });
    }
    static int Health(void* user, char* text, size_t size) {
        return Guarded([&] { return Of(user).Health(text, size); }, KEMD_HEALTH_WARNING);
    }
    static int Request(void* user, const char* text, KemdReply* reply) {
        return Guarded([&] { return Of(user).Request(text, reply); });
    }

  private:
    static Module& Of(void* user) { return *static_cast<Module*>(user); }
    template <typename Call>
    static int Guarded(Call call, int afterFailure = ENOMEM) try {
        return call();
    } catch (const std::bad_alloc&) {
        return afterFailure;
    } catch (const std::exception& error) {
        KemdMessage(Module::kTag, "%s", error.what());
        return afterFailure;
    }
};
