// The control socket of the switch library that ships: what clients ask for, and what they cannot
// do to the daemon.
#include "tests/control/control_test.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <list>
#include <thread>

static std::atomic<int> g_syncs{0};

int fsync(int file) {
    ++g_syncs;
    return fdatasync(file);
}

namespace {

TEST_F(ControlTest, RequestsAndTheirAnswers) {
    WriteFile("/tmp/modules/broken.so", "no library");
    MakeSafe("/tmp/modules/broken.so");
    Begin();
    Client client;
    const struct {
        std::string request;
        std::string answer;  // a part of it
    } cases[] = {
        {R"({"request":"modules"})",
         R"({"name":"broken","state":"not loaded","reason":"no ELF file",)"},
        {RequestOf("base", "echo \\u00e9\\\"x"), "\"reply\":\"\u00e9\\\"x\"}}"},
        {RequestOf("base", "flood"),
         R"({"error":"module base refuses the request: Message too long: 0123)"},
        {R"({"module":"user","request":"start"})",
         R"("started":[],"stopped":[],"note":"it runs already"})"},
        {R"({"request":"stop","module":"base"})",
         R"("state":"stopped","started":[],"stopped":["user","base"]})"},
        {RequestOf("user", "echo"), R"({"error":"module user does not run"})"},
        {R"({"request":"start","module":"base"})", R"("started":["base","user"],"stopped":[]})"},
        // One that the administrator stopped stays so.
        {R"({"request":"stop","module":"user"})", R"("stopped":["user"]})"},
        {R"({"request":"restart","module":"base"})", R"("started":["base"],"stopped":["base"]})"},
        {R"({"request":"start","module":"user"})", R"("started":["user"])"},
        {R"({"request":"start","module":"nobody"})",
         R"(module nobody is not loaded: /tmp/modules/nobody.so: No such file)"},
        {R"({"request":"start","module":"broken"})", R"(module broken is not loaded: no ELF file)"},
        {R"({"request":"start","module":"../base"})", R"({"error":"there is no module ../base"})"},
    };
    for (const auto& [request, answer] : cases) {
        const std::string actual = client.Ask(request);
        EXPECT_TRUE(Contains(actual, answer)) << request << "\n" << actual;
    }
    Settings("modules.d/user.ini", "[Module]\nEnabled = no\n");
    EXPECT_TRUE(Contains(Ask("restart", "user"),
                         "is disabled: by /etc/kemd/modules.d/user.ini (stopped: user)"));
    fs::remove("/etc/kemd/modules.d/user.ini");
    WriteFile("/tmp/fail", "");
    EXPECT_TRUE(Contains(Ask("start", "user"), "module user does not start: result 5"));
    fs::remove("/tmp/fail");
    EXPECT_TRUE(Contains(Ask("start", "user"), "\"started\":[\"user\"]"));
    EXPECT_TRUE(Contains(Ask("stop", "user"), "it stays in memory: it failed before"));
    EXPECT_FALSE(End());
    void* const kept = dlopen("/tmp/modules/user.so", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(dlclose(kept) + dlclose(kept), 0);  // for the tests that follow
}

TEST_F(ControlTest, WrongRequestsAreAnsweredAndTheConnectionStays) {
    Begin();
    Client client;
    const struct {
        std::string request;
        std::string error;
    } cases[] = {
        {"", "the request is no JSON: a value is missing at byte 1"},
        {"[]", "the request is no object"},
        {"{}", "\\\"request\\\" is missing"},
        {R"({"request":"health"})", "unknown request health"},
        {R"({"request":"show"})", "\\\"module\\\" is missing"},
        {R"({"request":"modules","module":"base"})", "unknown member module"},
    };
    for (const auto& [request, error] : cases) {
        EXPECT_EQ(client.Ask(request), "{\"error\":\"" + error + "\"}") << request;
    }
    // Several in one go, and one that is too long, which ends the connection.
    client.Send("{}\n[]\n{\"request\":");
    EXPECT_TRUE(Contains(client.Line(), "is missing"));
    EXPECT_TRUE(Contains(client.Line(), "no object"));
    EXPECT_TRUE(Contains(client.Ask("\"modules\"}"), "\"result\""));
    client.Send(std::string(70'000, ' '));
    EXPECT_EQ(client.Line(), R"({"error":"the request is longer than 65536 bytes"})");
    EXPECT_EQ(client.Line(), "");
}

TEST_F(ControlTest, StoppedModulesAreUnloadedWhenThatIsSafe) {
    Begin();
    EXPECT_TRUE(IsMapped("user"));
    EXPECT_TRUE(Contains(Ask("stop", "user"), "\"stopped\":[\"user\"]}"));
    EXPECT_FALSE(IsMapped("user"));
    (void)Ask(RequestOf("base", "thread"));
    EXPECT_TRUE(Contains(Ask("stop", "base"), "it stays in memory: thread "));
    EXPECT_TRUE(IsMapped("base"));
    Release();
    (void)Ask("start", "base");
    EXPECT_TRUE(Contains(Ask("stop", "base"), "\"stopped\":[\"base\"]}"));
    EXPECT_FALSE(IsMapped("base"));
}

TEST_F(ControlTest, AModuleThatHangsIsNamedWhileItHangs) {
    Settings("modules.d/base.ini", "[Module]\nStopTimeout = 100 ms\n");
    Begin();
    Client waiting;
    waiting.Send(RequestOf("base", "hang") + "\n");
    EXPECT_TRUE(WaitFor([] {
        return Contains(Ask("show", "base"), "\"state\":\"hanging\",\"reason\":\"its request has");
    }));
    // The others can be looked at meanwhile, and what waits for modules is limited.
    EXPECT_TRUE(Contains(Ask("show", "user"), "\"state\":\"running\""));
    EXPECT_TRUE(Contains(Ask("show", "user"), "\"health\":\"busy\""));
    std::list<Client> clients(17);
    for (Client& client : clients) client.Send(RequestOf("user", "echo 1") + "\n");
    EXPECT_TRUE(Contains(clients.back().Line(), "busy: too many requests"));
    Release();
    EXPECT_TRUE(Contains(waiting.Line(), "\"reply\":\"done\""));
    EXPECT_TRUE(Contains(clients.front().Line(), "\"reply\":\"1\""));
}

TEST_F(ControlTest, AStopWaitsForTheRequestThatRuns) {
    Begin();
    Client waiting;
    waiting.Send(RequestOf("base", "hang") + "\n");
    ASSERT_TRUE(WaitFor([] { return Contains(Trace(), " base          hangs\n"); }));
    std::list<Client> late(8);
    for (Client& client : late) client.Send(RequestOf("user", "echo late") + "\n");
    std::thread helper([] {
        (void)Ask("show", "base");
        Release();
    });
    m_binding.pInterface->StopAllModules();
    helper.join();
    EXPECT_TRUE(Contains(waiting.Line(), "\"reply\":\"done\""));
    EXPECT_TRUE(Contains(Ask("start", "base"), "{\"error\":\"kemd stops\"}"));
    EXPECT_TRUE(
        InOrder(Trace(), {" base          goes on\n", "user.so stopped", "base.so stopped"}));
    EXPECT_TRUE(m_binding.UnloadModules(0));
    for (Client& client : late) EXPECT_FALSE(client.Line().empty());
    EXPECT_FALSE(fs::exists(kControlSocket));
    EXPECT_FALSE(Client().isConnected);
}

TEST_F(ControlTest, SlowAndDeadClientsHoldNothingUp) {
    Begin();
    std::list<Client> dead(20);
    std::list<Client> slow(20);
    for (Client& client : slow) client.Send("{\"request\":");
    std::list<Client> good(24);
    for (Client& client : good) client.Send("{\"request\":\"modules\"}\n");
    for (Client& client : good) EXPECT_TRUE(Contains(client.Line(), "\"result\""));
    // Who asks and goes, or never takes an answer.
    for (int i = 0; i < 64; ++i) Client().Send("{\"request\":\"modules\"}\n");
    std::string many;
    while (many.size() < 60'000) many += "{\"request\":\"modules\"}\n";
    Client deaf;
    deaf.Send(many);
    EXPECT_TRUE(Contains(Ask("{\"request\":\"modules\"}"), "\"result\""));
}

TEST_F(ControlTest, TheSocketIsRootsAndTheGroups) {
    Begin();
    EXPECT_EQ(ModeOf(kControlSocket), "140600 group 0");
    EXPECT_EQ(ModeOf(kControlDirectory), "40755 group 0");
    EXPECT_TRUE(End());
    EXPECT_EQ(ModeOf(kControlDirectory), "none");
    // What a crash left; a group.
    Settings("kemd.ini", "[Control]\nGroup = readers\n");
    WriteFile("/etc/group", "root:x:0:\nreaders:x:0:\n");
    fs::create_directory(kControlDirectory);
    ASSERT_EQ(mknod(kControlSocket, S_IFSOCK | 0666, 0), 0);
    Begin();
    EXPECT_EQ(ModeOf(kControlSocket), "140660 group 0");
    EXPECT_TRUE(End());
    // No group, no socket: the modules run.
    Settings("kemd.ini", "[Control]\nGroup = nobody\n");
    fs::create_directories(kControlSocket);
    Begin();
    EXPECT_TRUE(Contains(Trace(), "Group = nobody is not used: no group nobody in /etc/group\n"));
    EXPECT_TRUE(
        Contains(Trace(), "kemdctl cannot reach the modules: /run/kemd/control is no socket\n"));
    EXPECT_TRUE(Contains(Trace(), "module user.so started\n"));
    fs::remove(kControlSocket);
}

TEST_F(ControlTest, TheTraceIsBroughtToTheDisk) {
    Settings("kemd.ini", "[Trace]\nSyncTrace = 1\n");
    Begin();
    const int before = g_syncs;
    EXPECT_TRUE(WaitFor([&] { return g_syncs >= before + 4; }));  // log and ring, twice
    EXPECT_TRUE(End());
}

TEST_F(ControlTest, OthersAreRefusedAndTheGroupReads) {
    Settings("kemd.ini", "[Control]\nGroup = 4711\n");
    if (chown("/tmp/hang", 0, 4711) != 0) GTEST_SKIP() << "only root has other groups";
    Begin();
    const struct {
        gid_t group;
        std::string show;
        std::string stop;
    } cases[] = {{4711, "\"state\":\"running\"", "only root may ask for this"},
                 {4712, "only root may ask, and the group", "only root may ask, and the group"}};
    for (const auto& [group, show, stop] : cases) {
        ASSERT_EQ(chmod(kControlSocket, 0666), 0);
        const pid_t child = fork();
        if (child == 0) {
            const bool isOther = setgid(group) == 0 && setuid(4711) == 0;
            const bool isAsExpected =
                Contains(Ask("show", "base"), show) && Contains(Ask("stop", "base"), stop);
            _exit(isOther && isAsExpected ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << group;
    }
}

TEST_F(ControlTest, TheTraceLevelChangesAndComesBack) {
    Begin();
    const auto level = [](const std::string& members) {
        return Ask("{\"request\":\"trace-level\"" + members + "}");
    };
    EXPECT_EQ(level(""), R"({"result":{"level":5}})");
    EXPECT_EQ(level(",\"level\":2"), R"({"result":{"level":2}})");
    EXPECT_EQ(Debug.TraceLevel(), 2U);
    EXPECT_EQ(level(",\"level\":0,\"seconds\":1"),
              R"({"result":{"level":0,"seconds":1,"then":2}})");
    EXPECT_FALSE(Debug.IsTraceOn());
    EXPECT_TRUE(WaitFor([] { return Debug.TraceLevel() == 2 && Debug.IsTraceOn(); }));
    EXPECT_TRUE(WaitFor([] { return Contains(Trace(), "the trace level is 2 again\n"); }));
    // SIGHUP in between is not undone.
    EXPECT_EQ(level(",\"level\":4,\"seconds\":1"),
              R"({"result":{"level":4,"seconds":1,"then":2}})");
    Debug.SwitchTrace(false);
    EXPECT_TRUE(WaitFor([&] { return level("") == R"({"result":{"level":0}})"; }));
    EXPECT_EQ(level(",\"level\":1.5"), R"({"error":"level is no number from 0 to 6"})");
    EXPECT_EQ(level(",\"seconds\":9"), R"({"error":"\"level\" is missing"})");
    Debug.Close();
    EXPECT_TRUE(Contains(level(",\"level\":1"), "kemd traces nowhere"));
}

// "HKEY_USERS/a/b" for example, as the socket wants it.
std::string Hex(const std::string& text) {
    std::string digits;
    char byte[3];
    for (const char c : text) {
        std::snprintf(byte, sizeof byte, "%02x", static_cast<unsigned char>(c));
        digits += byte;
    }
    return "\"" + digits + "\"";
}

TEST_F(ControlTest, TheRegistryChangesInTheDaemon) {
    WriteFile("/etc/orvmon/registry", "[HKEY_LOCAL_MACHINE]\n\n[HKEY_USERS]\n[a]\n\n\n");
    Begin();
    const auto change = [](const std::string& member) {
        return Ask("{\"request\":\"registry\"," + member + "}");
    };
    const auto set = [&](const std::string& key, const std::string& value, const std::string& type,
                         const std::string& data) {
        return change("\"set\":{\"key\":" + Hex(key) + ",\"value\":" + Hex(value) + ",\"type\":\"" +
                      type + "\",\"data\":" + data + "}");
    };
    const auto remove = [&](const std::string& key, const std::string& value) {
        const std::string what = value.empty() ? "" : ",\"value\":" + Hex(value);
        return change("\"delete\":{\"key\":" + Hex(key) + what + "}");
    };
    // A change that cannot be saved comes with the next one.
    fs::create_directories("/etc/orvmon/registry.new/x");
    EXPECT_EQ(
        set("HKEY_USERS/a", "t\xff", "string", Hex("x\xe9")),
        "{\"error\":\"the modules have the change, but it cannot be saved before the next one: "
        "Is a directory\"}");
    fs::remove_all("/etc/orvmon/registry.new");
    EXPECT_EQ(set("HKEY_USERS/a/b", "n", "number", "\"ffffffff\""), "{\"result\":{}}");
    EXPECT_EQ(ReadFile("/etc/orvmon/registry"),
              "[HKEY_LOCAL_MACHINE]\n\n[HKEY_USERS]\n[a]\nt\xff=s=x\xe9\n[b]\nn=d=-1\n\n\n\n\n");
    const struct {
        std::string actual;
        std::string expected;
    } cases[] = {
        {remove("HKEY_USERS", ""), "a root key cannot be deleted"},
        {set("HKEY_NONE/a", "a", "string", "\"\""), "cannot make the key HKEY_NONE/a"},
        {set("HKEY_USERS", "a", "number", "\"00\""), "a number has four bytes"},
        {set("HKEY_USERS", "a", "text", "\"00\""), "an unknown type"},
        {set("HKEY_USERS", "a", "string", "\"0x\""),
         "value or data are missing or not hexadecimal"},
        {change(R"("import":"/tmp/nothing")"),
         "cannot import /tmp/nothing: No such file or directory"},
        {change(R"("import":"tmp/import")"), "import is no absolute path"},
        {change(R"("import":"/tmp/import","delete":{"key":"41"})"), "more than one change"},
    };
    for (const auto& [actual, expected] : cases)
        EXPECT_EQ(actual, "{\"error\":\"" + expected + "\"}");
    EXPECT_EQ(remove("HKEY_USERS/a", "b"), R"({"result":{"absent":"no value b in HKEY_USERS/a"}})");
    EXPECT_EQ(remove("HKEY_USERS/x", ""), R"({"result":{"absent":"no key HKEY_USERS/x"}})");
}

}  // namespace
