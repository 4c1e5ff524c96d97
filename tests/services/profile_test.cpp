#include "kemd/profile.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/traced_test.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

constexpr const char* kFile = "/etc/test.ini";

std::string Value(const char* section, const char* key, uint32_t size = 100) {
    std::string out(size, '#');
    out.resize(GetPrivateProfileString(section, key, "default", out.data(), size, kFile));
    return out;
}

TEST(ProfileTest, ReaderTakesLinesApart) {
    const std::string longValue(1500, 'x');
    WriteFile(kFile,
              "early=1\n ;[A]\n  [A] text\n\tkey \t= abc ; note\nno equals\n =noname\nempty = ;x\n"
              "twice=a=b \nKey=other\nhalf;=x\nlong=" +
                  longValue + "\ntail=t\n[B]\nb=1\n[A]\nsecond=1\n[open");
    const std::tuple<const char*, const char*, std::string> cases[] = {
        {"A", "key", "abc"},
        {"A", "", "noname"},
        {"A", "empty", "default"},
        {"A", "twice", "a=b"},
        {"A", "early", "default"},
        {"A", "second", "default"},
        {"A", "tail", "t"},
        {"A] text", "key", "default"},
        {"A", "long", std::string(1018, 'x')},  // the line is read as two of 1,023 bytes at most
    };
    for (const auto& [section, key, value] : cases) {
        EXPECT_EQ(Value(section, key, 2000), value) << section << ' ' << key;
    }
    EXPECT_EQ(Value("A", nullptr, 2000), std::string("key\0\0empty\0twice\0Key\0long\0tail\0", 31));
    EXPECT_EQ(Value(nullptr, nullptr), std::string("A\0B\0A\0", 6));
}

TEST(ProfileTest, ReaderFillsBuffersOfAnySize) {
    WriteFile(kFile, "[A]\nabc=12345\nde=2\n[B]\n");
    const std::tuple<const char*, uint32_t, uint32_t, std::string> cases[] = {
        {"abc", 0, 0, "########"s},      {"abc", 1, 0, "\0#######"s},
        {"abc", 2, 1, "d\0######"s},  // the scan stops at once
        {"abc", 5, 4, "1234\0###"s},     {"abc", 6, 5, "12345\0##"s},
        {nullptr, 2, 0, "\0#######"s},   {nullptr, 4, 2, "ab\0\0####"s},
        {nullptr, 5, 4, "abc\0\0###"s},  // ends exactly at the end
        {nullptr, 7, 5, "abc\0d\0\0#"s}, {nullptr, 8, 7, "abc\0de\0\0"s},
    };
    for (const auto& [key, size, result, out] : cases) {
        std::string buffer(8, '#');
        EXPECT_EQ(GetPrivateProfileString("A", key, "default", buffer.data(), size, kFile), result);
        EXPECT_EQ(buffer, out) << size << (key == nullptr);
    }
}

class ProfileTraceTest : public TracedTest {};

TEST_F(ProfileTraceTest, WriterChangesTheFileByteForByte) {
    const std::string longLine = "a=" + std::string(1100, 'x') + "\n";
    const std::tuple<std::string, const char*, const char*, bool, std::string> cases[] = {
        // A new section goes to the end, even when the reader sees an indented one, or the last
        // line has no line feed.
        {"  [S]\nk=1\n", "k", "v", true, "  [S]\nk=1\n\n[S]\n\nk=v\n"},
        {"[S]", "k", "v", true, "[S]\n[S]\n\nk=v\n"},
        {"[S ]\n[Sec]\n", "k", "v", true, "[S ]\n[Sec]\n\n[S]\n\nk=v\n"},
        // A new entry goes to the end of its section.
        {"[S]\na=1\n\n[T]\nb=1\n", "k", "v", true, "[S]\na=1\n\nk=v\n[T]\nb=1\n"},
        {"[S]\na=1", "k", "v", true, "[S]\na=1k=v\n"},
        // In place; the first entry gets an empty line above it.
        {"[S]\nk \t=1 ; n\nb=2\n", "k", "v", true, "[S]\n\nk=v\nb=2\n"},
        {"[S]\n" + longLine + "z=1\n", "a", "v", true,
         "[S]\n\na=v\n" + longLine.substr(1023) + "z=1\n"},
        // Deletions.
        {"[S]\na=1\nk=2\n", "k", nullptr, true, "[S]\na=1\n"},
        {"[S]\na=1\n[T]\nk=1\n", "k", nullptr, false, "[S]\na=1\n[T]\nk=1\n"},
        {"[R]\n[S]\na=1\n[T]\nb\n", nullptr, "v", true, "[R]\n[T]\nb\n"},
        {"[R]\n", nullptr, nullptr, false, "[R]\n"},
    };
    for (const auto& [before, key, value, result, after] : cases) {
        WriteFile(kFile, before);
        EXPECT_EQ(WritePrivateProfileString("S", key, value, kFile), result);
        EXPECT_EQ(ReadFile(kFile), after) << "was: " << before;
    }
    fs::remove(kFile);
    EXPECT_TRUE(WritePrivateProfileString("S", nullptr, nullptr, kFile));
    EXPECT_FALSE(fs::exists(kFile));
    EXPECT_FALSE(WritePrivateProfileString("S", "k", "v", "/none/x"));
    fs::create_symlink(kFile, "/etc/link.ini");  // to a file that does not exist yet
    umask(077);
    EXPECT_TRUE(WritePrivateProfileString("S", "k", "v", "/etc/link.ini"));
    umask(022);
    EXPECT_EQ(ReadFile(kFile), "\n[S]\n\nk=v\n");
    EXPECT_EQ(fs::status(kFile).permissions(), fs::perms(0644));
    EXPECT_TRUE(InOrder(
        Trace(), {"WritePrivateProfileString rc=0x0001\n", "WritePrivateProfileString rc=0x0000\n",
                  "## WARNING: append open error: /none/x\n"}));
}

