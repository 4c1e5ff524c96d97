// kemdctl modules beside the real daemon, beside one with another switch library, and alone.
#include "tests/modules.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/daemon/daemon_test.h"
#include "tests/kemdctl/ctl.h"

namespace fs = std::filesystem;

static const mode_t kInheritedUmask = umask(022);

class ModulesTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        fs::remove_all("/etc/kemd");
        ClearModules();
        for (const char* const name : {"base", "user"}) {
            AddModule(std::string("/test/control/") + name + ".so");
        }
        UseSwitch("reference");
        m_environment["OV_MODULE_DIR"] = kModules;
    }
};

TEST_F(ModulesTest, AreListedAndControlled) {
    const pid_t pid = Run();
    const std::string process = std::to_string(pid);
    const struct {
        std::string arguments;
        int code;
        std::vector<std::string> out;
        std::string err;
    } cases[] = {
        {"modules",
         0,
         {"name  version  state    since                process  threads  health\n",
          "base  1.2      running  20", "  " + process + "  ", "  0        ok\n", "user"},
         ""},
        {"modules list --json",
         0,
         {"{\"pid\":" + process + ",\"modules\":[{\"name\":\"base\",\"version\":\"1.2\"",
          "\"threads\":0,\"health\":\"ok\"},{\"name\":\"user\""},
         ""},
        {"modules show user",
         0,
         {"name:         user\n", "description:  A \"test\"\nstate:        running\n",
          "starts after: base\n"},
         ""},
        {"modules request base 'health 2 no fan'", 0, {}, ""},
        {"modules show base", 0, {"health:       failed: no fan\n"}, ""},
        {"status",
         0,
         {"modules:          base 1.2, running since 20", ", health failed: no fan\n"},
         ""},
        {"modules request base 'echo a\tb'", 0, {"a\\tb\n"}, ""},
        {"modules request base nonsense --json",
         2,
         {"{\"error\":\"module base refuses"},
         "Invalid argument"},
        {"modules restart base",
         0,
         {"user stopped\nbase stopped\nbase started\nuser started\n"},
         ""},
        {"modules stop base --json", 0, {"\"started\":[],\"stopped\":[\"user\",\"base\"]}"}, ""},
        {"modules stop base", 0, {"base: it does not run\n"}, ""},
        {"modules start user", 2, {}, "module user needs the module base, which does not run"},
        {"modules start base", 0, {"base started\nuser started\n"}, ""},
        {"modules reload user", 0, {}, ""},
        {"trace level", 0, {"3\n"}, ""},
        {"trace level 5 --for 10m", 0, {"5 for 600 s, then 3\n"}, ""},
        {"trace level 4 --json", 0, {"{\"level\":4}\n"}, ""},
        {"trace level 7", 2, {}, "takes a level from 0 to 6"},
        {"trace level 1 --for soon", 2, {}, "--for takes a time"},
        {"modules show nobody", 1, {}, "there is no module nobody"},
        {"modules start", 2, {}, "too few words for start"},
        {"modules list --all", 2, {}, "unknown option --all"},
        {"modules begin base", 2, {}, "unknown subcommand begin"},
    };
    for (const auto& [arguments, code, out, err] : cases) {
        const Result result = Ctl(arguments);
        EXPECT_EQ(result.code, code) << arguments << result.err;
        EXPECT_TRUE(InOrder(result.out, out)) << arguments;
        EXPECT_TRUE(Contains(result.err, err)) << arguments << result.err;
        EXPECT_EQ(err.empty(), result.err.empty()) << arguments << result.err;
    }
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_EQ(Ctl("modules").err, "kemdctl: kemd does not run\n");
    EXPECT_EQ(Ctl("modules").code, 3);
}

TEST_F(ModulesTest, AStartThatHangsIsShownWhileItHangs) {
    WriteFile("/etc/kemd/modules.d/base.ini", "[Module]\nStartTimeout = 100 ms\n");
    ASSERT_EQ(mkfifo("/tmp/hang", 0600), 0);
    WriteFile("/tmp/slow", "");
    const pid_t pid = Start({"-n"});
    EXPECT_TRUE(
        WaitFor([] { return Contains(Ctl("modules show base").out, "state:        hanging"); }));
    EXPECT_TRUE(InOrder(
        Ctl("modules").out,
        {"base  1.2      hanging  20", "its start has not come back", "user  1.2      stopped"}));
    fs::remove("/tmp/slow");
    close(open("/tmp/hang", O_WRONLY | O_CLOEXEC));
    EXPECT_TRUE(
        WaitFor([] { return Contains(Ctl("modules show user").out, "state:        running"); }));
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_TRUE(
        InOrder(Trace(), {"module base.so hangs: its start has not come back within 0.1 s\n",
                          "module base.so has come back from its start after", "user.so started"}));
}

