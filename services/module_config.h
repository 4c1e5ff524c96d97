// A module's settings for a process that may not be allowed to read their file.
#pragma once

#include <string_view>

#include "kemd/config.h"

// As KemdConfigOpen; `text` is what the file holds, and `file` stands in messages only. All four
// must live as long as the config.
KemdConfig* OpenConfigText(const char* file, const char* section, const char* module,
                           const std::string_view& text);
