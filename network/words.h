// The words for values that the kernel numbers.
#pragma once

#include <cstdint>

struct Word {
    uint64_t value;
    const char* text;
};

// The words of a field, up to one whose text is null; null when it has none.
[[nodiscard]] const Word* WordsOf(uint32_t field);
