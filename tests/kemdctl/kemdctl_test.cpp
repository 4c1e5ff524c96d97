// The real kemdctl on the registry's real paths.
#include <csignal>
#include <filesystem>

#include "base/unique_fd.h"
#include "tests/kemdctl/ctl.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

const std::string kStore = "/etc/orvmon/registry";
const std::string kOthers =
    "[HKEY_CLASSES_ROOT]\n\n[HKEY_CURRENT_CONFIG]\n\n[HKEY_CURRENT_USER]\n\n";
const std::string kMachine = "[HKEY_LOCAL_MACHINE]\n";
const std::string kUsers = "[HKEY_USERS]\n\n\n";  // the last key, and the end of the store

Result Registry(const std::string& arguments) {
    return Ctl("registry " + arguments);
}

struct Kemdctl : testing::Test {
    Kemdctl() {
        fs::remove_all("/etc/orvmon");
        WriteFile(kStore, kOthers + kMachine +
                              "bad\x1b\"\\=s=\x01\xff\xc3\xa4\x9b\nbytes=b=0a ff \n"
                              "home=es=%HOME%/x\nnum=d=-5\n[a/b]\nv=s=\n\n[sub]\n\n\n" +
                              kUsers);
        before = ReadFile(kStore);
    }
    std::string before;
};

TEST_F(Kemdctl, MistakesAreNamed) {
    ExpectAll("", {{"", 2, "", "kemdctl: a command is missing; see kemdctl --help\n"},
                   {"nothing", 2, "", "kemdctl: unknown command nothing\nkemdctl: see "}});
    ExpectAll(
        "registry ",
        {{"", 2, "", "kemdctl: a subcommand is missing; see kemdctl registry --help\n"},
         {"get onlykey", 2, "", "too few words for get;"},
         {"set --json a b string c", 2,
          "{\"error\":\"unknown option --json; these options do not fit set; see kemdctl "
          "registry --help\"}\n",
          "unknown option --json\n"},
         {"list --json X", 1, "{\"error\":\"no key X\"}\n", "kemdctl: no key X\n"},
         {"check --json /tmp/none", 2,
          "{\"error\":\"cannot open /tmp/none: No such file or directory\"}\n", "cannot open"},
         {"check --json /proc/self/mem", 2,
          "[{\"error\":\"cannot read /proc/self/mem: Input/output error\"}]\n", "cannot read"},
         {"export /etc", 2, "", "kemdctl: cannot write /etc: Is a directory\n"},
         {"import - </proc/self/mem", 2, "", "cannot read -: Input/output error\n"}});
    EXPECT_EQ(ReadFile(kStore), before);
}

TEST_F(Kemdctl, GetPrintsData) {
    setenv("HOME", "/me", 1);
    ExpectAll("registry get ",
              {{"HKEY_LOCAL_MACHINE num", 0, "-5\n"},
               {"HKEY_LOCAL_MACHINE bytes", 0, "0a ff\n"},
               {"HKEY_LOCAL_MACHINE home --expand", 0, "/me/x\n"},
               {"'HKEY_LOCAL_MACHINE\\a/b\\' v", 0, "\n"},
               {"HKEY_LOCAL_MACHINE $(printf 'bad\\033\"\\134')", 0, "\x01\xff\xc3\xa4\x9b\n"},
               {"--json HKEY_LOCAL_MACHINE -- $(printf 'bad\\033\"\\134')", 0,
                "{\"name\":\"bad\\u001b\\\"\\\\\",\"type\":\"string\","
                "\"data\":\"\\u0001\xef\xbf\xbd\xc3\xa4\xef\xbf\xbd\"}\n"},
               {"HKEY_LOCAL_MACHINE sub", 1, "", "no value sub in HKEY_LOCAL_MACHINE\n"},
               {"HKEY_LOCAL_MACHINE/num/x none", 1, "", "no key HKEY_LOCAL_MACHINE/num/x\n"}});
}