// What a module saves later does not undo it: the daemon has it in its own tree.
TEST_F(ModulesTest, TheRegistryOfTheRunningDaemonIsChanged) {
    const std::string file = "/etc/orvmon/registry";
    WriteFile(file, "[HKEY_LOCAL_MACHINE]\n\n[HKEY_USERS]\nold=s=1\n[gone]\n\n\n");
    AddModule("/build/modules/counter.so");  // counts its starts in the registry
    WriteFile("/etc/orvmon/counter.ini", "[Counter]\nOrders = 1\n");
    const pid_t pid = Run();
    const auto step = [&](const std::string& arguments, int code, const std::string& stored) {
        const Result result = Ctl("registry " + arguments);
        EXPECT_EQ(result.code, code) << arguments << result.err;
        EXPECT_FALSE(Contains(result.err, "note")) << result.err;
        EXPECT_EQ(Ctl("modules restart counter").code, 0);  // which saves
        const std::string text = ReadFile(file);
        EXPECT_TRUE(Contains(text, stored)) << arguments << text;
        return result.err;
    };
    (void)step("set HKEY_USERS/a/b n number -- -5", 0, "[a]\n[b]\nn=d=-5\n");
    (void)step("set HKEY_USERS/a 't\xff' expand '%x%\xe9'", 0, "t\xff=es=%x%\xe9\n");
    EXPECT_TRUE(
        Contains(step("delete HKEY_USERS/a x", 1, "old=s=1\n"), "no value x in HKEY_USERS/a"));
    EXPECT_TRUE(Contains(step("set HKEY_USERS a string 1", 2, "[a]\n"), "delete that first"));
    (void)step("delete HKEY_USERS/a", 0, "[HKEY_USERS]\nold=s=1\n[gone]\n");
    std::string import = "[HKEY_CURRENT_USER]\n\n[HKEY_USERS]\n[empty]\n\n[with/slash]\n";
    std::string values;
    for (int i = 1000; i < 3000; ++i) values += "v" + std::to_string(i) + "=b=00 ff \n";
    WriteFile("/tmp/import", import + values + "\n\n");
    (void)step("import - </tmp/import", 0, "[HKEY_USERS]\n[empty]\n\n[with/slash]\n" + values);
    EXPECT_TRUE(InOrder(ReadFile(file), {"[HKEY_CURRENT_USER]\n\n", "[HKEY_LOCAL_MACHINE]\n"}));
    EXPECT_FALSE(fs::exists(file + ".import"));
    WriteFile("/tmp/import", "nothing\n");
    EXPECT_TRUE(
        Contains(step("import --force /tmp/import", 2, values), "/tmp/import: it holds no"));
    EXPECT_TRUE(Contains(step("restore", 2, values), "stop kemd first,\n"));
    EXPECT_TRUE(Contains(ReadFile(file), "[counter]\nStarts=d=9\n"));
    EXPECT_EQ(Stop(pid), 0);
}

TEST_F(ModulesTest, AnotherSwitchLibraryCannotBeAsked) {
    UseSwitch("c");
    const pid_t pid = Run();
    const Result result = Ctl("modules start base --json");
    EXPECT_EQ(result.code, 2);
    EXPECT_TRUE(
        InOrder(result.out, {"{\"error\":\"kemd runs, process " + std::to_string(pid),
                             "/run/kemd/control: No such file or directory; it still starts, "
                             "has another switch library"}));
    EXPECT_EQ(Stop(pid), 0);
}

