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
#include "inventory/mount_table.h"
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

// Aliases are many: those of other vendors are dropped at the first look.
class ModuleFinder {
  public:
    explicit ModuleFinder(const std::vector<PciFunction>& functions)
        : m_functions(functions), m_modules(functions.size()) {
        for (const PciFunction& function : functions) {
            m_vendors.insert(function.modalias.substr(0, kVendorEnd));
        }
    }
    void Take(std::string_view line) {
        const std::string_view text = PatternOf(line);
        const size_t literal = text.find_first_of("*?[");
        const bool hasVendor = literal >= kVendorEnd;
        if (text.empty() || (hasVendor && !m_vendors.contains(text.substr(0, kVendorEnd)))) return;
        const std::string pattern(text);
        const std::string module(Trim(line.substr(line.rfind(' ') + 1)));
        for (size_t i = 0; i < m_functions.size(); ++i) {
            if (!Fits(pattern, std::min(literal, text.size()), m_functions[i].modalias)) continue;
            std::vector<std::string>& found = m_modules[i];
            const bool isKnown = std::find(found.begin(), found.end(), module) != found.end();
            if (!isKnown) found.push_back(module);
        }
    }
    [[nodiscard]] std::vector<std::vector<std::string>> Modules() && {
        return std::move(m_modules);
    }

  private:
    static constexpr size_t kVendorEnd = 14;  // "pci:v00008086"

    const std::vector<PciFunction>& m_functions;
    std::set<std::string, std::less<>> m_vendors;
    std::vector<std::vector<std::string>> m_modules;
};

}  // namespace

std::vector<std::vector<std::string>> FindPciModules(KemdInventory& inventory,
                                                     const std::vector<PciFunction>& functions) {
    ModuleFinder finder(functions);
    struct utsname system {};
    if (functions.empty() || uname(&system) != 0) return std::move(finder).Modules();
    const std::string path = std::string("/lib/modules/") + system.release + "/modules.alias";
    // The service is not to load modules: systemd hides them from it.
    const UniqueFd file = OpenRegularFile(HostPath(path).c_str(), O_RDONLY);
    int error = errno;
    if (file.IsOpen()) {
        LineReader reader(file.Get());
        for (std::string_view line; reader.Next(line);) finder.Take(line);
        error = reader.Error();
    }
    // A kernel need not have modules.
    if (error != 0 && error != ENOENT && error != ENOTDIR) inventory.NoteError(path, error);
    return std::move(finder).Modules();
}