TEST_F(Kemdctl, ListShowsKeysAndHarmlessText) {
    const std::string values =
        "HKEY_LOCAL_MACHINE\n"
        "  bad\\x1b\"\\  string  \\x01\\xff\xc3\xa4\\x9b\n"
        "  bytes      binary  0a ff\n  home       expand  %HOME%/x\n  num        number  -5\n";
    ExpectAll("registry list ",
              {{"", 0,
                "  HKEY_CLASSES_ROOT\\\n  HKEY_CURRENT_CONFIG\\\n  HKEY_CURRENT_USER\\\n"
                "  HKEY_LOCAL_MACHINE\\\n  HKEY_USERS\\\n"},
               {"HKEY_LOCAL_MACHINE/", 0, values + "  a/b\\\n  sub\\\n"},
               {"HKEY_LOCAL_MACHINE -r", 0,
                values + "HKEY_LOCAL_MACHINE\\a/b\\\n  v  string  \nHKEY_LOCAL_MACHINE\\sub\n"}});
    EXPECT_TRUE(Shows("registry list --json HKEY_LOCAL_MACHINE", 0,
                      {R"({"key":"HKEY_LOCAL_MACHINE","values":[{)", R"("name":"num",)",
                       R"("data":-5}],"keys":[{"key":"a/b"},{"key":"sub"}]})"}));
    EXPECT_TRUE(Shows(
        "registry list -r --json", 0,
        {R"("keys":[{"key":"a/b","values":[{"name":"v","type":"string","data":""}],"keys":[]})",
         R"({"key":"sub","values":[],"keys":[]}]},{"key":"HKEY_USERS")"}));
}

TEST_F(Kemdctl, SetStoresWhatTheFileBringsBack) {
    const std::string longText(1015, 'x');
    ExpectAll("registry set HKEY_USERS", {{"/new/key '' string 'a=s=b '", 0, ""},
                                          {" '[x' expand %A%", 0, ""},
                                          {" n number -2147483648", 0, ""},
                                          {" b binary '0Aff 1 '", 0, ""},
                                          {" o -- string --json", 0, ""},
                                          {" long string " + longText, 0, ""}});
    EXPECT_TRUE(Holds(ReadFile(kStore),
                      {"[new]\n[key]\n=s=a=s=b \n\n\n", "\n[x=es=%A%\n", "\nn=d=-2147483648\n",
                       "\nb=b=0a ff 01 \n", "\no=s=--json\n", "\nlong=s=" + longText + "\n"}));
    EXPECT_TRUE(Prints("registry get HKEY_USERS long", 0, longText + "\n"));
}

TEST_F(Kemdctl, SetAndDeleteRefuse) {
    for (const std::string& each :
         {" a=b string x"s, " '[a' string 'x]'"s, " 'a\nb' string x"s, " a string 'x\ny'"s,
          " a number 2147483648"s, " a number 5x"s, " a binary 0ff"s, " a other x"s,
          " sub string x"s, "/num a string x"s, "/a]b a string x"s, "X a string x"s,
          " long string " + std::string(1016, 'x')})
        EXPECT_TRUE(Prints("registry set HKEY_LOCAL_MACHINE" + each, 2, "", "kemdctl: "));
    for (const char* const each : {"HKEY_USERS/", "''"})
        EXPECT_TRUE(Prints("registry delete "s + each, 2, "", "a root key cannot be deleted\n"));
    for (const char* const each : {" none", "/none", " sub", "/sub/none x"})
        EXPECT_TRUE(Prints("registry delete HKEY_LOCAL_MACHINE"s + each, 1, "", "kemdctl: no "));
    EXPECT_EQ(ReadFile(kStore), before);
    EXPECT_FALSE(fs::exists(kStore + ".old"));
}

TEST_F(Kemdctl, DeleteTakesOneValueOrAWholeKey) {
    EXPECT_TRUE(Prints("registry delete HKEY_LOCAL_MACHINE num", 0, ""));
    EXPECT_TRUE(Prints("registry delete 'HKEY_LOCAL_MACHINE\\a/b\\'", 0, ""));
    EXPECT_TRUE(Contains(ReadFile(kStore), "home=es=%HOME%/x\n[sub]\n"));
    // A running daemon would overwrite the change. It is found without its process-id file.
    fs::copy_file("/bin/sh", "/tmp/kemd");
    EXPECT_TRUE(Shows(
        "registry list X; /tmp/kemd -c '/build/bin/kemdctl registry delete HKEY_LOCAL_MACHINE/sub "
        "&& exit 0' 2>/tmp/err",
        0, {"kemd is running"}));
}

