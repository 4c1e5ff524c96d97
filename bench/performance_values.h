// What the comparisons of values share: samples, and the bounds that they give to another reader.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <optional>
#include <string>

#include "performance/sampler.h"

// Values in their units, by the series' identities.
using Values = std::map<std::string, double>;

struct Moment {
    double seconds = 0;
    Values values;
};

class Host {
  public:
    Moment Sample() {
        Moment moment;
        m_sampler.Sample(m_table);
        moment.seconds = static_cast<double>(SampleTime::Now().monotonic) / 1e9;
        for (SeriesTable::Index i = 0; i < m_table.Size(); ++i) {
            if (!m_table.IsUsed(i) || !m_table.HasValue(i)) continue;
            const SeriesInfo& info = m_table.Info(i);
            moment.values[SeriesId(info)] = SeriesNumber(info, m_table.Value(i));
            m_isCounter[SeriesId(info)] = info.kind == SeriesKind::kCounter;
        }
        return moment;
    }
    [[nodiscard]] bool IsCounter(const std::string& id) const { return m_isCounter.at(id); }

  private:
    Sampler m_sampler{{.processes = false}};
    SeriesTable m_table;
    std::map<std::string, bool> m_isCounter;
};

// What the other tool says, and the bounds that ours allow.
class Comparison {
  public:
    void Check(const char* tool, const std::string& id, const std::string& theirName, double low,
               double value, double high) {
        const double slack = 1e-6 * std::fabs(value);
        const bool isWithin = value >= low - slack && value <= high + slack;
        ++(isWithin ? m_equal : m_different);
        if (isWithin) return;
        std::printf("  %s %s = %.6g, not between %.6g and %.6g of %s\n", tool, theirName.c_str(),
                    value, low, high, id.c_str());
    }
    int Report(const char* tool) const {
        std::printf("%s: %d values equal, %d differ\n", tool, m_equal, m_different);
        return m_different == 0 && m_equal > 0 ? 0 : 1;
    }

  private:
    int m_equal = 0;
    int m_different = 0;
};

// How far a gauge may move between two reads: memory by programs that come and go.
inline double Play(const std::string& id, const Values& values) {
    if (id.starts_with("memory_")) return values.at("memory_total_bytes") / 50;
    if (id.starts_with("filesystem_")) {
        const std::string size =
            id.starts_with("filesystem_inodes") ? "filesystem_inodes" : "filesystem_size_bytes";
        return values.at(size + id.substr(id.find('{'))) / 100;
    }
    if (id.starts_with("load_") || id.starts_with("disk_in_flight")) return 1;
    return id.starts_with("processes_") || id == "tcp_established" ? 10 : 300;
}

// The device that stands for the "*" of a series' identity; nothing when they do not match.
inline std::optional<std::string> DeviceOf(const std::string& id, const std::string& pattern) {
    const size_t star = pattern.find('*');
    if (star == pattern.npos) return id == pattern ? std::optional<std::string>("") : std::nullopt;
    const std::string_view after = std::string_view(pattern).substr(star + 1);
    if (!id.starts_with(pattern.substr(0, star)) || !id.ends_with(after)) return std::nullopt;
    return id.substr(star, id.size() - star - after.size());
}

inline std::string WithDevice(std::string name, const std::string& device) {
    const size_t star = name.find('*');
    return star == name.npos ? name : name.replace(star, 1, device);
}

// The files of /proc and /sys, read once more. 0, or 1 when a value differs.
int CompareFiles(Host& host);
