#include "kemdctl/trace/choice.h"

#include <algorithm>

namespace {

template <typename Values, typename Value>
bool Has(const Values& values, const Value& value) {
    return std::find(values.begin(), values.end(), value) != values.end();
}

bool IsAnyIn(const std::vector<Pattern>& patterns, std::string_view text) {
    return std::any_of(patterns.begin(), patterns.end(),
                       [text](const Pattern& pattern) { return pattern.IsIn(text); });
}

}  // namespace

bool Choice::TakesAll() const {
    return !since && !until && threads.empty() && tags.empty() && wanted.empty() &&
           excluded.empty();
}

bool Choice::Takes(const TraceRecord& record) const {
    if (since && record.time < *since) return false;
    if (until && record.time > *until) return false;
    if (!threads.empty() && !Has(threads, record.thread)) return false;
    if (!tags.empty() && !Has(tags, record.tag)) return false;
    if (!wanted.empty() && !IsAnyIn(wanted, record.text)) return false;
    return !IsAnyIn(excluded, record.text);
}
