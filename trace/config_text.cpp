#include "trace/config_text.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "base/text.h"

namespace {

constexpr size_t kNumberLimit = 64;

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

std::optional<std::string_view> AcceptConfigText(std::string_view file) {
    const size_t close = file.rfind(']');
    if (close == file.npos) return std::nullopt;
    const size_t open = file.rfind('[', close);
    if (open == file.npos) return std::nullopt;
    if (!EqualsIgnoringCase(file.substr(open + 1, close - open - 1), "EndOfFile")) {
        return std::nullopt;
    }
    return file.substr(0, close + 1);
}

std::optional<std::string_view> FindConfigSection(std::string_view text, std::string_view name) {
    size_t open = text.find('[');
    while (open != text.npos) {
        const size_t bracket = text.find_first_of("[]", open + 1);
        if (bracket == text.npos) break;
        if (text[bracket] == '[') {  // never closed: the next one may be a header
            open = bracket;
            continue;
        }
        const size_t next = text.find('[', bracket);
        if (EqualsIgnoringCase(text.substr(open + 1, bracket - open - 1), name)) {
            return text.substr(bracket + 1, next == text.npos ? next : next - bracket - 1);
        }
        open = next;
    }
    return std::nullopt;
}

std::optional<std::string_view> FindConfigValue(std::string_view section, std::string_view key,
                                                size_t limit) {
    const size_t found = section.find(key);
    if (found == section.npos) return std::nullopt;
    const size_t equals = section.find('=', found + key.size());
    if (equals == section.npos) return std::nullopt;
    const std::string_view value = TrimStart(section.substr(equals + 1));
    return value.substr(0, std::min(value.find_first_of("\r\n"), limit));
}

int32_t FindConfigNumber(std::string_view section, std::string_view key, int32_t fallback) {
    const auto value = FindConfigValue(section, key, kNumberLimit);
    if (!value) return fallback;
    std::array<char, kNumberLimit + 1> digits{};
    std::memcpy(digits.data(), value->data(), value->size());
    return static_cast<int32_t>(std::strtoul(digits.data(), nullptr, 0));
}
