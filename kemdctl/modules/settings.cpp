#include "kemdctl/modules/settings.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "base/crash_file.h"
#include "base/file_io.h"
#include "base/file_safety.h"
#include "base/paths.h"
#include "base/text.h"
#include "kemd/profile.h"
#include "kemdctl/facts/daemon_environment.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"
#include "services/module_settings.h"

namespace {

constexpr const char* kModuleSection = "Module";
constexpr const char* kOwnSection = "Settings";

struct Key {
    const char* name;
    const char* fallback;
};
constexpr std::array<Key, 7> kModuleKeys = {{{"Enabled", "yes"},
                                             {"StartTimeout", "10s"},
                                             {"StopTimeout", "10s"},
                                             {"Restart", "on-failure"},
                                             {"Isolated", "no"},
                                             {"User", ""},
                                             {"MemoryLimit", ""}}};

bool IsModuleName(std::string_view name) {
    return !name.empty() && name.size() < 200 && name[0] != '.' && name.find('/') == name.npos;
}

std::string SettingsFile(const char* name) {
    return std::string(kModuleSettingsDirectory) + "/" + name + ".ini";
}

struct Entry {
    std::string key;
    std::string value;
    size_t line;
};

// The entries of a section as the daemon reads them: those of the first section of that name, and
// of each key the first.
std::vector<Entry> EntriesOf(std::string_view text, std::string_view section) {
    std::vector<Entry> entries;
    bool isInside = false;
    for (size_t number = 1; !text.empty(); ++number) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        line = Trim(CutAtNul(line));
        line = TrimEnd(line.substr(0, line.find(';')));
        if (line.starts_with('[')) {
            if (isInside) break;
            line.remove_prefix(1);
            isInside = line.starts_with(section) && line.substr(section.size()).starts_with(']');
            continue;
        }
        const size_t equals = line.find('=');
        if (!isInside || equals == line.npos) continue;
        const std::string key(TrimEnd(line.substr(0, equals)));
        const bool isKnown = std::any_of(entries.begin(), entries.end(),
                                         [&](const Entry& each) { return each.key == key; });
        if (!isKnown) entries.push_back({key, std::string(Trim(line.substr(equals + 1))), number});
    }
    return entries;
}

void State(ReportWriter& report, const char* section, const Entry& entry, const std::string& file,
           const char* remark) {
    const bool isDefault = entry.line == 0;
    const std::string origin = isDefault ? "default" : file + ":" + std::to_string(entry.line);
    report.Object({}, [&] {
        report.Text("section", section);
        report.Text("key", entry.key);
        report.Text("value", entry.value);
        report.Text("from", origin);
        if (*remark != '\0') report.Text("remark", remark);
    });
    report.Line([&] {
        return "[" + std::string(section) + "] " + Printable(entry.key) + " = " +
               Printable(entry.value) + "  (" + Printable(origin) +
               (*remark != '\0' ? std::string(", ") + remark : "") + ")";
    });
}

void StateModuleSection(ReportWriter& report, const std::string& text,
                        const ModuleSettings& settings) {
    const std::string& file = settings.file;
    std::vector<Entry> entries = EntriesOf(text, kModuleSection);
    for (const Key& key : kModuleKeys) {
        const bool isWrong =
            std::any_of(settings.wrongKeys.begin(), settings.wrongKeys.end(),
                        [&](const char* each) { return std::strcmp(each, key.name) == 0; });
        const auto found = std::find_if(entries.begin(), entries.end(),
                                        [&](const Entry& each) { return each.key == key.name; });
        // An empty value counts as none.
        const bool isThere = found != entries.end() && !found->value.empty();
        State(report, kModuleSection, isThere ? *found : Entry{key.name, key.fallback, 0}, file,
              isWrong ? "wrong, not used" : "");
        if (found != entries.end()) entries.erase(found);
    }
    for (const Entry& entry : entries) State(report, kModuleSection, entry, file, "not known");
}

// Makes the directory of the settings.
bool MakeDirectories() {
    for (const char* const directory : {"/etc/kemd", kModuleSettingsDirectory}) {
        if (mkdir(directory, 0755) == 0) {
            (void)chmod(directory, 0755);  // whatever the user's mask is
        } else if (errno != EEXIST) {
            (void)FileError("make", directory);
            return false;
        }
    }
    return true;
}

