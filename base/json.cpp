#include "base/json.h"

#include <algorithm>
#include <cstdio>

#include "base/utf8.h"

static bool IsPlain(char c) {
    return c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
}

void AppendJson(std::string& to, std::string_view text) {
    to += '"';
    while (!text.empty()) {
        const auto* const plainEnd = std::find_if_not(text.begin(), text.end(), IsPlain);
        to.append(text.begin(), plainEnd);
        text.remove_prefix(static_cast<size_t>(plainEnd - text.begin()));
        if (text.empty()) break;
        const size_t length = Utf8Length(text);
        const uint32_t codePoint = length == 0 ? 0xfffd : CodePoint(text.substr(0, length));
        if (length == 0) {
            to += "\xef\xbf\xbd";
        } else if (IsControl(codePoint)) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", codePoint & 0xffffU);
            to += code;
        } else {
            if (length == 1 && (text[0] == '"' || text[0] == '\\')) to += '\\';
            to += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    to += '"';
}

std::string JsonQuoted(std::string_view text) {
    std::string quoted;
    AppendJson(quoted, text);
    return quoted;
}
