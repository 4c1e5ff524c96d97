#include "xml/code_pages.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace {

constexpr CodePage kPages[] = {
// clang-format off
#include "xml/code_pages.inc"
    // clang-format on
};

bool IsIgnored(char c) {
    return c == '-' || c == '_' || c == ' ';
}

// Whether two names are the same but for case and, unless `isExact`, what is ignored.
bool IsSame(std::string_view a, std::string_view b, bool isExact = false) {
    size_t i = 0, j = 0;
    for (;;) {
        while (!isExact && i < a.size() && IsIgnored(a[i])) ++i;
        while (!isExact && j < b.size() && IsIgnored(b[j])) ++j;
        if (i == a.size() || j == b.size()) return i == a.size() && j == b.size();
        const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
        if (lower(a[i++]) != lower(b[j++])) return false;
    }
}

bool HasAlias(const CodePage& page, std::string_view name, bool isExact) {
    for (size_t i = 0;; ++i) {
        const std::string_view alias = AliasAt(page, i);
        if (alias.empty() || IsSame(alias, name, isExact)) return !alias.empty();
    }
}

const CodePage* FindNamed(std::string_view name, bool isExact) {
    // Of several numbers for one encoding, the row with the aliases.
    const CodePage* named = nullptr;
    for (const CodePage& page : kPages) {
        if (!IsSame(page.name, name, isExact)) continue;
        if (named == nullptr || *named->aliases == '\0') named = &page;
    }
    if (named != nullptr) return named;
    for (const CodePage& page : kPages) {
        if (HasAlias(page, name, isExact)) return &page;
    }
    return nullptr;
}

// The number of "1252", "cp1252", "windows-1252" or "IBM1252"; 0: another name.
uint32_t NumberIn(std::string_view name) {
    for (const std::string_view prefix : {"x-cp", "cp", "windows", "ibm", "ccsid", "dos"}) {
        if (IsSame(name.substr(0, prefix.size()), prefix)) {
            name.remove_prefix(prefix.size());
            break;
        }
    }
    while (!name.empty() && IsIgnored(name[0])) name.remove_prefix(1);
    uint32_t number = 0;
    const char* const end = name.data() + name.size();
    const auto [stop, error] = std::from_chars(name.data(), end, number);
    return error == std::errc() && stop == end ? number : 0;
}

}  // namespace

std::span<const CodePage> CodePages() {
    return kPages;
}

std::string_view AliasAt(const CodePage& page, size_t position) {
    std::string_view rest = page.aliases;
    for (; position > 0 && !rest.empty(); --position) {
        rest.remove_prefix(std::min(rest.find(' '), rest.size() - 1) + 1);
    }
    return rest.substr(0, rest.find(' '));
}

const CodePage* FindCodePage(uint32_t number) {
    const auto* const found = std::find_if(
        std::begin(kPages), std::end(kPages),
        [number](const CodePage& page) { return number != 0 && page.number == number; });
    return found == std::end(kPages) ? nullptr : found;
}

const CodePage* FindCodePage(std::string_view name) {
    if (name.empty()) return nullptr;
    // iso-ir-91 and iso-ir-9-1 are two.
    for (const bool isExact : {true, false}) {
        if (const CodePage* const named = FindNamed(name, isExact); named != nullptr) return named;
    }
    return FindCodePage(NumberIn(name));
}
