#include "modules/network/kept_state.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "kemd/services.h"
#include "kemd/trace.h"

namespace {

constexpr const char* kKey = "HKEY_LOCAL_MACHINE/SOFTWARE/kemd/network/interfaces";

struct KeyCloser {
    void operator()(KemdRegistryKey* key) const { KemdRegistryClose(key); }
};
using Key = std::unique_ptr<KemdRegistryKey, KeyCloser>;

Key OpenKey(bool make, int* error = nullptr) {
    KemdRegistryKey* key = nullptr;
    const int result = KemdRegistryOpen(&key, kKey, make ? 1 : 0);
    if (error != nullptr) *error = result;
    return Key(key);
}

// The registry's file cannot hold every name that an interface may have.
std::string Encoded(std::string_view name) {
    std::string text;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 || std::string_view("._-@").find(c) != std::string_view::npos) {
            text += c;
            continue;
        }
        char code[4];
        std::snprintf(code, sizeof code, "%%%02x", static_cast<unsigned>(byte));
        text += code;
    }
    return text;
}

std::string Decoded(std::string_view text) {
    std::string name;
    while (!text.empty()) {
        unsigned byte = 0;
        const bool isCode = text.size() > 2 && std::sscanf(std::string(text.substr(0, 3)).c_str(),
                                                           "%%%2x", &byte) == 1;
        name += isCode ? static_cast<char>(byte) : text[0];
        text.remove_prefix(isCode ? 3 : 1);
    }
    return name;
}

}  // namespace

bool KeptState::Load(KeptTexts& texts) {
    m_stored.clear();
    m_error = 0;
    const Key key = OpenKey(false);
    if (!key) return false;
    for (uint32_t index = 0;; ++index) {
        char name[512];
        char text[512];
        size_t nameSize = sizeof name;
        size_t textSize = sizeof text;
        const int error = KemdRegistryValueName(key.get(), index, name, &nameSize, nullptr);
        if (error == ENOENT) break;
        if (error != 0 || KemdRegistryReadText(key.get(), name, text, &textSize) != 0) continue;
        m_stored[Decoded(name)] = text;
    }
    texts = m_stored;
    return true;
}

int KeptState::TrySave(const KeptTexts& texts) {
    int error = 0;
    const Key key = OpenKey(true, &error);
    if (!key) return error;
    for (const auto& [name, text] : m_stored) {
        if (texts.contains(name)) continue;
        error = KemdRegistryDelete(key.get(), Encoded(name).c_str());
        if (error != 0 && error != ENOENT) return error;
    }
    for (const auto& [name, text] : texts) {
        const auto stored = m_stored.find(name);
        if (stored != m_stored.end() && stored->second == text) continue;
        error = KemdRegistryWriteText(key.get(), Encoded(name).c_str(), text.c_str());
        if (error != 0) return error;
    }
    return KemdRegistrySave();
}

void KeptState::Save(const KeptTexts& texts) {
    // What can only be read stays so until the next start.
    if (m_error == EROFS || texts == m_stored) return;
    const int error = TrySave(texts);
    if (error == 0) {
        m_stored = texts;
    } else if (m_error == 0) {
        KemdMessage(
            "network",
            "cannot keep the state of the interfaces in the registry: %s%s; until it can, "
            "each run is compared with what was kept last",
            std::strerror(error),
            error == EROFS ? " (with Isolated = yes it can only be read)" : "; see kemdctl check");
    }
    m_error = error;
}
