#include "trace/record.h"

#include <climits>
#include <limits>

#include "kemd/trace.h"
#include "tests/trace/trace_world.h"
#include "trace_reader/record.h"

namespace {

// Formats with both functions into buffers of many sizes.
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
        EXPECT_TRUE(length < 0 || expected == found) << format << " in " << size << found;
    }
    va_end(args);
}

TEST(Format, IsTheSameAsTheLibrarys) {
    const char* none = nullptr;
    ExpectLikeVsnprintf("%d %d %d %u %x %u %x", -1, INT_MIN, INT_MAX, 0u, 0u, UINT_MAX, UINT_MAX);
    ExpectLikeVsnprintf("%s|%s|%%", "", "a longer text of forty characters ......");
    ExpectLikeVsnprintf("%s and then %s", "one", none);
    ExpectLikeVsnprintf("%s %5d %-5s| %05u %#x %X %lu", "a", 1, "b", 2u, 3u, 10u, 4ul);
    ExpectLikeVsnprintf("%d %c %.2f %lld %.3s", 1, 'c', 2.5, -3ll, "text");
    ExpectLikeVsnprintf("%d of a text that ends with %", 1);
    ExpectLikeVsnprintf("%d %ls", 1, L"\x100");  // cannot be formatted
}

// Each form as it is written, cut to any size, and parsed by the reader.
TEST(LinePrefix, Forms) {
    const std::string tag(60, 't');
    const std::vector<std::tuple<Stamp, std::string, std::string>> rows = {
        {{{kStart, 123'999}, 0xF7C3A740, {}},
         "kemd",
         "2026-11-15 20:04:51.123 [F7C3A740] kemd          "},
        {{{kStart, 1'000}, 0xA, {3412}},
         "fourteen-chars",
         "2026-11-15 20:04:51.001 [0000000A]     3412 KB !fourteen-chars "},
        {{{kStart, 0}, 1, {3}},
         tag,
         "2026-11-15 20:04:51.000 [00000001]        3 KB !" + tag + " "},
        {{{std::numeric_limits<time_t>::max(), 0}, 1, {}},
         "twelve chars",
         "yyyy-mm-dd hh:mm:ss.mmm [00000001] twelve chars  "}};
    LinePrefix prefix;  // one for all rows: the second that it caches must not be an old one
    for (const auto& [stamp, name, expected] : rows) {
        for (size_t size = 1; size < expected.size() + 3; ++size) {
            std::string text(expected.size() + 3, '#');
            EXPECT_EQ(expected.size(), prefix.Build(text.data(), size, stamp, name));
            EXPECT_EQ(expected.substr(0, size - 1), text.c_str());
            EXPECT_EQ('#', text[size]) << size;
        }
        TraceRecord record;
        const std::string line = expected + "text";
        record.line = line;
        PrefixParser().ParseRest(record);
        EXPECT_EQ(static_cast<int64_t>(stamp.columns[0].value_or(-1)), record.residentKb);
        EXPECT_EQ(name + "|text", std::string(record.tag) + "|" + std::string(record.text));
    }
}

class RecordTest : public TraceTest {
  protected:
    // What one message adds to the log file.
    std::string LogOf(const char* tag, const char* format, const std::string& value) {
        const size_t before = ReadFile(kLog).size();
        KemdMessage(tag, format, value.c_str());
        return ReadFile(kLog).substr(before);
    }
};

TEST_F(RecordTest, TextsAndPrefixesAreCutAndEndWithOneLineFeed) {
    Configure("MemoryTracesFlag = 0");
    ASSERT_TRUE(Debug.Init("kemd"));
    const std::string x1023(1023, 'x');
    const std::tuple<Text, std::string, std::string> rows[] = {
        {"\n\nabc", "", "abc\n"},
        {"%s", "", "\n"},
        {"\n%s", "\n\n100%s %n", "\n\n100%s %n\n"},  // only the format's line feeds are dropped
        {"\n\n", "", "\n\n"},                        // nothing but line feeds: unchanged
        {"%s\n", x1023, x1023 + "\n"},               // exactly 1024 with its line feed
        {"%sx", x1023, x1023 + "x\n"},               // exactly 1024 without
        {"%sxy\n", x1023, x1023 + "x\n"}};           // cut
    for (const auto& [format, value, expected] : rows) {
        EXPECT_EQ(Prefix() + expected, LogOf(nullptr, format, value)) << format;
    }
    for (const size_t length : {92, 93, 200}) {
        const std::string tag(length, 't'), prefix = Prefix(tag).substr(0, 128);
        EXPECT_EQ(prefix + x1023 + "x\n", LogOf(tag.c_str(), "%sxyz", x1023)) << length;
    }
}

// The test's /proc/1/status says 2048 kB.
TEST_F(RecordTest, MemoryColumnIsOnUnlessItsKeyIsZero) {
    const std::string with = Prefix().substr(0, 35) + "    2048 KB !kemd          x\n";
    for (const auto& [key, expected] :
         Texts{{"MemoryTracesFlag=0", Record("x")}, {"MemoryTracesFlag=-1", with}, {"", with}}) {
        Configure(key);
        Debug.Init("kemd");
        EXPECT_EQ(expected, LogOf(nullptr, "x", "")) << key;
    }
}

}  // namespace
