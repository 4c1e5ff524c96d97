// Texts as JSON has them.
#pragma once

#include <string>
#include <string_view>

// A text as JSON has it, in quotes. Bytes that are no UTF-8 become U+FFFD; control characters, also
// those above ASCII, are escaped.
void AppendJson(std::string& to, std::string_view text);
std::string JsonQuoted(std::string_view text);
