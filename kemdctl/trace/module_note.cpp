#include "kemdctl/trace/module_note.h"

#include <algorithm>
#include <array>

std::optional<ModuleNote> ParseModuleNote(const TraceRecord& record) {
    constexpr std::string_view kModule = "module ";
    constexpr std::string_view kFile = ".so ";
    constexpr std::array<std::string_view, 10> kStates = {
        "loading", "loaded",           "starting",        "started",        "stopping",
        "stopped", "cannot be loaded", "failed to start", "failed to stop", "is left out"};
    if (record.tag != "switch" || !record.text.starts_with(kModule)) return {};
    // A piece of an overwritten record may stand behind it.
    std::string_view text = record.text.substr(0, record.text.find('\n'));
    text.remove_prefix(kModule.size());
    const size_t end = text.find(kFile);
    if (end == text.npos) return {};
    const std::string_view name = text.substr(0, end + kFile.size() - 1);
    text.remove_prefix(end + kFile.size());
    const std::string_view state = text.substr(0, text.find(':'));
    if (std::find(kStates.begin(), kStates.end(), state) == kStates.end()) return {};
    return ModuleNote{name, state};
}