TEST(ProfileTest, WriteThatDoesNotFitLeavesTheFile) {
    const std::string before = "[S]\na=1\nk=2\n[T]\n" + std::string(3000, 't') + "\n[U]\n";
    signal(SIGXFSZ, SIG_IGN);
    for (const char* section : {"S", "T", "U", "V"}) {
        WriteFile(kFile, before);
        const rlimit limit{before.size() + 1, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_FALSE(WritePrivateProfileString(section, "k", "longer", kFile));
        const rlimit none{RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &none);
        EXPECT_EQ(ReadFile(kFile), before) << section;
    }
    // Anything but a regular file is neither read nor written, and no call blocks on it.
    ASSERT_EQ(mkfifo("/etc/fifo.ini", 0600), 0);
    for (const char* name : {"/etc", "/etc/fifo.ini", "/dev/zero"}) {
        char out[10];
        EXPECT_EQ(GetPrivateProfileString("S", "k", "def", out, sizeof out, name), 3U);
        EXPECT_FALSE(WritePrivateProfileString("S", "k", "v", name));
        EXPECT_FALSE(CProfileFile().SetFileName(name, true));
    }
}

TEST(ProfileTest, ObjectReadsListsAndNumbers) {
    std::string file = "[N]\nhex=0x10\noct=010\nneg=-1\nbad=x\n[L]\na=1\n[M]\n";
    for (int i = 10'000; i < 19'000; ++i) file += std::to_string(i) + "=1\n";
    WriteFile(kFile, file);
    CProfileFile profile;
    std::string text;
    EXPECT_FALSE(profile.SetFileName("/none", true));
    EXPECT_FALSE(profile.GetString(text, "L", "a", "d"));
    ASSERT_TRUE(profile.SetFileName(kFile, true));
    ASSERT_TRUE(profile.SetFileName(profile.GetFileName(), true));  // its own buffer
    const std::pair<const char*, uint32_t> numbers[] = {
        {"hex", 16}, {"oct", 8}, {"neg", 0xFFFFFFFF}, {"bad", 0}, {"none", 7}, {nullptr, 7}};
    for (const auto& [key, value] : numbers) EXPECT_EQ(profile.GetUInt("N", key, 7), value);
    EXPECT_STREQ(profile.GetList(nullptr), "N");
    EXPECT_STREQ(profile.GetList(profile.NextEntry()), "a");  // a name inside the list's own buffer
    EXPECT_STREQ(profile.GetValue("L", profile.GetValue("none", "none", "a"), ""), "1");
    std::vector<std::string> names{"old"};
    EXPECT_TRUE(profile.GetSectionNames(names));
    EXPECT_EQ(names, (std::vector<std::string>{"old", "N", "L", "M"}));
    EXPECT_TRUE(profile.GetKeyNames(names, "M"));  // the buffer grows to nearly 64 KiB
    EXPECT_EQ(names.size(), 9004U);
}

TEST(ProfileTest, ObjectWritesAndCopies) {
    fs::remove(kFile);
    CProfileFile profile;
    ASSERT_TRUE(profile.SetFileName(kFile, false));
    EXPECT_FALSE(profile.Check(true));
    EXPECT_TRUE(profile.WriteString("A", "s", "text"));
    EXPECT_TRUE(profile.WriteUInt("A", "u", 4294967295U));
    EXPECT_TRUE(profile.WriteInt("A", "i", -5));
    EXPECT_TRUE(profile.CopySection(profile.GetList(nullptr), "B"));
    const std::string entries = "]\n\ns=text\nu=4294967295\ni=-5\n";
    EXPECT_EQ(ReadFile(kFile), "\n[A" + entries + "\n[B" + entries);
    EXPECT_TRUE(profile.DeleteKey("B", "u"));
    EXPECT_TRUE(profile.DeleteSection("A"));
    EXPECT_EQ(ReadFile(kFile), "\n[B]\n\ns=text\ni=-5\n");
}

}  // namespace
