#include "trace/record.h"

#include <climits>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

namespace {

// Formats with both functions into fields of many sizes.
void ExpectLikeVsnprintf(const char* format, ...) {
    va_list args, pass;
    va_start(args, format);
    for (size_t size = 1; size < 60; ++size) {
        std::string expected(61, '#'), found(61, '#');
        va_copy(pass, args);
        const int length = vsnprintf(expected.data(), size, format, pass);
        va_end(pass);
        va_copy(pass, args);
        EXPECT_EQ(length, FormatTraceText(found.data(), size, format, pass)) << format;
        va_end(pass);
        if (length < 0) continue;  // what is left is not defined then
        EXPECT_STREQ(expected.c_str(), found.c_str()) << format << " in " << size;
        EXPECT_EQ(std::string(61 - size, '#'), found.substr(size)) << format << " in " << size;
    }
    va_end(args);
}

TEST(Format, IsTheSameAsTheLibrarys) {
    const char* none = nullptr;
    ExpectLikeVsnprintf("plain \n text");
    ExpectLikeVsnprintf("%d %d %d %d", 0, -1, INT_MIN, INT_MAX);
    ExpectLikeVsnprintf("%u %x %u %x", 0u, 0u, UINT_MAX, UINT_MAX);
    ExpectLikeVsnprintf("%s|%s|%%", "", "a longer text of forty characters ......");
    ExpectLikeVsnprintf("%s and then %s", "one", none);
    ExpectLikeVsnprintf("%s %5d %-5s| %05u %#x %X %lu %zu", "a", 1, "b", 2u, 3u, 10u, 4ul,
                        size_t{5});
    ExpectLikeVsnprintf("%d %c %.2f %lld %.3s", 1, 'c', 2.5, -3ll, "text");
    ExpectLikeVsnprintf("%d of a text that ends with %", 1);
    ExpectLikeVsnprintf("%d %ls", 1, L"\x100");  // cannot be formatted
}

}  // namespace