// Writes the file's text with the key changed, at first beside it.
int WriteEnabled(const std::string& file, const std::string& text, bool isEnabled) {
    OutputFile output(file, 0644);
    if (!output.Open() || !output.Write(text)) return FileError("write", file.c_str());
    const std::string path = "/proc/self/fd/" + std::to_string(output.Get());
    const char* const value = isEnabled ? "yes" : "no";
    errno = EIO;
    if (!WritePrivateProfileString(kModuleSection, "Enabled", value, path.c_str()) ||
        !output.Commit()) {
        return FileError("write", file.c_str());
    }
    return kYes;
}

bool ExistsSomewhere(const char* name) {
    const std::string directory = ModuleDirectory(ReadDaemonEnvironment(ReadDaemonState()));
    struct stat status {};
    return stat((directory + "/" + name + ".so").c_str(), &status) == 0;
}

// The file's text; empty when there is none. Nothing after a complaint.
std::optional<std::string> ReadSettings(const char* name, const std::string& file) {
    if (!IsModuleName(name)) {
        Complain("%s is no name of a module", Printable(name).c_str());
        return std::nullopt;
    }
    auto text = ReadTextFile(file);
    if (text) return text;
    if (errno == ENOENT) return "";
    (void)FileError("read", file.c_str());
    return std::nullopt;
}

// So that they no longer hold it back; false after a complaint. `hasCrashed`: there were some.
bool ForgetCrashes(const char* name, bool& hasCrashed) {
    const auto crashes = ReadCrashes();
    hasCrashed = crashes && IsHeldBack(*crashes, name, false);
    if (crashes && (!hasCrashed || AppendEnabled(name))) return true;
    Complain("%s", CrashFileFault(errno).c_str());
    return false;
}

}  // namespace

int EnableModule(const char* name, bool isEnabled, ReportWriter& report) {
    const std::string file = SettingsFile(name);
    const auto text = ReadSettings(name, file);
    if (!text || !MakeDirectories()) return kError;
    // Whoever may write there decides what runs as root.
    const PathReport walk = WalkPath(file);
    const std::string fault =
        walk.error == ENOENT ? Unsafe(WalkPath(kModuleSettingsDirectory)) : Unsafe(walk);
    if (!fault.empty()) {
        Complain("%s", Printable(fault).c_str());
        return kError;
    }
    if (!ExistsSomewhere(name))
        Complain("note: no module %s is installed", Printable(name).c_str());
    if (WriteEnabled(file, *text, isEnabled) != kYes) return kError;
    bool hasCrashed = false;
    if (isEnabled && !ForgetCrashes(name, hasCrashed)) return kError;
    report.Object({}, [&] {
        report.Text("module", name);
        report.Flag("enabled", isEnabled);
        report.Text("file", file);
        if (isEnabled) report.Flag("hasCrashed", hasCrashed);
        if (hasCrashed) report.Line("its crashes until now no longer count");
        report.Line([&] {
            const std::string command = " now: kemdctl modules ";
            const std::string shown = ShellQuoted(name);
            return isEnabled
                       ? shown + " is started with kemd from the next start on;" + command +
                             "start " + shown
                       : shown + " is not started any more; to stop it" + command + "stop " + shown;
        });
    });
    return kYes;
}

int ShowModuleConfig(const char* name, ReportWriter& report) {
    const std::string file = SettingsFile(name);
    const auto text = ReadSettings(name, file);
    if (!text) return kError;
    const bool isThere = WalkPath(file).error != ENOENT;
    std::string fault;
    const ModuleSettings settings = ReadModuleSettings(name, fault);
    report.Object({}, [&] {
        report.Text("module", name);
        report.Text("file", file);
        report.Flag("exists", isThere);
        report.Line([&] { return Printable(file) + (isThere ? ":" : " is not there:"); });
        report.OpenArray("settings");
        StateModuleSection(report, *text, settings);
        for (const Entry& entry : EntriesOf(*text, kOwnSection)) {
            State(report, kOwnSection, entry, file, "");
        }
        report.Close();
        if (!fault.empty()) report.Text("fault", fault);
        report.Line(
            "The module itself has defaults for the keys of [Settings] that are not there.");
    });
    if (fault.empty()) return kYes;
    Complain("the module is left out: %s", Printable(fault).c_str());
    return kNo;
}
