#include "kemdctl/trace/filter.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "kemdctl/ui/command.h"

namespace {

// regexec takes many times as much memory as the text.
constexpr size_t kFragment = size_t{1} << 16;

regmatch_t Range(std::string_view text, size_t from) {
    return {static_cast<regoff_t>(from), static_cast<regoff_t>(text.size())};
}

// With a zero byte after it: though the end is given, a regexec that is watched looks for one.
const char* Terminated(std::string_view text) {
    static std::string copy;
    copy.assign(text);
    return copy.c_str();
}

// Where the fragment that begins here ends: after its last whole line, if it has one.
size_t FragmentEnd(std::string_view text, size_t begin) {
    if (text.size() - begin <= kFragment) return text.size();
    const size_t end = text.substr(begin, kFragment).rfind('\n');
    return end == text.npos ? begin + kFragment : begin + end;
}

// Once is enough: the next million texts would fail in the same way.
bool HasMatched(int result) {
    static bool isReported = false;
    if (result != 0 && result != REG_NOMATCH && !std::exchange(isReported, true)) {
        Complain("no memory for a regular expression: texts that it matches may be missed");
    }
    return result == 0;
}

}  // namespace

void Pattern::Free::operator()(regex_t* regex) const {
    regfree(regex);
    delete regex;
}

std::string Pattern::Set(const char* pattern, bool ignoresCase) {
    m_regex.reset();
    m_plain = pattern;
    if (m_plain.empty()) return "it is empty";
    if (!ignoresCase && m_plain.find_first_of(".[]()*+?{}|^$\\\n") == m_plain.npos) return {};
    auto regex = std::make_unique<regex_t>();
    const int flags = REG_EXTENDED | REG_NEWLINE | (ignoresCase ? REG_ICASE : 0);
    const int error = regcomp(regex.get(), pattern, flags);
    if (error == 0) {
        m_regex.reset(regex.release());
        return {};
    }
    std::array<char, 256> text{};
    regerror(error, regex.get(), text.data(), text.size());
    return text.data();
}

// A text may hold zero bytes, so its end is given.
bool Pattern::IsIn(std::string_view text) const {
    if (!m_regex) {
        return memmem(text.data(), text.size(), m_plain.data(), m_plain.size()) != nullptr;
    }
    size_t end = 0;
    for (size_t begin = 0;; begin = end) {
        end = FragmentEnd(text, begin);
        if (MatchesFragment(text, begin, end)) return true;
        if (end == text.size()) return false;
        // A line that is split is not split in the middle of a match.
        end = text[end] == '\n' ? end + 1 : end - kFragment / 2;
    }
}

// A fragment begins or ends a line only where the text does.
bool Pattern::MatchesFragment(std::string_view text, size_t begin, size_t end) const {
    const bool isLineBegin = begin == 0 || text[begin - 1] == '\n';
    const bool isLineEnd = end == text.size() || text[end] == '\n';
    const int flags = REG_STARTEND | (isLineBegin ? 0 : REG_NOTBOL) | (isLineEnd ? 0 : REG_NOTEOL);
    const std::string_view fragment = text.substr(begin, end - begin);
    regmatch_t match = Range(fragment, 0);
    return HasMatched(regexec(m_regex.get(), Terminated(fragment), 0, &match, flags));
}

bool Pattern::Find(std::string_view text, size_t from, Place& place) const {
    if (!m_regex) {
        const size_t begin = text.find(m_plain, from);
        place = {begin, begin + m_plain.size()};
        return begin != text.npos;
    }
    regmatch_t match = Range(text, from);
    const int result = regexec(m_regex.get(), Terminated(text), 1, &match, REG_STARTEND);
    if (!HasMatched(result)) return false;
    place = {static_cast<size_t>(match.rm_so), static_cast<size_t>(match.rm_eo)};
    return true;
}

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

bool Filter::TakesAll() const {
    return !since && !until && threads.empty() && tags.empty() && wanted.empty() &&
           excluded.empty();
}

bool Filter::Takes(const TraceRecord& record) const {
    if (since && record.time < *since) return false;
    if (until && record.time > *until) return false;
    if (!threads.empty() && !Has(threads, record.thread)) return false;
    if (!tags.empty() && !Has(tags, record.tag)) return false;
    if (!wanted.empty() && !IsAnyIn(wanted, record.text)) return false;
    return !IsAnyIn(excluded, record.text);
}
