// Reads a history, also while it is being written, and one copied from another machine. It takes no
// lock and does not map the file: whatever its bytes are, and when it is cut, a reader only finds
// less.
//
// One thread uses an object.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "performance/history_points.h"
#include "performance/sample_time.h"
#include "performance/series.h"

class HistoryReader {
  public:
    // Null with the reason, which names the file.
    static std::unique_ptr<HistoryReader> Open(const std::string& path, std::string& error);
    ~HistoryReader();

    const std::string& Host() const;
    const std::string& BootId() const;  // of the newest sample
    int64_t PeriodNs() const;           // of the newest sample
    // Every series that has a sample in the file; the position is its number here. One that came,
    // went and came again is one series.
    const std::vector<SeriesInfo>& Series() const;
    // From the oldest to after the newest sample, over all resolutions; empty when there is none.
    HistorySpan Range() const;
    std::vector<Mark> Marks(HistorySpan span);
    // Damaged parts that were left out, a line each.
    const std::vector<std::string>& Problems() const;

    // The points of each series in `series` within `span`, ordered by wall clock. `step`:
    // nanoseconds, or 0 for every sample. The finest resolution that reaches back far enough is
    // taken, part by part, and merged to steps that begin at multiples of `step`; what is only
    // there more coarsely comes as it is. A step without a sample has no point: a gap is a gap.
    // Where the clock was set back, samples of before and after share wall times: each counts once,
    // in the step of its wall time, and those of one wall time come in the order of recording.
    void Read(std::span<const uint32_t> series, HistorySpan span, int64_t step,
              std::vector<std::vector<HistoryPoint>>& points);
    // What has been written since: false when the file cannot be read.
    bool Refresh();
    // Empty, or why the file could not be read whole since it was opened or refreshed: a failed
    // read, or a file that was cut. What came since may lack values, so ask at the end.
    const std::string& Error() const;

  private:
    struct File;
    explicit HistoryReader(std::unique_ptr<File> file);
    std::unique_ptr<File> m_file;
};
