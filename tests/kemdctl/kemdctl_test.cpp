// The real kemdctl on the registry's real paths.
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "base/unique_fd.h"
#include "tests/kemdctl/ctl.h"

namespace {

using namespace std::string_literals;

const std::string kStore = "/etc/orvmon/registry";
const std::string kOthers =
    "[HKEY_CLASSES_ROOT]\n\n[HKEY_CURRENT_CONFIG]\n\n[HKEY_CURRENT_USER]\n\n";
const std::string kMachine = "[HKEY_LOCAL_MACHINE]\n";
const std::string kUsers = "[HKEY_USERS]\n\n\n";  // the last, and the end of the store

Result Registry(const std::string& arguments) {
    return Ctl("registry " + arguments);
}

struct Kemdctl : testing::Test {
    Kemdctl() {
        std::filesystem::remove_all("/etc/orvmon");
        WriteFile(kStore, kOthers + kMachine +
                              "bad\x1b\"\\=s=\x01\xff\xc3\xa4\x9b\nbytes=b=0a ff \n"
                              "home=es=%HOME%/x\nnum=d=-5\n[a/b]\nv=s=\n\n[sub]\n\n\n" +
                              kUsers);
        before = ReadFile(kStore);
    }
    std::string before;
};

// The text of a store whose deepest key has this many above it.
std::string DeepStore(size_t depth) {
    std::string text = kOthers + kMachine;
    for (size_t i = 1; i < depth; ++i) text += "[x]\n";
    return text + std::string(depth, '\n') + kUsers;
}

TEST_F(Kemdctl, CommandLineIsChecked) {
    for (const char* const arguments :
         {"", "nothing", "registry", "registry nothing", "registry list --json=no",
          "registry list -r -r", "registry get onlykey", "registry list -x", "registry list a b",
          "registry set --json a b string c", "registry list -- -r --json"}) {
        const Result result = Ctl(arguments);
        EXPECT_EQ(result.code, 2) << arguments;
        const bool withJson = Contains(arguments, "--json") && !Contains(arguments, "-- ");
        EXPECT_EQ(result.out.starts_with("{\"error\":\""), withJson) << arguments;
        EXPECT_EQ(result.out.empty(), !withJson) << arguments;
        EXPECT_TRUE(result.err.starts_with("kemdctl: ")) << arguments;
    }
    for (const char* const arguments :
         {"--help", "registry --help", "registry get --help", "inventory --help"}) {
        const Result result = Ctl(arguments);
        EXPECT_EQ(result.code, 0);
        EXPECT_LE(std::count(result.out.begin(), result.out.end(), '\n'), 24);
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80U) << line;
    }
    EXPECT_TRUE(Ctl("--version").out.starts_with("kemdctl "));
}

TEST_F(Kemdctl, GetPrintsAndSaysWhatIsMissing) {
    const struct {
        const char* arguments;
        int code;
        const char* out;
    } cases[] = {
        {"HKEY_LOCAL_MACHINE num", 0, "-5\n"},
        {"HKEY_LOCAL_MACHINE bytes", 0, "0a ff\n"},
        {"HKEY_LOCAL_MACHINE home", 0, "%HOME%/x\n"},
        {"HKEY_LOCAL_MACHINE home --expand", 0, "/me/x\n"},
        {"'HKEY_LOCAL_MACHINE\\a/b\\' v", 0, "\n"},
        {"HKEY_LOCAL_MACHINE $(printf 'bad\\033\"\\134')", 0, "\x01\xff\xc3\xa4\x9b\n"},
        {"--json HKEY_LOCAL_MACHINE -- $(printf 'bad\\033\"\\134')", 0,
         "{\"name\":\"bad\\u001b\\\"\\\\\",\"type\":\"string\","
         "\"data\":\"\\u0001\xef\xbf\xbd\xc3\xa4\xef\xbf\xbd\"}\n"},
        {"HKEY_LOCAL_MACHINE none", 1, ""},
        {"HKEY_LOCAL_MACHINE sub", 1, ""},
        {"HKEY_LOCAL_MACHINE/num/x none", 1, ""},
    };
    setenv("HOME", "/me", 1);
    for (const auto& each : cases) {
        const Result result = Registry(std::string("get ") + each.arguments);
        EXPECT_EQ(result.code, each.code) << each.arguments << result.err;
        EXPECT_EQ(result.out, each.out) << each.arguments;
        EXPECT_EQ(result.err.empty(), each.code == 0) << each.arguments;
    }
    EXPECT_EQ(ReadFile(kStore), before);
}

