// Reading a profile file that is in memory.
#pragma once

#include <cstdint>
#include <string_view>

// As GetPrivateProfileString without a default, of a file that holds `text`. `size` is at least 2.
uint32_t ReadProfileText(std::string_view text, const char* section, const char* key, char* out,
                         uint32_t size);
