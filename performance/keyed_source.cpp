// /proc/meminfo and /proc/vmstat: a line for each number. Which lines there are and in which order
// depends on the kernel: their places are remembered, and searched again when they moved.
#include <span>

#include "performance/source.h"
#include "performance/text_cursor.h"

namespace {

// A key whose number is added to a series, or multiplies what is there.
struct KeyRow {
    std::string_view key;
    size_t series;
    bool isFactor = false;
};

// Where a key was last.
struct Place {
    size_t line;
    const KeyRow* row;
};

class KeyedSource : public Source {
  public:
    KeyedSource(SourceFile file, std::span<const SeriesRow> rows, std::span<const KeyRow> keys)
        : m_file(std::move(file)),
          m_rows(rows),
          m_keys(keys),
          m_series(rows.size()),
          m_values(rows.size()) {}

    void Sample(SampleContext& context) override {
        std::string_view text = m_file.ReadPart(context);
        // What is wanted is usually in the first part, and each part takes the kernel a pass over
        // all its counters.
        bool isFound = !m_places.empty() && ReadPlaces(text);
        while (!text.empty() && !isFound) {
            const size_t before = text.size();
            text = m_file.ReadMore(context);
            if (text.size() == before) break;
            isFound = !m_places.empty() && ReadPlaces(text);
        }
        if (!isFound) {
            FindPlaces(text);
            (void)ReadPlaces(text);
        }
        for (size_t i = 0; i < m_series.size(); ++i) {
            if (m_values[i].isThere) {
                m_series[i].Set(context.table, m_rows[i], m_values[i].number);
            } else {
                m_series[i].Clear(context.table);
            }
        }
    }

    void AddNotes(std::vector<std::string>& notes) const override {
        m_file.AddNote(notes, m_rows.front().name);
        if (m_file.Error() != 0) return;
        for (size_t i = 0; i < m_rows.size(); ++i) {
            if (m_values[i].isThere) continue;
            notes.push_back(m_file.Path() + ": not counted by this kernel: no " + m_rows[i].name);
        }
    }

  private:
    struct Value {
        uint64_t number = 0;
        bool isThere = false;
    };

    // False when a key is not in its place.
    bool ReadPlaces(std::string_view text) {
        std::fill(m_values.begin(), m_values.end(), Value{});
        TextCursor cursor(text);
        size_t line = 0;
        for (const Place& place : m_places) {
            for (; line < place.line; ++line) {
                if (!cursor.NextLine()) return false;
            }
            Value& value = m_values[place.row->series];
            uint64_t number = 0;
            TextCursor at = cursor;
            if (!at.Skip(place.row->key) || !at.Number(number)) return false;
            if (place.row->isFactor) {
                value.number *= number;
            } else {
                value = {value.number + number, true};
            }
        }
        return true;
    }
    void FindPlaces(std::string_view text) {
        m_places.clear();
        TextCursor cursor(text);
        for (size_t line = 0; !cursor.AtEnd(); ++line) {
            for (const KeyRow& row : m_keys) {
                TextCursor number = cursor;
                uint64_t ignored = 0;
                if (number.Skip(row.key) && number.Number(ignored))
                    m_places.push_back({line, &row});
            }
            cursor.NextLine();
        }
    }

    SourceFile m_file;
    std::span<const SeriesRow> m_rows;
    std::span<const KeyRow> m_keys;
    std::vector<LazySeries> m_series;
    std::vector<Value> m_values;
    std::vector<Place> m_places;  // in the order of their lines
};

constexpr SeriesRow Kib(const char* name, const char* help) {
    return {name, "bytes", help, SeriesKind::kGauge, 1024};
}
constexpr SeriesRow kMemory[] = {
    Kib("memory_total_bytes", "Memory that the kernel manages"),
    Kib("memory_free_bytes", "Memory used by nothing"),
    Kib("memory_available_bytes", "Memory that programs can have without swapping"),
    Kib("memory_buffers_bytes", "Blocks of devices in memory"),
    Kib("memory_cached_bytes", "Files in memory, shared memory included"),
    Kib("memory_anonymous_bytes", "Memory of programs that is not of files"),
    Kib("memory_slab_bytes", "The kernel's own objects"),
    Kib("memory_dirty_bytes", "Changed files that wait to be written"),
    Kib("memory_writeback_bytes", "Files that are being written"),
    Kib("memory_shared_bytes", "Shared memory and tmpfs"),
    Kib("memory_committed_bytes", "Memory promised to programs"),
    Kib("memory_commit_limit_bytes", "Limit of what may be promised, in strict mode"),
    Kib("swap_total_bytes", "Swap space"),
    Kib("swap_free_bytes", "Swap space used by nothing"),
    Kib("memory_huge_total_bytes", "Reserved huge pages of the default size"),
    Kib("memory_huge_free_bytes", "Those of them that are free"),
};
constexpr KeyRow kMemoryKeys[] = {
    {"MemTotal:", 0},
    {"MemFree:", 1},
    {"MemAvailable:", 2},
    {"Buffers:", 3},
    {"Cached:", 4},
    {"AnonPages:", 5},
    {"Slab:", 6},
    {"Dirty:", 7},
    {"Writeback:", 8},
    {"Shmem:", 9},
    {"Committed_AS:", 10},
    {"CommitLimit:", 11},
    {"SwapTotal:", 12},
    {"SwapFree:", 13},
    {"HugePages_Total:", 14},
    {"HugePages_Free:", 15},
    {"Hugepagesize:", 14, true},
    {"Hugepagesize:", 15, true},
};

constexpr SeriesRow kPaging[] = {
    {"paged_in_bytes", "bytes", "Read from block devices", SeriesKind::kCounter, 1024},
    {"paged_out_bytes", "bytes", "Written to block devices", SeriesKind::kCounter, 1024},
    {"swapped_in_pages", "pages", "Pages read from swap"},
    {"swapped_out_pages", "pages", "Pages written to swap"},
    {"page_faults", "", "Page faults"},
    {"major_page_faults", "", "Page faults that waited for a disk"},
    {"reclaimed_pages", "pages", "Pages taken back from files and programs"},
    {"reclaim_scanned_pages", "pages", "Pages looked at to take some back"},
    {"oom_kills", "", "Processes killed for want of memory"},
};
constexpr KeyRow kPagingKeys[] = {
    {"pgpgin ", 0},
    {"pgpgout ", 1},
    {"pswpin ", 2},
    {"pswpout ", 3},
    {"pgfault ", 4},
    {"pgmajfault ", 5},
    {"pgsteal_kswapd ", 6},
    {"pgsteal_direct ", 6},
    {"pgsteal_khugepaged ", 6},
    {"pgsteal_proactive ", 6},
    {"pgscan_kswapd ", 7},
    {"pgscan_direct ", 7},
    {"pgscan_khugepaged ", 7},
    {"pgscan_proactive ", 7},
    {"oom_kill ", 8},
};

}  // namespace

void AddKeyedSources(Sources& sources) {
    sources.push_back(
        std::make_unique<KeyedSource>(SourceFile("/proc/meminfo"), kMemory, kMemoryKeys));
    sources.push_back(
        std::make_unique<KeyedSource>(SourceFile("/proc/vmstat", true), kPaging, kPagingKeys));
}