TEST_F(Kemdctl, ListShowsKeysAndHarmlessText) {
    EXPECT_EQ(Registry("list").out,
              "  HKEY_CLASSES_ROOT\\\n  HKEY_CURRENT_CONFIG\\\n  HKEY_CURRENT_USER\\\n"
              "  HKEY_LOCAL_MACHINE\\\n  HKEY_USERS\\\n");
    const std::string values =
        "HKEY_LOCAL_MACHINE\n"
        "  bad\\x1b\"\\  string  \\x01\\xff\xc3\xa4\\x9b\n"
        "  bytes      binary  0a ff\n  home       expand  %HOME%/x\n  num        number  -5\n";
    EXPECT_EQ(Registry("list HKEY_LOCAL_MACHINE/").out, values + "  a/b\\\n  sub\\\n");
    EXPECT_EQ(Registry("list HKEY_LOCAL_MACHINE -r").out,
              values + "HKEY_LOCAL_MACHINE\\a/b\\\n  v  string  \nHKEY_LOCAL_MACHINE\\sub\n");
    EXPECT_EQ(Registry("list --json HKEY_LOCAL_MACHINE/sub").out,
              "{\"key\":\"HKEY_LOCAL_MACHINE\\\\sub\",\"values\":[],\"keys\":[]}\n");
    EXPECT_TRUE(Contains(Registry("list -r --json").out,
                         "\"keys\":[{\"key\":\"a/b\",\"values\":[{\"name\":\"v\",\"type\":\"string"
                         "\",\"data\":\"\"}],\"keys\":[]},{\"key\":\"sub\",\"values\":[],"
                         "\"keys\":[]}]},{\"key\":\"HKEY_USERS\""));
    EXPECT_EQ(Registry("list HKEY_LOCAL_MACHINE/none").code, 1);
}

TEST_F(Kemdctl, SetStoresWhatTheFileBringsBack) {
    const struct {
        const char* arguments;
        const char* line;
    } cases[] = {
        {"HKEY_USERS/new/key '' string 'a=s=b '", "[new]\n[key]\n=s=a=s=b \n\n\n"},
        {"HKEY_USERS '[x' expand %A%", "[x=es=%A%\n"},
        {"HKEY_USERS n number -2147483648", "n=d=-2147483648\n"},
        {"HKEY_USERS b binary '0Aff 1 '", "b=b=0a ff 01 \n"},
        {"HKEY_USERS n -- string --json", "n=s=--json\n"},
    };
    for (const auto& each : cases) {
        const Result result = Registry(std::string("set ") + each.arguments);
        EXPECT_EQ(result.code, 0) << result.err;
        EXPECT_EQ(result.err, "");
        EXPECT_TRUE(Contains(ReadFile(kStore), each.line)) << each.arguments;
    }
    EXPECT_EQ(Registry("set HKEY_USERS long string " + std::string(1015, 'x')).code, 0);
    EXPECT_EQ(Registry("get HKEY_USERS long").out, std::string(1015, 'x') + "\n");
    EXPECT_EQ(Registry("check " + kStore).out,
              kStore + ":19: \"[\" without \"]\": read as the value \"[x\"\n");
}

TEST_F(Kemdctl, SetAndDeleteRefuse) {
    const std::string key = "set HKEY_LOCAL_MACHINE";
    for (const char* const each :
         {" a=b string x", " '[a' string 'x]'", " 'a\nb' string x", " a string 'x\ny'",
          " a number 2147483648", " a number 5x", " a number ''", " a binary 0g", " a binary 0ff",
          " a other x", " sub string x", "/num a string x", "/a]b a string x", "X a string x"}) {
        EXPECT_EQ(Registry(key + each).code, 2) << each;
        EXPECT_TRUE(ReadFile("/tmp/err").starts_with("kemdctl: ")) << each;
    }
    EXPECT_EQ(Registry(key + " long string " + std::string(1016, 'x')).code, 2);
    EXPECT_EQ(Registry(key + "/" + std::string(1021, 'k') + " a string x").code, 2);
    for (const char* const each : {"HKEY_LOCAL_MACHINE", "HKEY_USERS/", "''"}) {
        EXPECT_EQ(Registry(std::string("delete ") + each).code, 2) << each;
    }
    for (const char* const each : {"none", "/none", "/num", " sub", "/sub/none x"}) {
        EXPECT_EQ(Registry(std::string("delete HKEY_LOCAL_MACHINE") + each).code, 1) << each;
    }
    EXPECT_EQ(ReadFile(kStore), before);
    EXPECT_FALSE(std::filesystem::exists(kStore + ".old"));
}

