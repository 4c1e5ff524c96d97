// Which modules of the running kernel fit a PCI function: depmod's list of aliases, read line by
// line.
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "base/file_io.h"
#include "base/line_reader.h"
#include "base/text.h"
#include "inventory/host_inventory.h"
#include "inventory/pci_function.h"

namespace {

// Of "alias pci:v00008086d...sv*sd*bc*sc*i* e1000e"; empty when the line is another one.
std::string_view PatternOf(std::string_view line) {
    constexpr std::string_view kStart = "alias pci:";
    if (!line.starts_with(kStart)) return {};
    line.remove_prefix(std::string_view("alias ").size());
    return line.substr(0, line.find(' '));
}

bool Fits(const std::string& pattern, size_t literal, const std::string& modalias) {
    return modalias.compare(0, literal, pattern, 0, literal) == 0 &&
           fnmatch(pattern.c_str(), modalias.c_str(), 0) == 0;
}

}  // namespace

std::vector<std::vector<std::string>> FindPciModules(KemdInventory& inventory,
                                                     const std::vector<PciFunction>& functions) {
    std::vector<std::vector<std::string>> modules(functions.size());
    struct utsname system {};
    if (functions.empty() || uname(&system) != 0) return modules;
    const std::string path = std::string("/lib/modules/") + system.release + "/modules.alias";
    const UniqueFd file = OpenRegularFile(path.c_str(), O_RDONLY);
    const int openError = errno;
    if (!file.IsOpen()) {
        if (openError != ENOENT && openError != ENOTDIR) inventory.NoteError(path, openError);
        return modules;
    }
    // "pci:v00008086", of which most lines have another.
    constexpr size_t kVendorEnd = 14;
    std::set<std::string, std::less<>> vendors;
    for (const PciFunction& function : functions) {
        vendors.insert(function.modalias.substr(0, kVendorEnd));
    }
    LineReader reader(file.Get());
    std::string pattern;
    for (std::string_view line; reader.Next(line);) {
        const std::string_view text = PatternOf(line);
        const size_t literal = text.find_first_of("*?[");
        if (text.empty() ||
            (literal >= kVendorEnd && !vendors.contains(text.substr(0, kVendorEnd)))) {
            continue;
        }
        pattern = text;
        const std::string module(Trim(line.substr(line.rfind(' ') + 1)));
        for (size_t i = 0; i < functions.size(); ++i) {
            std::vector<std::string>& found = modules[i];
            if (Fits(pattern, std::min(literal, pattern.size()), functions[i].modalias) &&
                std::find(found.begin(), found.end(), module) == found.end()) {
                found.push_back(module);
            }
        }
    }
    if (reader.HasFailed()) inventory.NoteError(path, reader.Error());
    return modules;
}
