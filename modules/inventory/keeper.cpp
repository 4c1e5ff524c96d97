#include "modules/inventory/keeper.h"

#include <fnmatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>

#include "kemd/trace.h"

namespace {

constexpr const char* kTag = "inventory";
constexpr const char* kDirectory = "/var/lib/kemd";
constexpr const char* kFile = "/var/lib/kemd/inventory.json";
// More says nothing: the hardware is another one.
constexpr size_t kMostLines = 100;

const char* OrNone(const char* text) {
    return text == nullptr ? "(none)" : text;
}

// Calls `write` with a line for each thing that changed.
template <typename Write>
void Describe(const KemdInventoryChange& change, const Write& write) {
    const KemdInventoryItem* const item = change.after != nullptr ? change.after : change.before;
    const std::string id = KemdInventoryItemId(item);
    if (change.before == nullptr || change.after == nullptr) {
        const char* const what = change.after != nullptr ? " added: " : " removed: ";
        write(id + what + KemdInventoryItemName(item));
        return;
    }
    if (change.fieldCount == 0) write(id + " changed: it sits in another place");
    for (uint32_t i = 0; i < change.fieldCount; ++i) {
        const KemdInventoryFieldChange& field = change.fields[i];
        write(id + " changed: " + field.name + ": " + OrNone(field.before) + " -> " +
              OrNone(field.after));
    }
}

std::string TimeText(int64_t seconds) {
    const time_t time = seconds;
    struct tm local {};
    char text[64];
    if (localtime_r(&time, &local) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0) {
        return "an unknown time";
    }
    return text;
}

template <typename At>
std::vector<std::string> Texts(const KemdInventory& inventory, const At& at) {
    std::vector<std::string> texts;
    while (const char* const text = at(&inventory, texts.size())) texts.emplace_back(text);
    return texts;
}

size_t CountItems(const KemdInventory& inventory) {
    size_t count = 0;
    while (KemdInventoryAt(&inventory, count) != nullptr) ++count;
    return count;
}

}  // namespace

void InventoryKeeper::Configure(const InventorySettings& settings) {
    const std::lock_guard lock(m_mutex);
    m_settings = settings;
}

// A device that came while a scan ran is seen by the scan and by the watch.
void InventoryKeeper::Trace(const KemdInventoryChange& change) {
    const std::lock_guard lock(m_mutex);
    Describe(change, [this](const std::string& line) {
        if (m_compared.erase(line) != 0) return;
        m_compared.clear();
        if (m_seen.size() >= kMostLines) return;
        m_seen.insert(line);
        KemdTrace(kTag, 1, "%s", line.c_str());
        if (m_seen.size() < kMostLines) return;
        KemdTrace(kTag, 1, "many changes: the next inventory has what follows");
    });
}

void InventoryKeeper::ReportKept(int error) {
    const bool isNew = error != m_keptError;
    m_keptError = error;
    if (error == 0 || error == ENOENT || !isNew) return;
    KemdMessage(kTag, "cannot read the last inventory in %s: %s; a new one replaces it", kFile,
                error == EBADMSG ? "it is no inventory" : std::strerror(error));
}

InventoryHandle InventoryKeeper::Kept() {
    KemdInventory* kept = nullptr;
    const int error = KemdInventoryLoad(&kept, kFile);
    const std::lock_guard lock(m_mutex);
    ReportKept(error);
    return InventoryHandle(kept);
}

