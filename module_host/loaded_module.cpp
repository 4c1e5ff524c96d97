#include "module_host/loaded_module.h"

#include <dlfcn.h>

#include <cstring>
#include <memory>
#include <new>

#include "base/library_file.h"

std::string LoadedModule::Load(const char* path) {
    const LibraryFault fault = LookAtLibrary(path);
    if (!fault.text.empty()) return fault.text;
    // dlopen is declared not to throw, but an initialiser of the module may. The volatile pointer
    // hides dlopen from the compiler, which would otherwise leave the handler out.
    void* (*volatile const open)(const char*, int) = dlopen;
    m_library = open(path, RTLD_NOW | RTLD_LOCAL);
    if (m_library == nullptr) return LoaderText(dlerror());
    const std::string fileName = std::strrchr(path, '/') + 1;
    m_name = ModuleName(fileName);
    return m_object.Take(dlsym(m_library, "kemdModule"), fileName);
}

int LoadedModule::Configure(KemdConfig* config) const {
    const std::unique_ptr<KemdConfig, void (*)(KemdConfig*)> owner(config, KemdConfigClose);
    if (config == nullptr) throw std::bad_alloc();
    return m_object.Configure(config);
}

void LoadedModule::Unload() {
    (void)dlclose(m_library);
}