TEST_F(Kemdctl, DeleteTakesOneValueOrAWholeKey) {
    EXPECT_EQ(Registry("delete HKEY_LOCAL_MACHINE num").code, 0);
    EXPECT_EQ(Registry("delete 'HKEY_LOCAL_MACHINE\\a/b\\'").code, 0);
    const std::string after = ReadFile(kStore);
    EXPECT_TRUE(Contains(after, "home=es=%HOME%/x\n[sub]\n"));
    // What counts is the process, not what is left in the process-id file's place.
    ASSERT_EQ(mkfifo("/var/run/kemd.pid", 0644), 0);
    EXPECT_EQ(Registry("set HKEY_USERS a string x").err, "");
    std::filesystem::remove("/var/run/kemd.pid");
    std::filesystem::copy_file("/bin/sh", "/tmp/kemd");
    const Result result = Registry(
        "list; /tmp/kemd -c '/build/bin/kemdctl registry delete HKEY_LOCAL_MACHINE/sub && "
        "exit 0' 2>/tmp/err");
    EXPECT_EQ(result.code, 0);
    EXPECT_TRUE(Contains(result.err, "kemd is running"));
}

TEST_F(Kemdctl, WritersTakeTurns) {
    const Result result = Registry(
        "list; for i in 0 1 2 3 4 5 6 7; do /build/bin/kemdctl registry set HKEY_USERS v$i number $i &"
        " done; wait");
    for (int i = 0; i < 8; ++i) {
        EXPECT_TRUE(Contains(ReadFile(kStore), "v" + std::to_string(i) + "=d=")) << result.err;
    }
}

TEST_F(Kemdctl, FailuresOfFilesAreTold) {
    EXPECT_EQ(Registry("list >/dev/full").code, 2);
    EXPECT_TRUE(Contains(ReadFile("/tmp/err"), "No space left on device"));
    EXPECT_EQ(Registry("list >&-").code, 2);
    for (const std::string& file : {kStore + ".new", kStore + ".lock"}) {
        std::filesystem::remove(file);
        std::filesystem::create_directory(file);
        const Result result = Registry("set HKEY_USERS a string x");
        EXPECT_EQ(result.code, 2);
        EXPECT_EQ(result.err,
                  "kemdctl: cannot save " + kStore + ": " + file + ": Is a directory\n");
        EXPECT_EQ(ReadFile(kStore), before);
    }
    std::filesystem::rename(kStore, kStore + ".old");
    const Result older = Registry("get HKEY_LOCAL_MACHINE num");
    EXPECT_EQ(older.out, "-5\n");
    EXPECT_EQ(older.err,
              "kemdctl: note: /etc/orvmon/registry: No such file or directory; "
              "/etc/orvmon/registry.old is used\n");
    EXPECT_EQ(Registry("export /etc").code, 2);
    EXPECT_EQ(Registry("export /tmp/none/file").code, 2);
    EXPECT_EQ(Registry("import /tmp/none").code, 2);
    std::filesystem::remove_all("/etc/orvmon");
    for (const char* const each : {"list", "get a b", "export", "set HKEY_USERS a string x"}) {
        const Result missing = Registry(each);
        EXPECT_EQ(missing.code, 2) << each;
        EXPECT_TRUE(Contains(missing.err, "No such file or directory")) << each;
    }
}