TEST_F(ModulesTest, AreEnabledDisabledAndConfigured) {
    const std::string file = "/etc/kemd/modules.d/base.ini";
    EXPECT_TRUE(InOrder(Ctl("modules config base").out,
                        {file + " is not there:\n[Module] Enabled = yes  (default)\n",
                         "[Module] StopTimeout = 10s  (default)\n"}));
    EXPECT_TRUE(
        InOrder(Ctl("modules disable base").out,
                {"base is not started any more; to stop it now: kemdctl modules stop base\n"}));
    EXPECT_EQ(ReadFile(file), "\n[Module]\n\nEnabled=no\n");
    const pid_t pid = Run();
    EXPECT_TRUE(InOrder(Ctl("modules").out,
                        {"base  -        disabled  20", "by " + file + "\n",
                         "user  1.2      stopped", "it needs base, which does not run\n"}));
    EXPECT_TRUE(Contains(Ctl("modules start base").err, "module base is disabled: by " + file));
    EXPECT_TRUE(InOrder(Ctl("modules enable base").out, {"now: kemdctl modules start base\n"}));
    EXPECT_EQ(Ctl("modules start base").out, "base started\nuser started\n");
    EXPECT_EQ(Stop(pid), 0);
    // Comments stay, and what a link or others could change is refused.
    WriteFile(
        file,
        "; mine\n[Module]\nEnabled = off ; for now\nStrange = 1\n[Settings]\nNumber = 2\nNumber = 3\n");
    EXPECT_EQ(
        Ctl("modules config base").out,
        file + ":\n[Module] Enabled = off  (" + file +
            ":3)\n[Module] StartTimeout = 10s  (default)\n"
            "[Module] StopTimeout = 10s  (default)\n[Module] Restart = on-failure  (default)\n"
            "[Module] Isolated = no  (default)\n[Module] User =   (default)\n"
            "[Module] MemoryLimit =   (default)\n[Module] Strange = 1  (" +
            file +
            ":4, not known)\n"
            "[Settings] Number = 2  (" +
            file +
            ":6)\n"
            "The module itself has defaults for the keys of [Settings] that are not there.\n");
    EXPECT_TRUE(
        Contains(Ctl("modules config base --json").out,
                 "{\"section\":\"Settings\",\"key\":\"Number\",\"value\":\"2\",\"from\":\"" + file +
                     ":6\"}"));
    EXPECT_EQ(Ctl("modules enable base").code, 0);
    const std::string whole = ReadFile(file);
    WriteFile(file, "[Module]\nStopTimeout = soon\nMemoryLimit = 5M\n");
    const Result wrong = Ctl("modules config base");
    EXPECT_EQ(wrong.code, 1);
    EXPECT_TRUE(Contains(wrong.out, "StopTimeout = soon  (" + file + ":2, wrong, not used)"));
    EXPECT_TRUE(Contains(wrong.err, "the module is left out: " + file + ": [Module] MemoryLimit"));
    WriteFile(file, whole);
    EXPECT_TRUE(InOrder(ReadFile(file), {"; mine\n[Module]\n", "Enabled=yes\n",
                                         "Strange = 1\n[Settings]\nNumber = 2\n"}));
    const std::string before = ReadFile(file);
    ASSERT_EQ(chmod(file.c_str(), 0666), 0);
    EXPECT_EQ(Ctl("modules config base").code, 1);
    EXPECT_TRUE(Contains(Ctl("modules disable base").err, "may be written by others than root"));
    EXPECT_EQ(ReadFile(file), before);
    EXPECT_TRUE(Contains(Ctl("modules enable ../x").err, "../x is no name of a module"));
    EXPECT_TRUE(Contains(Ctl("modules enable nobody").err, "no module nobody is installed"));
}

TEST_F(ModulesTest, CrashedModuleIsHeldBackUntilItIsEnabled) {
    const std::string crash =
        R"({"time":"2026-11-22T16:00:00.000Z","process":9,"signal":11,"module":"base","frames":[]})"
        "\n";
    WriteFile("/var/log/orvmon/kemd.crashes", crash + crash + crash);
    const pid_t pid = Run();
    EXPECT_TRUE(InOrder(Ctl("modules").out,
                        {"base  -        disabled  20", "it crashed three times within ten minutes",
                         "kemdctl modules enable base\n"}));
    EXPECT_TRUE(Contains(Ctl("modules start base").err,
                         "base is not loaded: it crashed three times within ten minutes"));
    EXPECT_TRUE(Contains(Ctl("check").out, "/base.so crashed three times within ten minutes: "));
    EXPECT_TRUE(InOrder(Ctl("modules enable base").out,
                        {"its crashes until now no longer count\n", "modules start base\n"}));
    EXPECT_EQ(Ctl("modules start base").out, "base started\nuser started\n");
    EXPECT_EQ(Stop(pid), 0);
    EXPECT_FALSE(Contains(Ctl("modules enable base").out, "no longer count"));
}
