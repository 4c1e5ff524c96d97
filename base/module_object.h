// What a module exports, version 1 or 2 of its object, with one face for the programs that load
// modules. Does not own the library; must not outlive it.
#pragma once

#include <string>

#include "kemd/module.h"

class ModuleObject {
  public:
    ModuleObject() = default;
    // Takes the object that `symbol` (of kemdModule, may be null) points at, in the library whose
    // file has the name `fileName`. Empty, or why it is no module.
    [[nodiscard]] std::string Take(const void* symbol, const std::string& fileName);

    // Whether two are the same object: one library under two names.
    [[nodiscard]] bool IsSame(const ModuleObject& other) const {
        return m_symbol == other.m_symbol;
    }
    // Null where a version 1 has none.
    [[nodiscard]] const char* Version() const { return m_module.moduleVersion; }
    [[nodiscard]] const char* Description() const { return m_module.description; }
    [[nodiscard]] const char* const* StartAfter() const;

    [[nodiscard]] bool HasConfigure() const { return m_module.configure != nullptr; }
    [[nodiscard]] bool HasNotify() const;
    [[nodiscard]] bool HasHealth() const { return m_module.health != nullptr; }
    [[nodiscard]] bool HasRequest() const { return m_module.request != nullptr; }
    // The calls. One that the module does not have succeeds and does nothing.
    int Configure(const KemdConfig* config) const;
    int Start() const;
    void Stop() const;
    void Notify(uint32_t code, const void* data) const;
    int Health(char* text, size_t size) const;
    // ENOTSUP when it takes none.
    int Request(const char* text, KemdReply& reply) const;

  private:
    const void* m_symbol = nullptr;
    const KemdModule* m_version1 = nullptr;
    KemdModuleV2 m_module{};  // what the module knows of it; the rest is null
};

// The name by which a module's settings are found and others refer to it: its file's without ".so".
std::string ModuleName(const std::string& fileName);
