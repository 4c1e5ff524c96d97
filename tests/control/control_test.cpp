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
#include <memory>
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
         R"("name":"base","version":"1.2","description":"A \"test\"","state":"running")"},
        {R"({"request":"modules"})", R"("startAfter":["base"],"pid":1,"threads":0,"health":"ok"})"},
        {R"({"request":"modules"})",
         R"({"name":"broken","state":"not loaded","reason":"no ELF file",)"},
        {RequestOf("base", "health 1 dust in the fan"),
         R"({"result":{"module":"base","reply":""}})"},
        {R"({"request":"show","module":"base"})",
         R"("health":"warning","healthText":"dust in the fan")"},
        {RequestOf("base", "echo \\u00e9\\\"x"), "\"reply\":\"\u00e9\\\"x\"}}"},
        {RequestOf("base", "flood"),
         R"({"error":"module base refuses the request: Message too long: 0123)"},
        {RequestOf("base", "nonsense"),
         R"(refuses the request: Invalid argument: no such thing"})"},
        {R"({"module":"user","request":"start"})",
         R"("started":[],"stopped":[],"note":"it runs already"})"},
        {R"({"request":"restart","module":"base"})",
         R"({"module":"base","state":"running","started":["base","user"],"stopped":["user","base"]})"},
        {R"({"request":"stop","module":"base"})",
         R"("state":"stopped","started":[],"stopped":["user","base"]})"},
        {RequestOf("user", "echo"), R"({"error":"module user does not run"})"},
        {R"({"request":"start","module":"user"})",
         R"({"error":"module user needs the module base, which does not run"})"},
        {R"({"request":"start","module":"base"})", R"("started":["base","user"],"stopped":[]})"},
        {R"({"request":"start","module":"nobody"})",
         R"(module nobody is not loaded: /tmp/modules/nobody.so: No such file)"},
        {R"({"request":"start","module":"broken"})", R"(module broken is not loaded: no ELF file)"},
        {R"({"request":"stop","module":"nobody"})", R"({"error":"there is no module nobody"})"},
        {R"({"request":"start","module":"../base"})", R"({"error":"there is no module ../base"})"},
        {R"({"request":"show","module":"nobody"})", R"({"error":"there is no module nobody"})"},
        {R"({"request":"reload","module":"user"})",
         R"({"module":"user","state":"running","started":[],"stopped":[]})"},
    };
    for (const auto& [request, answer] : cases) {
        const std::string actual = client.Ask(request);
        EXPECT_TRUE(Contains(actual, answer)) << request << "\n" << actual;
    }
    Settings("modules.d/user.ini", "[Settings]\nNumber = 12\n");
    EXPECT_TRUE(Contains(Ask("reload", "user"), "keeps those that it had: result 34"));
    EXPECT_TRUE(Contains(Ask("show", "user"), "\"state\":\"running\""));
    Settings("modules.d/user.ini", "[Module]\nEnabled = no\n");
    EXPECT_TRUE(Contains(Ask("restart", "user"),
                         "is disabled: by /etc/kemd/modules.d/user.ini (stopped: user)"));
    EXPECT_TRUE(Contains(Ask("show", "user"), "\"state\":\"disabled\""));
    Settings("modules.d/user.ini", "[Module]\nMemoryLimit = 5M\n");
    EXPECT_TRUE(Contains(Ask("start", "user"),
                         "user is not started: /etc/kemd/modules.d/user.ini: "
                         "[Module] MemoryLimit is no size from 16M"));
    EXPECT_TRUE(Contains(Ask("show", "user"), "\"state\":\"not loaded\",\"reason\":\"/etc/k"));
    fs::remove("/etc/kemd/modules.d/user.ini");
    WriteFile("/tmp/fail", "");
    EXPECT_TRUE(Contains(Ask("start", "user"), "module user does not start: result 5"));
    EXPECT_TRUE(Contains(Ask("show", "user"), "\"state\":\"failed\",\"reason\":\"result 5\""));
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
        {R"({"request":1})", "\\\"request\\\" is missing"},
        {R"({"request":"health"})", "unknown request health"},
        {R"({"request":"show"})", "\\\"module\\\" is missing"},
        {R"({"request":"show","module":2})", "module is no text"},
        {R"({"request":"modules","module":"base"})", "unknown member module"},
        {R"({"request":"stop","module":"base","text":""})", "unknown member text"},
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

