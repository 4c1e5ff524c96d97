// Takes samples of the host: each source reads its files of /proc and /sys, which stay open, and
// sets its series in the table. docs/performance-series.md lists all series. One thread uses an
// object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "performance/sample_time.h"
#include "performance/series.h"

struct SamplerSettings {
    bool processes = false;  // the ten processes with the most CPU, memory and input/output
};

class Sampler {
  public:
    explicit Sampler(const SamplerSettings& settings);
    ~Sampler();

    // Sets the values of this moment; adds the series of devices that came, removes those of
    // devices that went. Allocates only for them. Always the same table.
    void Sample(SeriesTable& table);
    // The lines of MarkKind::kProcesses since the sample before; empty without `processes`.
    const std::string& Processes() const;
    // What cannot be had here and why, a line each, as for a user.
    std::vector<std::string> Notes() const;

  private:
    struct Sources;
    std::unique_ptr<Sources> m_sources;
};
