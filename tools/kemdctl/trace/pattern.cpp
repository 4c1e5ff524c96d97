#include "tools/kemdctl/trace/pattern.h"

#include <array>
#include <cstring>

namespace {

regmatch_t Range(std::string_view text, size_t from) {
    return {static_cast<regoff_t>(from), static_cast<regoff_t>(text.size())};
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
    regmatch_t match = Range(text, 0);
    return regexec(m_regex.get(), text.empty() ? "" : text.data(), 0, &match, REG_STARTEND) == 0;
}

bool Pattern::Find(std::string_view text, size_t from, Place& place) const {
    if (!m_regex) {
        const size_t begin = text.find(m_plain, from);
        place = {begin, begin + m_plain.size()};
        return begin != text.npos;
    }
    regmatch_t match = Range(text, from);
    const char* const bytes = text.empty() ? "" : text.data();
    if (regexec(m_regex.get(), bytes, 1, &match, REG_STARTEND) != 0) return false;
    place = {static_cast<size_t>(match.rm_so), static_cast<size_t>(match.rm_eo)};
    return true;
}
