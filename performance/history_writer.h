// Writes the history: one mapped file of fixed size, see docs/performance-format.md. Samples,
// minutes and hours each have a part of it, in which the oldest block makes way for the newest.
//
// Append and Mark belong to one thread; Sync may run beside them on another.
#pragma once

#include <memory>
#include <string>

#include "performance/history_settings.h"
#include "performance/sample_time.h"
#include "performance/series.h"

class HistoryWriter {
  public:
    // Goes on with the file that is there: what another run wrote is kept, also when `size`
    // differs. A file that is no history is set aside, not overwritten. Null with the reason, which
    // names the file, when it cannot be written: no space (all its blocks are reserved here), no
    // rights.
    static std::unique_ptr<HistoryWriter> Open(const HistorySettings& settings, std::string& error);
    // What was torn or set aside when the file was opened, a line each; empty in the usual case.
    const std::string& Findings() const;
    ~HistoryWriter();

    // One sample of all series that have a value. It is in the file when the call returns: a killed
    // process loses nothing. No system call, and no allocation unless series were added.
    void Append(const SampleTime& time, const SeriesTable& table);
    // What was left out since the file was opened because it is too small, as "3 rows and 2
    // series"; empty in the usual case.
    std::string Losses(const SeriesTable& table) const;
    void Mark(const ::Mark& mark);
    // Until it returns, what was appended before the call may be lost in a power cut. 0 or an errno
    // number.
    int Sync();

  private:
    struct File;
    explicit HistoryWriter(std::unique_ptr<File> file);
    std::unique_ptr<File> m_file;
};
