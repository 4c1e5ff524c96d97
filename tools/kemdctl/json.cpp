#include "tools/kemdctl/json.h"

#include <cstdio>

#include "tools/kemdctl/text.h"

void JsonWriter::Text(std::string_view text) {
    Separate();
    std::string quoted = "\"";
    while (!text.empty()) {
        const size_t length = Utf8Length(text);
        const char first = text[0];
        if (length == 0) {
            quoted += "\xef\xbf\xbd";
        } else if (static_cast<unsigned char>(first) < 0x20) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(first));
            quoted += code;
        } else {
            if (first == '"' || first == '\\') quoted += '\\';
            quoted += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    Write(quoted + '"');
}
