#include "trace/record.h"

#include <limits>

#include "tests/trace/trace_world.h"

namespace {

TEST(LinePrefix, Forms) {
    const std::string tag(110, 't');
    const std::vector<std::tuple<Stamp, std::string, std::string>> rows = {
        {{{kStart, 123'999}, 0xF7C3A740, false, 9},
         "kemd",
         "2026-11-15 20:04:51.123 [F7C3A740] kemd          "},
        {{{kStart, 1'000}, 0xA, true, 3412},
         "fourteen chars",
         "2026-11-15 20:04:51.001 [0000000A]     3412 KB !fourteen chars "},
        {{{kStart, 0}, 1, true, ~0ULL},
         tag,
         "2026-11-15 20:04:51.000 [00000001] 18446744073709551615 KB !" + tag + " "},
        {{{std::numeric_limits<time_t>::max(), 0}, 1, false, 0},
         "twelve chars",
         "yyyy-mm-dd hh:mm:ss.mmm [00000001] twelve chars  "}};
    LinePrefix prefix;  // one for all rows: the second that it keeps must not be an old one
    for (const auto& [stamp, name, expected] : rows) {
        for (size_t size = 1; size < expected.size() + 3; ++size) {
            std::string text(expected.size() + 3, '#');
            EXPECT_EQ(expected.size(), prefix.Build(text.data(), size, stamp, name));
            EXPECT_EQ(expected.substr(0, size - 1), text.c_str());
            EXPECT_EQ('#', text[size]) << size;
        }
    }
}

class RecordTest : public TraceTest {
  protected:
    void SetUp() override {
        TraceTest::SetUp();
        Configure("MemoryTracesFlag = 0");
        ASSERT_TRUE(debug.Init("kemd"));
    }
    // What one message makes of the log file.
    std::string LogOf(const char* tag, const char* format, const std::string& value) {
        const size_t before = ReadFile(kLog).size();
        Send(debug, tag, format, value.c_str());
        return ReadFile(kLog).substr(before);
    }
};

TEST_F(RecordTest, Texts) {
    const std::string x1023(1023, 'x');
    const std::vector<std::tuple<const char*, std::string, std::string>> rows = {
        {"abc", "", "abc\n"},
        {"abc\n", "", "abc\n"},
        {"\n\nabc", "", "abc\n"},
        {"", "", "\n"},
        {"%s", "", "\n"},
        {"%s", "100%s %n", "100%s %n\n"},
        {"\n%s", "\n\nabc", "\n\nabc\n"},   // only the format's own line feeds are dropped
        {"\n\n", "", "\n\n"},               // nothing but line feeds: unchanged
        {"%s\n", x1023, x1023 + "\n"},      // exactly 1024 with its line feed
        {"%sx", x1023, x1023 + "x\n"},      // exactly 1024 without
        {"%sxy\n", x1023, x1023 + "x\n"}};  // cut
    for (const auto& [format, value, expected] : rows) {
        EXPECT_EQ(Prefix() + expected, LogOf(nullptr, format, value)) << format;
    }
    debug.Trace(0, "lost");  // at trace level 0 there is no target
    EXPECT_EQ(Record("next"), LogOf(nullptr, "next", ""));
}

TEST_F(RecordTest, PrefixIsCutAt128CharactersAndTheTextFollowsDirectly) {
    for (const size_t length : {92, 93, 94, 200}) {
        const std::string tag(length, 't'), prefix = Prefix(tag).substr(0, 128);
        EXPECT_EQ(prefix + "text\n", LogOf(tag.c_str(), "text", "")) << length;
        EXPECT_EQ(prefix + std::string(1024, 'x') + "\n",
                  LogOf(tag.c_str(), "%s", std::string(1100, 'x')));
    }
    const std::string name(150, 'm');
    WriteConfig("kemd.ini", "[" + name + "]MemoryTracesFlag=0[EndOfFile]");
    debug.Init(name.c_str());
    debug.Message("text");
    EXPECT_EQ(Prefix(name).substr(0, 128) + "text\n", ReadFile("/var/log/orvmon/log." + name));
}

TEST_F(RecordTest, TextThatCannotBeFormattedIsDroppedFromTheLogAndEmptyInTheRing) {
    Send(debug, nullptr, "lost %ls", L"\x100");
    EXPECT_EQ("", ReadFile(kLog));
    ASSERT_TRUE(StartRing(debug));
    Send(debug, nullptr, "lost %ls", L"\x100");
    EXPECT_TRUE(InOrder(ReadFile(kStartupRing),
                        {"### Start of initialization. ###\n" + Record("") + kTrailer}));
    EXPECT_EQ("", ReadFile(kLog));
}

// The test's /proc/1/status says 2048 kB.
TEST_F(RecordTest, MemoryColumnIsOnUnlessItsKeyIsZero) {
    const std::string head = Prefix().substr(0, 35), with = head + "    2048 KB !kemd          x\n";
    for (const auto& [key, expected] :
         std::map<std::string, std::string>{{"MemoryTracesFlag=0", Record("x")},
                                            {"MemoryTracesFlag=1", with},
                                            {"MemoryTracesFlag=-1", with},
                                            {"", with}}) {
        Configure(key);
        debug.Init("kemd");
        EXPECT_EQ(expected, LogOf(nullptr, "x", "")) << key;
    }
}

}  // namespace
