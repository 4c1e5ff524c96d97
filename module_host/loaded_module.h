// The module that this process holds: loading it, and its calls with what they throw.
#pragma once

#include <cxxabi.h>

#include <array>
#include <cstdio>
#include <exception>
#include <string>

#include "base/module_object.h"
#include "kemd/config.h"

class LoadedModule {
  public:
    // Empty, or why it is no module. What an initialiser of the library throws is passed on.
    // `path` is absolute.
    [[nodiscard]] std::string Load(const char* path);
    // Takes the config, which may be null: there was no memory for it.
    [[nodiscard]] int Configure(KemdConfig* config) const;
    void Unload();

    [[nodiscard]] const ModuleObject& Object() const { return m_object; }
    [[nodiscard]] const std::string& Name() const { return m_name; }

  private:
    void* m_library = nullptr;
    std::string m_name;
    ModuleObject m_object;
};

// Makes a call; false when it threw, then `thrown` says what. A thread that is ending goes on to
// end.
using Thrown = std::array<char, 512>;
template <typename Call>
bool CallGuarded(Thrown& thrown, Call call) {
    try {
        call();
        return true;
    } catch (const std::exception& error) {
        std::snprintf(thrown.data(), thrown.size(), "%s", error.what());
    } catch (...) {
        if (abi::__cxa_current_exception_type() == nullptr) throw;
        std::snprintf(thrown.data(), thrown.size(), "an exception that is no std::exception");
    }
    return false;
}