TEST_F(ControlTest, DependantsAreStoppedBeforeAndStartedAfter) {
    Begin();
    (void)Ask("restart", "base");
    EXPECT_TRUE(InOrder(Trace(), {"base.so started", "user.so started", " user          stop",
                                  " base          stop", "base.so loading", " base          start",
                                  " user          start"}));
    // One that the administrator stopped stays so.
    (void)Ask("stop", "user");
    EXPECT_TRUE(Contains(Ask("restart", "base"), "\"started\":[\"base\"],\"stopped\":[\"base\"]"));
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
    EXPECT_TRUE(
        Contains(Trace(), "module base.so hangs: its request has not come back within 0.1 s\n"));
    // The others can be looked at meanwhile, and what waits for modules is limited.
    EXPECT_TRUE(Contains(Ask("show", "user"), "\"state\":\"running\""));
    EXPECT_TRUE(Contains(Ask("show", "user"), "\"health\":\"busy\""));
    std::list<Client> clients(17);
    for (Client& client : clients) client.Send(RequestOf("user", "echo 1") + "\n");
    EXPECT_TRUE(Contains(clients.back().Line(), "busy: too many requests"));
    Release();
    EXPECT_TRUE(Contains(waiting.Line(), "\"reply\":\"done\""));
    EXPECT_TRUE(Contains(clients.front().Line(), "\"reply\":\"1\""));
    EXPECT_TRUE(Contains(Ask("show", "base"), "\"state\":\"running\""));
    EXPECT_TRUE(Contains(Trace(), "module base.so has come back from its request after "));
}

TEST_F(ControlTest, AStopWaitsForTheRequestThatRuns) {
    Begin();
    Client waiting;
    waiting.Send(RequestOf("base", "hang") + "\n");
    ASSERT_TRUE(WaitFor([] { return Contains(Trace(), " base          hangs\n"); }));
    Client late;
    late.Send(RequestOf("user", "echo late") + "\n");
    std::thread helper([] {
        (void)Ask("show", "base");
        Release();
    });
    m_binding.pInterface->StopAllModules();
    helper.join();
    EXPECT_TRUE(Contains(waiting.Line(), "\"reply\":\"done\""));
    // It was answered before or after, but not while modules stop.
    EXPECT_TRUE(Contains(Ask("start", "base"), "{\"error\":\"kemd stops\"}"));
    EXPECT_TRUE(
        InOrder(Trace(), {" base          goes on\n", "user.so stopped", "base.so stopped"}));
    EXPECT_TRUE(m_binding.UnloadModules(0));
    EXPECT_FALSE(fs::exists(kControlSocket));
    EXPECT_FALSE(Client().isConnected);
}

TEST_F(ControlTest, RequestsThatWaitAreAnsweredAtTheEnd) {
    Begin();
    Client waiting;
    waiting.Send(RequestOf("base", "hang") + "\n");
    ASSERT_TRUE(WaitFor([] { return Contains(Trace(), " base          hangs\n"); }));
    std::list<Client> late(8);
    for (Client& client : late) client.Send(RequestOf("user", "echo late") + "\n");
    EXPECT_TRUE(Contains(Ask("nothing"), "error"));  // the others have been read
    std::thread helper(Release);
    EXPECT_TRUE(m_binding.UnloadModules(0));
    helper.join();
    for (Client& client : late) EXPECT_FALSE(client.Line().empty());
}

