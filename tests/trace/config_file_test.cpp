#include "trace/config_file.h"

#include <map>
#include <string>

#include <gtest/gtest.h>

namespace {

using Texts = std::map<std::string, std::string>;  // what is read, and what must be found

std::string Show(std::optional<std::string_view> view) {
    return view ? "'" + std::string(*view) + "'" : "none";
}

TEST(ConfigText, FileNeedsAClosingSection) {
    const Texts rows = {{"[a]\nx=1\n[EndOfFile]\n", "'[a]\nx=1\n[EndOfFile]'"},
                        {"[endoffile]behind[the end", "'[endoffile]'"},
                        {"[a]\n[EndOfFile]\n[b]\n", "none"},  // not the last one
                        {"[a]\n[EndOfFile\n", "none"},
                        {std::string("[EndOfFile\0]", 12), "none"},
                        {"EndOfFile]", "none"},
                        {"", "none"}};
    for (const auto& [file, expected] : rows) EXPECT_EQ(expected, Show(AcceptConfigText(file)));
}

TEST(ConfigText, SectionRunsToTheNextBracketOrTheEnd) {
    const Texts rows = {{"[kemd]\na=1\n[other]", "'\na=1\n'"},
                        {"[KEMD]a=1", "'a=1'"},
                        {"[a]x[kemd]1[kemd]2", "'1'"},
                        {"[kemd]a=1\nb=[2]", "'a=1\nb='"},
                        {"[kemd2]a[akemd]b", "none"},
                        {"[[kemd]a", "'a'"},
                        {"[kemd\na=1", "none"},
                        {"", "none"}};
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(expected, Show(FindConfigSection(text, "kemd"))) << text;
}

TEST(ConfigText, ValueStandsBehindTheNextEqualsSign) {
    const Texts rows = {{"Key=value\nnext", "'value'"},
                        {"Key \t= \t v a l\r\n", "'v a l'"},
                        {"Key=", "''"},
                        {"Key=\n\n  next=2", "'next=2'"},  // line ends are white space too
                        {"Key\nother=5", "'5'"},           // the next sign, on whatever line
                        {"# Key here\nKey=1", "'1'"},
                        {"MyKeyFive=5\nKey=1", "'5'"},
                        {"Key=123456789012", "'1234567890'"},  // cut at the limit
                        {"key=1", "none"},
                        {"", "none"},
                        {std::string("Key=a\0b", 7), std::string("'a\0b'", 5)}};
    for (const auto& [section, expected] : rows) {
        EXPECT_EQ(expected, Show(FindConfigValue(section, "Key", 10))) << section;
    }
}

TEST(ConfigText, NumberIsInCNotationAndCutTo32Bits) {
    const std::map<std::string, int32_t> rows = {
        {"Key=30", 30},
        {"Key=0x1E", 30},
        {"Key=-2", -2},
        {"Key=", 0},
        {"Other=1", -77},
        {"Key=99999999999999999999999", -1},
        {"Key=" + std::string(64, '0') + "1", 0}};  // the 65th character is not seen
    for (const auto& [section, expected] : rows) {
        EXPECT_EQ(expected, FindConfigNumber(section, "Key", -77)) << section;
    }
}

}  // namespace
