// The series of other modules (kemd/performance.h) as series of the table. One thread. Throws
// std::bad_alloc alone, and can go on after that.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "kemd/performance.h"
#include "performance/series.h"

class ModuleSeries {
  public:
    // Sets the values of this moment; of a module whose process has died there are none.
    void Sample(SeriesTable& table);
    [[nodiscard]] size_t Count() const { return m_places.size(); }
    // Whether this module has any.
    [[nodiscard]] bool Has(const std::string& module) const;
    // Isolated modules that have series and whose process has died.
    [[nodiscard]] const std::set<std::string>& Dead() const { return m_dead; }

  private:
    struct Place {
        SeriesTable::Index index;
        std::string module;
        std::string name;  // with its labels
    };

    void Take();
    [[nodiscard]] bool IsSame() const;
    void RemoveGone(SeriesTable& table);
    void AddNew(SeriesTable& table, uint64_t id);

    std::vector<KemdSeriesValue> m_values;
    std::map<uint64_t, Place> m_places;  // by id
    std::set<std::string> m_names;
    std::set<uint64_t> m_refused;  // ids that are shown for nothing, or twice
    std::vector<uint64_t> m_ids;   // of the sample before
    std::set<std::string> m_dead;
};