#ifndef __SANITIZE_ADDRESS__  // with it a reference to a forced unwind counts as null
TEST_F(ControlTest, AModuleThatEndsTheWorkerEndsNothingElse) {
    Begin();
    const std::string lost = "a module has ended the thread that serves requests: restart kemd";
    EXPECT_TRUE(Contains(Ask(RequestOf("base", "leave")), lost));
    EXPECT_TRUE(Contains(Ask("start", "base"), lost));
    EXPECT_TRUE(Contains(Ask("show", "base"), "\"health\":\"busy\""));
}
#endif

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
    EXPECT_EQ(level(",\"level\":6,\"seconds\":3600"),
              R"({"result":{"level":6,"seconds":3600,"then":2}})");
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
    for (const std::string wrong : {",\"level\":7", ",\"level\":\"1\"", ",\"level\":1.5"}) {
        EXPECT_EQ(level(wrong), R"({"error":"level is no number from 0 to 6"})");
    }
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
    WriteFile("/etc/orvmon/registry",
              "[HKEY_LOCAL_MACHINE]\n\n[HKEY_USERS]\nold=s=1\n[gone]\n\n\n");
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
    const auto import = [&](const std::string& path) {
        return change("\"import\":\"" + path + "\"");
    };
    // A root key that was not there comes with the file; what another one has there goes.
    WriteFile("/tmp/import", "[HKEY_USERS]\n[a]\n\n\n[HKEY_CURRENT_CONFIG]\nx=s=y\n\n\n");
    EXPECT_EQ(import("/tmp/import"), "{\"result\":{}}");
    const std::string others = "[HKEY_CURRENT_CONFIG]\nx=s=y\n\n[HKEY_LOCAL_MACHINE]\n\n";
    const std::string imported = others + "[HKEY_USERS]\n[a]\n\n\n\n";
    EXPECT_EQ(ReadFile("/etc/orvmon/registry"), imported);
    EXPECT_EQ(set("HKEY_USERS/a/b", "n", "number", "\"ffffffff\""), "{\"result\":{}}");
    // A change that cannot be saved comes with the next one.
    fs::create_directories("/etc/orvmon/registry.new/x");
    EXPECT_EQ(
        set("HKEY_USERS/a", "t\xff", "string", Hex("x\xe9")),
        "{\"error\":\"the modules have the change, but it cannot be saved before the next one: "
        "Is a directory\"}");
    fs::remove_all("/etc/orvmon/registry.new");
    EXPECT_EQ(remove("HKEY_USERS/a/b", "n"), "{\"result\":{}}");
    EXPECT_EQ(ReadFile("/etc/orvmon/registry"),
              others + "[HKEY_USERS]\n[a]\nt\xff=s=x\xe9\n[b]\n\n\n\n\n");
    WriteFile("/tmp/import", "no registry\n");
    const struct {
        std::string actual;
        std::string expected;
    } cases[] = {
        {remove("HKEY_USERS", ""), "a root key cannot be deleted"},
        {set("HKEY_USERS", "a", "string", "\"\""), "HKEY_USERS has a key a; delete that first"},
        {set("HKEY_NONE/a", "a", "string", "\"\""), "cannot make the key HKEY_NONE/a"},
        {set("HKEY_USERS", "a", "number", "\"00\""), "a number has four bytes"},
        {set("HKEY_USERS", "a", "text", "\"00\""), "an unknown type"},
        {set("HKEY_USERS", "a", "string", "\"0x\""),
         "value or data are missing or not hexadecimal"},
        {import("/tmp/import"), "cannot import /tmp/import: it holds no registry"},
        {import("/tmp/nothing"), "cannot import /tmp/nothing: No such file or directory"},
        {import("tmp/import"), "import is no absolute path"},
        {import("/tmp/import\",\"delete\":{\"key\":\"41\"},\"x\":\""), "more than one change"},
    };
    for (const auto& [actual, expected] : cases)
        EXPECT_EQ(actual, "{\"error\":\"" + expected + "\"}");
    EXPECT_EQ(remove("HKEY_USERS/a", "n"), R"({"result":{"absent":"no value n in HKEY_USERS/a"}})");
    EXPECT_EQ(remove("HKEY_USERS/a", "b"), R"({"result":{"absent":"no value b in HKEY_USERS/a"}})");
    EXPECT_EQ(remove("HKEY_USERS/x", ""), R"({"result":{"absent":"no key HKEY_USERS/x"}})");
    EXPECT_EQ(remove("HKEY_USERS/a", ""), "{\"result\":{}}");
    EXPECT_EQ(ReadFile("/etc/orvmon/registry"), others + "[HKEY_USERS]\n\n\n");
}

}  // namespace