TEST_F(Kemdctl, WritersTakeTurns) {
    (void)Registry(
        "list; for i in 0 1 2 3 4 5 6 7; do /build/bin/kemdctl registry set HKEY_USERS v$i number $i &"
        " done; wait");
    EXPECT_TRUE(Holds(ReadFile(kStore), {"v0=d=0\n", "v1=d=1\n", "v2=d=2\n", "v3=d=3\n", "v4=d=4\n",
                                         "v5=d=5\n", "v6=d=6\n", "v7=d=7\n"}));
}

TEST_F(Kemdctl, FileFailuresAreReported) {
    EXPECT_TRUE(Shows("registry list >/dev/full", 2, {"standard output: No space left on device"}));
    fs::remove_all("/etc/orvmon");
    WriteFile("/full/registry", before);
    fs::create_symlink("/full", "/etc/orvmon");
    WriteFile("/full/rest", std::string(8192, 'x'));
    EXPECT_TRUE(Prints("registry set HKEY_USERS a string " + std::string(900, 'x'), 2, "",
                       "registry: No space left on device\n"));
    EXPECT_TRUE(Prints("registry export /full/copy", 2, "",
                       "kemdctl: cannot write /full/copy: No space left on device\n"));
    EXPECT_EQ(ReadFile(kStore), before);
    fs::rename(kStore, kStore + ".old");
    EXPECT_TRUE(Prints("registry get HKEY_LOCAL_MACHINE num", 0, "-5\n",
                       "kemdctl: note: /etc/orvmon/registry: No such file or directory; "
                       "/etc/orvmon/registry.old is used\n"));
    fs::remove("/etc/orvmon");
    fs::create_directory("/etc/orvmon");
    EXPECT_TRUE(Prints("registry export", 2, "", "No such file or directory"));
    EXPECT_TRUE(
        Shows("registry list --json", 2,
              {"{\"error\":\"no registry can be loaded; /etc/orvmon/registry: No such file"}));
}

