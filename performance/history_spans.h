// Which of the resolutions answers for which time: spans in the order of recording. One thread uses
// an object.
#pragma once

#include <algorithm>
#include <vector>

#include "performance/history_format.h"

class KeySpans {
  public:
    // In order; one that goes on where the last one ends is joined to it.
    void Add(HistoryKey first, HistoryKey last, bool goesOn) {
        if (goesOn && !m_spans.empty()) {
            m_spans.back().last = std::max(m_spans.back().last, last);
        } else {
            m_spans.push_back({first, last});
        }
    }
    // Whether one span has both ends.
    [[nodiscard]] bool Cover(HistoryKey first, HistoryKey last) const {
        const auto after =
            std::upper_bound(m_spans.begin(), m_spans.end(), first,
                             [](HistoryKey key, const Span& span) { return key < span.first; });
        return after != m_spans.begin() && last <= std::prev(after)->last;
    }

  private:
    struct Span {
        HistoryKey first;
        HistoryKey last;
    };
    std::vector<Span> m_spans;
};