void InventoryKeeper::Compare(const KemdInventory& before, const KemdInventory& after,
                              bool isQuiet) {
    std::vector<std::string> lines;
    const auto collect = [](void* user, const KemdInventoryChange* change) {
        Describe(*change, [user](std::string line) {
            static_cast<std::vector<std::string>*>(user)->push_back(std::move(line));
        });
    };
    const int error = KemdInventoryCompare(&before, &after, 0, collect, &lines);
    if (error != 0) {
        KemdMessage(kTag, "cannot compare with the last inventory: %s", std::strerror(error));
        return;
    }
    const std::lock_guard lock(m_mutex);
    m_compared.clear();
    size_t count = 0;
    for (const std::string& line : lines) {
        if (m_earlier.contains(line) || m_seen.contains(line)) continue;
        if (++count > kMostLines) continue;
        KemdTrace(kTag, 1, "%s", line.c_str());
        m_compared.insert(line);
    }
    if (count > kMostLines) KemdTrace(kTag, 1, "and %zu more changes", count - kMostLines);
    if (isQuiet && count == 0) return;
    KemdTrace(kTag, 1, "%zu change%s since the inventory of %s", lines.size(),
              lines.size() == 1 ? "" : "s", TimeText(KemdInventoryTime(&before)).c_str());
}

void InventoryKeeper::TakeWarnings(const KemdInventory& inventory) {
    std::vector<std::string> warnings = Texts(inventory, KemdInventoryWarning);
    const std::lock_guard lock(m_mutex);
    std::erase_if(warnings, [this](const std::string& warning) {
        return std::any_of(m_settings.accepted.begin(), m_settings.accepted.end(),
                           [&](const std::string& pattern) {
                               return fnmatch(pattern.c_str(), warning.c_str(), 0) == 0;
                           });
    });
    const auto trace = [](const auto& these, const auto& others, const char* what) {
        for (const std::string& text : these) {
            if (std::find(others.begin(), others.end(), text) != others.end()) continue;
            KemdTrace(kTag, 1, "%s%s", what, text.c_str());
        }
    };
    trace(warnings, m_warnings, "warning: ");
    trace(m_warnings, warnings, "no longer: ");
    m_warnings = std::move(warnings);
}

void InventoryKeeper::Take(bool isQuiet, bool asksAll) {
    uint32_t sections = 0;
    {
        const std::lock_guard lock(m_mutex);
        sections = m_settings.sections;
        m_earlier = std::move(m_seen);
        m_seen.clear();
    }
    const InventoryHandle kept = m_unsaved == nullptr ? Kept() : nullptr;
    const KemdInventory* const before = m_unsaved != nullptr ? m_unsaved.get() : kept.get();
    KemdInventory* scanned = nullptr;
    int error = KemdInventoryRescan(&scanned, sections, before, asksAll ? 0 : 1);
    InventoryHandle inventory(scanned);
    if (error == 0) {
        // The daemon's mask lets nobody else in, but other modules' files may be read by all.
        if (mkdir(kDirectory, 0755) == 0) (void)chmod(kDirectory, 0755);
        error = KemdInventorySave(inventory.get(), kFile);
        // What JSON cannot hold would differ from what is read back.
        if (error == 0) inventory = Kept();
        if (inventory != nullptr) {
            if (before != nullptr) Compare(*before, *inventory, isQuiet);
            TakeWarnings(*inventory);
        }
    }
    const std::lock_guard lock(m_mutex);
    if (error != 0 && error != m_error) {
        KemdMessage(kTag, "cannot keep the inventory in %s: %s", kFile, std::strerror(error));
    }
    m_error = error;
    if (error == 0) m_unsaved = nullptr;
    if (inventory == nullptr) return;
    m_time = KemdInventoryTime(inventory.get());
    m_items = CountItems(*inventory);
    if (error != 0) m_unsaved = std::move(inventory);
}

std::string InventoryKeeper::Problems() const {
    const std::lock_guard lock(m_mutex);
    std::string problems;
    for (const std::string& warning : m_warnings) {
        problems += (problems.empty() ? "" : "; ") + warning;
    }
    return problems;
}

int InventoryKeeper::Error() const {
    const std::lock_guard lock(m_mutex);
    return m_error;
}

std::string InventoryKeeper::Status() const {
    const std::lock_guard lock(m_mutex);
    std::string text = m_time == 0 ? "no inventory yet\n"
                                   : std::to_string(m_items) + " items at " + TimeText(m_time) +
                                         ", in " + kFile + "\n";
    for (const std::string& warning : m_warnings) text += "warning: " + warning + "\n";
    return text;
}