// A lease makes opening the file fail for a while.
TEST_F(Kemdctl, StoreThatCannotBeReadNowIsNotReplaced) {
    const std::string old = kMachine + "num=d=1\n\n\n";
    WriteFile(kStore + ".old", old);
    (void)signal(SIGIO, SIG_IGN);
    UniqueFd store(open(kStore.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(fcntl(store.Get(), F_SETLEASE, F_WRLCK), 0);
    for (const char* const each :
         {"list", "set HKEY_USERS a string x", "import /etc/orvmon/registry.old"})
        EXPECT_TRUE(Prints(
            "registry "s + each, 2, "",
            "kemdctl: cannot read /etc/orvmon/registry: Resource temporarily unavailable\n"
            "kemdctl: try again; if that does not help, kemdctl registry restore brings back an "
            "older one\n"));
    EXPECT_TRUE(Shows("check -q", 1,
                      {"registry cannot be read: Resource temporarily unavailable -- check "}));
    store.Reset();
    EXPECT_EQ(ReadFile(kStore), before);
    UniqueFd older(open((kStore + ".old").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(fcntl(older.Get(), F_SETLEASE, F_WRLCK), 0);
    EXPECT_TRUE(
        Prints("registry restore", 2, "", "registry.old: Resource temporarily unavailable\n"));
    fs::remove(kStore);
    EXPECT_EQ(Registry("set HKEY_USERS a string x").code, 2);  // the default is not used either
    older.Reset();
    EXPECT_FALSE(fs::exists(kStore));
    EXPECT_EQ(ReadFile(kStore + ".old"), old);
}

TEST_F(Kemdctl, CheckNamesEveryLineThatIsMisread) {
    const std::string file =
        "outside=s=x\n[HKEY_LOCAL_MACHINE] x\nplain\nx=q=y\n[no\n[v=s=x\nn=d=\nn=d=5 x\n"
        "n=d=4294967296\nb=b=1 gg\nb2=b=1ff 2\nz=s=a\0b\n"s +
        "l=s=" + std::string(1100, 'x') + "\n[n]\n\n\n[O\x1b]\n\n\n\nmore\nmore\n";
    const char* const findings[] = {
        "1: \"outside\" is a value outside of all keys",
        "2: what follows \"]\" is ignored",
        "3: no \"=\": skipped",
        "4: none of =s=, =es=, =b= and =d= after the name: skipped",
        "5: \"[\" without \"]\": skipped",
        "6: \"[\" without \"]\": read as the value \"[v\"",
        "7: \"n\" has no number: skipped",
        "8: \"n\" has text after its number: ignored",
        "9: \"n\" does not fit 32 bits: read as 0",
        "9: a second \"n\" in this key: replaces the first",
        "10: \"b\" has something that is not hexadecimal: ignored from there on",
        "11: \"b2\" has a number above ff: cut to its last two digits",
        "12: a NUL byte ends the line",
        "13: longer than 1023 bytes: read as several lines",
        "14: a second \"n\" in this key: replaces the first",
        "17: \"O\\x1b\" is not one of the root keys",
        "21: ignored with all that follows: an empty line ended the top level",
        "21: the root key HKEY_USERS is missing\n"};
    WriteFile("/tmp/bad", file);
    EXPECT_TRUE(Shows("registry check /tmp/bad", 1, {std::begin(findings), std::end(findings)}));
    WriteFile("/tmp/bad", "[HKEY_USERS]\n\n" + kOthers + "[HKEY_LOCAL_MACHINE]\n[a]\n");
    EXPECT_TRUE(Prints("registry check --json /tmp/bad", 1,
                       "[{\"line\":10,\"message\":\"the file ends inside 2 keys: an empty line is "
                       "missing for each\"}]\n"));
    EXPECT_TRUE(Prints("registry check --json " + kStore, 0, "[]\n"));
}

TEST_F(Kemdctl, ExportAndImportCarryTheStore) {
    EXPECT_TRUE(Prints("registry export /tmp/copy", 0, ""));
    EXPECT_EQ(ReadFile("/tmp/copy"), before);
    WriteFile("/tmp/part", "[HKEY_LOCAL_MACHINE]\n[new]\n\n\n");
    WriteFile("/tmp/bad", "[HKEY_USERS]\nv=s=x\nskipped\n\n");
    EXPECT_TRUE(Prints("registry import /tmp/part", 0, ""));
    EXPECT_TRUE(Prints("registry import - </tmp/bad", 1, "", "-:3: no \"=\": skipped\n"));
    EXPECT_EQ(ReadFile(kStore), kOthers + kMachine + "[new]\n\n\n" + kUsers);
    EXPECT_EQ(Registry("import --force - </tmp/bad").code, 0);
    EXPECT_EQ(Registry("get HKEY_USERS v").out, "x\n");

    for (const char* const end : {"", ".old"}) fs::remove(kStore + end);
    EXPECT_TRUE(Prints("registry import - </tmp/copy", 0, "", "note: - becomes the whole store\n"));
    EXPECT_EQ(ReadFile(kStore), before);
}

TEST_F(Kemdctl, RestoreExchangesGenerations) {
    WriteFile(kStore + ".old", "nothing\n");
    EXPECT_TRUE(Prints("registry restore", 2, "", "registry.old: it holds no registry\n"));
    EXPECT_EQ(ReadFile(kStore) + ReadFile(kStore + ".old"), before + "nothing\n");
    WriteFile(kStore + ".default", kMachine + "only=d=1\n\n\n");
    EXPECT_TRUE(Prints("registry restore --default", 0, ""));
    EXPECT_EQ(ReadFile(kStore) + ReadFile(kStore + ".old"), kMachine + "only=d=1\n\n\n" + before);
    EXPECT_TRUE(Prints("registry restore", 0, ""));
    EXPECT_EQ(ReadFile(kStore), before);
}

TEST_F(Kemdctl, ADeepStoreIsNoTrouble) {
    constexpr size_t kDepth = 100'000;
    std::string store = kOthers + kMachine;
    for (size_t i = 1; i < kDepth; ++i) store += "[x]\n";
    store.append(kDepth, '\n').append(kUsers);
    WriteFile(kStore, store);
    EXPECT_TRUE(Prints("registry check " + kStore, 0, ""));
    const Result result = Registry("list -r --json");
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '{'), kDepth + 5);
    EXPECT_EQ(Registry("set HKEY_USERS a string x; /build/bin/kemdctl registry restore").code, 0);
    EXPECT_TRUE(ReadFile(kStore) == store);  // EXPECT_EQ would compare for hours
}

}  // namespace
