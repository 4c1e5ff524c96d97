// Takes the inventory, keeps it in a file, and traces what changed: since the last time, and as it
// happens. Throws std::bad_alloc alone.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "kemd/inventory.h"

struct InventorySettings {
    int64_t delayMs = 0;
    int64_t periodMs = 0;  // 0: not again
    uint32_t sections = 0;
    std::vector<std::string> accepted;  // patterns of warnings
};

struct InventoryCloser {
    void operator()(KemdInventory* inventory) const { KemdInventoryRelease(inventory); }
    void operator()(KemdInventoryWatch* watch) const { KemdInventoryWatchClose(watch); }
};
using InventoryHandle = std::unique_ptr<KemdInventory, InventoryCloser>;

// One thread calls Take; any may call the others.
class InventoryKeeper {
  public:
    void Configure(const InventorySettings& settings);
    // A scan. `isQuiet`: without a summary when all that changed has been traced as it happened.
    // `asksAll`: drives for their health; otherwise only those that the last inventory does not
    // have.
    void Take(bool isQuiet, bool asksAll);
    // For the watch: traces a change, at most kMostLines lines between two scans.
    void Trace(const KemdInventoryChange& change);

    // What somebody should look at: warnings that are not accepted; empty: nothing.
    [[nodiscard]] std::string Problems() const;
    // Why there is no inventory, or it is not kept; 0 when all is well.
    [[nodiscard]] int Error() const;
    // A few lines, for an administrator.
    [[nodiscard]] std::string Status() const;

  private:
    void Compare(const KemdInventory& before, const KemdInventory& after, bool isQuiet);
    void TakeWarnings(const KemdInventory& inventory);
    [[nodiscard]] InventoryHandle Kept();
    // Once for each error.
    void ReportKept(int error);

    mutable std::mutex m_mutex;  // for all that follows
    InventorySettings m_settings;
    std::vector<std::string> m_warnings;  // those that are not accepted
    int64_t m_time = 0;                   // of the last inventory; 0: none yet
    size_t m_items = 0;
    int m_error = 0;
    int m_keptError = 0;
    std::set<std::string> m_seen;      // lines that the watch has traced since the scan began
    std::set<std::string> m_earlier;   // and before
    std::set<std::string> m_compared;  // lines of the scan, until the watch sees something else
    InventoryHandle m_unsaved;         // the last inventory, when there is no file; Take's thread's
};
