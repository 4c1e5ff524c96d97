#include "tools/kemdctl/trace_line.h"

#include <algorithm>
#include <array>

namespace {

bool HasForm(std::string_view text, std::string_view form) {
    if (text.size() < form.size()) return false;
    return std::equal(form.begin(), form.end(), text.begin(), [](char wanted, char c) {
        return wanted == 'd' ? c >= '0' && c <= '9' : c == wanted;
    });
}

}  // namespace

std::optional<TraceLine> ParseTraceLine(std::string_view line) {
    constexpr std::string_view kStamp = "dddd-dd-dd dd:dd:dd.ddd";
    constexpr size_t kHead = kStamp.size() + 12;  // with the thread: " [D82A0740] "
    if (line.size() < kHead || !HasForm(line, kStamp) || line[kHead - 2] != ']') return {};
    std::string_view text = line.substr(kHead);
    constexpr std::string_view kMemory = " KB !";
    const size_t memory = text.substr(0, 26).find(kMemory);
    const bool hasMemory = text.substr(0, memory).find_first_not_of(" 0123456789") == text.npos;
    if (memory != text.npos && hasMemory) text.remove_prefix(memory + kMemory.size());
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    if (text.find("________________") != text.npos) return {};
    return TraceLine{line.substr(0, kStamp.size()), text};
}

std::optional<ModuleNote> ParseModuleNote(std::string_view text) {
    constexpr std::string_view kTag = "switch ";
    constexpr std::string_view kModule = "module ";
    constexpr std::string_view kFile = ".so ";
    constexpr std::array<std::string_view, 7> kStates = {
        "loaded",          "started",        "stopped",    "cannot be loaded",
        "failed to start", "failed to stop", "is left out"};
    if (!text.starts_with(kTag)) return {};
    text.remove_prefix(std::min(text.find_first_not_of(' ', kTag.size()), text.size()));
    if (!text.starts_with(kModule)) return {};
    text.remove_prefix(kModule.size());
    const size_t end = text.find(kFile);
    if (end == text.npos) return {};
    const std::string_view name = text.substr(0, end + kFile.size() - 1);
    text.remove_prefix(end + kFile.size());
    const std::string_view state = text.substr(0, text.find(':'));
    if (std::find(kStates.begin(), kStates.end(), state) == kStates.end()) return {};
    return ModuleNote{name, state};
}
