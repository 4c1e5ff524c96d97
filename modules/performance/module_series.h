// The series of other modules (kemd/performance.h) as series of the table. One thread. Throws
// std::bad_alloc alone, and can go on after that.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kemd/performance.h"
#include "performance/series.h"

class ModuleSeries {
  public:
    // Sets the values of this moment; of a module whose process has died there are none. Series
    // that come and go all the time, as those of a broken module may, are taken up every ten
    // seconds.
    void Sample(SeriesTable& table, int64_t monotonic);
    [[nodiscard]] size_t Count() const { return m_places.size(); }
    // Isolated modules that have series and whose process has died.
    [[nodiscard]] const std::set<std::string>& Dead() const { return m_dead; }

  private:
    struct Place {
        SeriesTable::Index index;
        std::string module;
        std::string name;  // with its labels
    };
    struct Known {
        uint64_t id;
        const Place* place;  // null: refused
    };

    void Take();
    [[nodiscard]] bool IsSame() const;
    void TakeUp(SeriesTable& table);
    [[nodiscard]] bool MayTakeUp(int64_t monotonic);
    [[nodiscard]] const Place* Find(uint64_t id) const;
    void RemoveGone(SeriesTable& table);
    void AddNew(SeriesTable& table, uint64_t id);

    std::vector<KemdSeriesValue> m_values;
    std::map<uint64_t, Place> m_places;  // by id
    std::set<std::string> m_names;
    std::set<uint64_t> m_refused;  // ids that are shown for nothing, or twice
    std::vector<Known> m_known;    // of the sample before, in the order of the values
    std::set<std::string> m_dead;
    int64_t m_changes = 0;  // that were taken up, less one every ten seconds
    int64_t m_since = 0;
};
