#include "base/module_object.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

// The members that the first release of version 2 had.
constexpr uint32_t kLeastSize = offsetof(KemdModuleV2, request) + sizeof(KemdModuleV2::request);

bool IsName(const char* name) {
    constexpr std::string_view kAllowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
    const std::string_view text = name != nullptr ? name : "";
    return !text.empty() && text.size() <= 63 && text.find_first_not_of(kAllowed) == text.npos;
}

}  // namespace

std::string ModuleName(const std::string& fileName) {
    return fileName.substr(0, fileName.rfind(".so"));
}

std::string ModuleObject::Take(const void* symbol, const std::string& fileName) {
    m_symbol = symbol;
    if (symbol == nullptr) return "it does not export kemdModule";
    const auto* const first = static_cast<const KemdModule*>(symbol);
    if (first->version == KEMD_MODULE_VERSION) {
        if (first->start == nullptr || first->stop == nullptr) return "start or stop is missing";
        m_version1 = first;
        return {};
    }
    if (first->version != KEMD_MODULE_VERSION_2) return "its interface version is another";
    const auto* const second = static_cast<const KemdModuleV2*>(symbol);
    if (second->size < kLeastSize) return "its kemdModule is too small for its version";
    std::memcpy(&m_module, symbol, std::min<size_t>(second->size, sizeof m_module));
    if (!IsName(m_module.name)) {
        return "its name is not made of 1 to 63 letters, digits, \"-\" and \"_\"";
    }
    if (ModuleName(fileName) != m_module.name) {
        return "its name is " + std::string(m_module.name) + ": its file must be called " +
               m_module.name + ".so";
    }
    return {};
}

const char* const* ModuleObject::StartAfter() const {
    static constexpr const char* kNone[] = {nullptr};
    return m_module.startAfter != nullptr ? m_module.startAfter : kNone;
}

bool ModuleObject::HasNotify() const {
    return m_version1 != nullptr ? m_version1->notify != nullptr : m_module.notify != nullptr;
}

int ModuleObject::Configure(const KemdConfig* config) const {
    return HasConfigure() ? m_module.configure(m_module.user, config) : 0;
}

int ModuleObject::Start() const {
    if (m_version1 != nullptr) return m_version1->start();
    return m_module.start != nullptr ? m_module.start(m_module.user) : 0;
}

void ModuleObject::Stop() const {
    if (m_version1 != nullptr) return m_version1->stop();
    if (m_module.stop != nullptr) m_module.stop(m_module.user);
}

void ModuleObject::Notify(uint32_t code, const void* data) const {
    if (!HasNotify()) return;
    if (m_version1 != nullptr) return m_version1->notify(code, data);
    m_module.notify(m_module.user, code, data);
}

int ModuleObject::Health(char* text, size_t size) const {
    if (size > 0) text[0] = '\0';
    return HasHealth() ? m_module.health(m_module.user, text, size) : KEMD_HEALTH_OK;
}

int ModuleObject::Request(const char* text, KemdReply& reply) const {
    return HasRequest() ? m_module.request(m_module.user, text, &reply) : ENOTSUP;
}