// A lease has the file's opening fail for a while.
TEST_F(Kemdctl, StoreThatCannotBeReadNowIsNotReplaced) {
    const std::string old = kMachine + "num=d=1\n\n\n";
    WriteFile(kStore + ".old", old);
    WriteFile("/tmp/part", old);
    (void)signal(SIGIO, SIG_IGN);
    UniqueFd store(open(kStore.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(fcntl(store.Get(), F_SETLEASE, F_WRLCK), 0);
    for (const char* const each :
         {"list", "get HKEY_LOCAL_MACHINE num", "set HKEY_USERS a string x",
          "delete HKEY_LOCAL_MACHINE num", "export", "export /tmp/copy", "import /tmp/part"}) {
        const Result result = Registry(each);
        EXPECT_EQ(result.code, 2) << each;
        EXPECT_EQ(result.out, "") << each;
        EXPECT_EQ(
            result.err,
            "kemdctl: cannot read /etc/orvmon/registry: Resource temporarily unavailable\n"
            "kemdctl: try again; if it still cannot be read, kemdctl registry restore makes an "
            "older\nkemdctl: registry the store\n");
    }
    std::filesystem::create_directory(kStore + ".default");
    EXPECT_TRUE(InOrder(Ctl("check -q").out,
                        {"registry cannot be read: Resource temporarily unavailable -- check "
                         "again; if it still cannot be read: kemdctl registry restore\n",
                         "registry.default cannot be read: Is a directory -- install it"}));
    std::filesystem::remove(kStore + ".default");
    EXPECT_EQ(Registry("check " + kStore).code, 2);
    store.Reset();
    EXPECT_EQ(ReadFile(kStore), before);
    UniqueFd older(open((kStore + ".old").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(fcntl(older.Get(), F_SETLEASE, F_WRLCK), 0);
    EXPECT_EQ(
        Registry("restore").err,
        "kemdctl: cannot restore /etc/orvmon/registry.old: Resource temporarily unavailable\n");
    std::filesystem::remove(kStore);
    EXPECT_EQ(Registry("set HKEY_USERS a string x").code, 2);  // nor the default in its place
    older.Reset();
    EXPECT_FALSE(std::filesystem::exists(kStore));
    EXPECT_EQ(ReadFile(kStore + ".old"), old);
}

TEST_F(Kemdctl, MessagesNameTheWholePathAndWhatHelps) {
    const struct {
        const char* arguments;
        const char* message;
    } cases[] = {
        {"", "a subcommand is missing; see kemdctl registry --help"},
        {"nothing", "unknown subcommand nothing; see kemdctl registry --help"},
        {"delete HKEY_LOCAL_MACHINE/sub/none", "no key HKEY_LOCAL_MACHINE/sub/none"},
        {"delete HKEY_LOCAL_MACHINE/sub v", "no value v in HKEY_LOCAL_MACHINE/sub"},
        {"get HKEY_LOCAL_MACHINE/sub v", "no value v in HKEY_LOCAL_MACHINE/sub"},
        {"set HKEY_LOCAL_MACHINE sub string x",
         "HKEY_LOCAL_MACHINE has a key sub; delete that first"},
    };
    for (const auto& each : cases) {
        const Result result = Registry(each.arguments);
        EXPECT_EQ(result.err, "kemdctl: " + std::string(each.message) + "\n");
    }
    for (const char* const path : {"/tmp/out", "/tmp/err"}) chmod(path, 0666);
    chmod("/usr", 0755);  // the sandbox made it for root alone
    const pid_t nobody = fork();
    // In a user namespace root is the only user.
    if (nobody == 0) _exit(setuid(65534) == 0 ? Registry("set HKEY_USERS a string x").code : 99);
    int status = 0;
    waitpid(nobody, &status, 0);
    if (WEXITSTATUS(status) == 99) GTEST_SKIP() << "no other user";
    EXPECT_EQ(WEXITSTATUS(status), 2);
    EXPECT_EQ(ReadFile("/tmp/err"),
              "kemdctl: cannot open /etc/orvmon/kemdctl.lock: Permission denied; run it as root\n");
}

TEST_F(Kemdctl, CheckNamesEveryLineThatIsMisread) {
    const std::string file =
        "outside=s=x\n[HKEY_LOCAL_MACHINE] x\nplain\nx=q=y\n[no\n[v=s=x\nn=d=\nn=d=5 x\n"
        "n=d=4294967296\nb=b=1 gg\nb2=b=1ff 2\nz=s=a\0b\n"s +
        "l=s=" + std::string(1100, 'x') + "\n[n]\n\n\n[O\x1b]\n\n\n\nmore\nmore\n";
    const char* const findings[] = {
        "1: \"outside\" is a value outside of all keys",
        "2: what stands behind \"]\" is ignored",
        "3: no \"=\": skipped",
        "4: none of =s=, =es=, =b= and =d= behind the name: skipped",
        "5: \"[\" without \"]\": skipped",
        "6: \"[\" without \"]\": read as the value \"[v\"",
        "7: \"n\" has no number: skipped",
        "8: \"n\" has text behind its number: ignored",
        "9: \"n\" does not fit 32 bits: read as 0",
        "9: a second \"n\" in this key: replaces the first",
        "10: \"b\" has something that is not hexadecimal: ignored from there on",
        "11: \"b2\" has a number above ff: cut to its last two digits",
        "12: a NUL byte ends the line",
        "13: longer than 1023 bytes: read as several lines",
        "14: a second \"n\" in this key: replaces the first",
        "17: \"O\\x1b\" is none of the root keys",
        "21: ignored with all that follows: an empty line ended the top level",
    };
    std::string expected;
    for (const std::string finding : findings) expected += "/tmp/bad:" + finding + "\n";
    WriteFile("/tmp/bad", file);
    const Result result = Registry("check /tmp/bad");
    EXPECT_EQ(result.code, 1);
    EXPECT_TRUE(result.out.starts_with(expected)) << result.out;
    EXPECT_TRUE(Contains(result.out, "21: the root key HKEY_USERS is missing\n"));

    WriteFile("/tmp/bad", "[HKEY_USERS]\n\n" + kOthers + "[HKEY_LOCAL_MACHINE]\n[a]\n");
    EXPECT_EQ(Registry("check --json /tmp/bad").out,
              "[{\"line\":10,\"message\":\"the file ends inside of 2 keys: so many empty lines are "
              "missing\"}]\n");
    EXPECT_EQ(Registry("check --json " + kStore).out, "[]\n");
    WriteFile("/tmp/bad", "");
    EXPECT_EQ(Registry("check /tmp/bad").code, 1);
    for (const char* const path : {"/tmp", "/dev/zero", "/tmp/none"}) {
        EXPECT_EQ(Registry(std::string("check ") + path).code, 2) << path;
    }
}

TEST_F(Kemdctl, ExportAndImportCarryTheStore) {
    EXPECT_EQ(Registry("export").out, before);
    EXPECT_EQ(Registry("export /tmp/copy").code, 0);
    EXPECT_EQ(ReadFile("/tmp/copy"), before);
    struct stat status {};
    EXPECT_EQ(stat("/tmp/copy", &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0644U);

    WriteFile("/tmp/part", "[HKEY_LOCAL_MACHINE]\n[new]\n\n\n");
    WriteFile("/tmp/bad", "[HKEY_USERS]\nv=s=x\nskipped\n\n");
    EXPECT_EQ(Registry("import /tmp/part").code, 0);
    EXPECT_EQ(Registry("import - </tmp/bad").code, 1);
    EXPECT_TRUE(Contains(ReadFile("/tmp/err"), "-:3: no \"=\": skipped"));
    EXPECT_EQ(ReadFile(kStore), kOthers + kMachine + "[new]\n\n\n" + kUsers);
    EXPECT_EQ(Registry("import --force - </tmp/bad").code, 0);
    EXPECT_EQ(Registry("get HKEY_USERS v").out, "x\n");
    WriteFile("/tmp/bad", "nothing\n");
    EXPECT_EQ(Registry("import --force /tmp/bad").code, 2);

    std::filesystem::remove_all(kStore);  // and without a store at all
    std::filesystem::remove_all(kStore + ".old");
    EXPECT_EQ(Registry("import - </tmp/copy").code, 0);
    EXPECT_TRUE(Contains(ReadFile("/tmp/err"), "note: what - has becomes the store"));
    EXPECT_EQ(ReadFile(kStore), before);
}

TEST_F(Kemdctl, RestoreExchangesGenerations) {
    for (const char* const text : {"", "v=s=x\n", "nothing\n", "v=d=\n"}) {
        WriteFile(kStore + ".old", text);
        EXPECT_EQ(Registry("restore").code, 2) << text;
        EXPECT_EQ(ReadFile(kStore), before);
        EXPECT_EQ(ReadFile(kStore + ".old"), text);
    }
    EXPECT_EQ(Registry("restore --default").code, 2);
    WriteFile(kStore + ".default", kMachine + "only=d=1\n\n\n");
    EXPECT_EQ(Registry("restore --default").code, 0);
    EXPECT_EQ(ReadFile(kStore), kMachine + "only=d=1\n\n\n");
    EXPECT_EQ(ReadFile(kStore + ".old"), before);
    EXPECT_EQ(Registry("restore").code, 0);
    EXPECT_EQ(ReadFile(kStore), before);
}

TEST_F(Kemdctl, ADeepStoreIsNoTrouble) {
    WriteFile(kStore, DeepStore(100'000));
    EXPECT_EQ(Registry("check " + kStore).code, 0) << ReadFile("/tmp/out").substr(0, 1000);
    EXPECT_EQ(Registry("list -r >/dev/null").code, 0);
    const Result result = Registry("list -r --json");
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '{'), 100'000 + 5);
    EXPECT_EQ(Registry("set HKEY_USERS a string x; /build/bin/kemdctl registry restore").code, 0);
    EXPECT_TRUE(ReadFile(kStore) == DeepStore(100'000));  // EXPECT_EQ would compare for hours
    // Whoever reads went away: an error, but nothing to tell.
    (void)Registry(
        "list; { /build/bin/kemdctl registry export; echo $? >/tmp/code; } 2>/tmp/err | :");
    EXPECT_EQ(ReadFile("/tmp/code") + ReadFile("/tmp/err"), "2\n");
}

}  // namespace
