// kemdctl network on real interfaces in name spaces of their own.
#include <linux/capability.h>
#include <linux/securebits.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <csignal>
#include <thread>

#include "tests/kemdctl/ctl.h"
#include "tests/kemdctl/json_check.h"
#include "tests/network/network_world.h"

namespace {

namespace fs = std::filesystem;

class NetworkCommand : public NetworkTest {
  protected:
    void SetUp() override {
        NetworkTest::SetUp();
        ASSERT_TRUE(
            Ip("link add b0 type bridge\nlink add p0 type veth peer name p1\n"
               "link set p0 address 02:00:00:00:00:01 addrgenmode none alias uplink\n"
               "link set p1 addrgenmode none\nlink set p0 master b0\n"
               "link property add dev p0 altname second\n"
               "addr add 192.0.2.1/24 dev p0\naddr add 2001:db8::1/64 dev p0 nodad\n"
               "link set p0 up\nlink set p1 up"))
            << ReadFile("/tmp/ip.out");
    }
    void TearDown() override {
        if (process <= 0) return;
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
    // Until it watches.
    void Watch(const char* option) {
        fs::remove("/tmp/watch");
        process = fork();
        if (process == 0) {
            const int file = open("/tmp/watch", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            dup2(file, STDOUT_FILENO);
            execl("/build/bin/kemdctl", "kemdctl", "network", "watch", option, nullptr);
            _exit(127);
        }
        ASSERT_TRUE(Sees("\n"));
    }
    static bool Sees(const std::string& text) {
        return WaitFor([&] { return Contains(ReadFile("/tmp/watch"), text); });
    }
    int Interrupt(int signal = SIGINT) {
        kill(process, signal);
        int status = -1;
        waitpid(process, &status, 0);
        process = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }

    pid_t process = -1;
};

TEST_F(NetworkCommand, ListsWhatIsWanted) {
    const std::string line =
        "p0    up     veth      10000 Mbit/s  02:00:00:00:00:01  veth    -     "
        "192.0.2.1/24 2001:db8::1/64\n";
    const Result all = Ctl("network");
    EXPECT_EQ(all.code, 0);
    EXPECT_TRUE(InOrder(all.out,
                        {"name  state  kind      speed", "lo    off", "b0    off    bridge", line}))
        << all.out;
    const struct {
        const char* filter;
        std::vector<std::string> names;
    } cases[] = {{"--state up", {"p1", "p0"}},
                 {"--state=off --kind bridge", {"b0"}},
                 {"--kind bridge --kind loopback", {"lo", "b0"}},
                 {"--driver veth --name '*1'", {"p1"}},
                 {"--name second", {"p0"}}};
    for (const auto& [filter, names] : cases) {
        const Result result = Ctl(std::string("network list --json ") + filter);
        EXPECT_EQ(result.code, 0) << filter << result.err;
        EXPECT_TRUE(JsonCheck::IsValid(result.out)) << result.out;
        for (const char* const name : {"lo", "b0", "p0", "p1"}) {
            const bool isThere = Contains(result.out, std::string("\"name\":\"") + name + "\"");
            const bool isWanted = std::count(names.begin(), names.end(), name) != 0;
            EXPECT_EQ(isThere, isWanted) << filter << " " << name;
        }
    }
    EXPECT_TRUE(Holds(
        Ctl("network --json --name p0").out,
        {"\"alternative_names\":[\"second\"],\"state\":\"up\",\"kind\":\"veth\",\"speed\":10000,"
         "\"mac\":\"02:00:00:00:00:01\",\"addresses\":[\"192.0.2.1/24\","
         "\"2001:db8::1/64\"],\"driver\":\"veth\"}"}));
    ExpectAll("network ",
              {{"list --name 'p[5-9]'", 1, "", "no interface matches\n"},
               {"show p9", 1, "", "there is no interface p9\n"},
               {"show p9 --json", 1, "{\"error\":\"there is no interface p9\"}\n", "p9"},
               {"show", 2, "", "show takes the name of an interface"},
               {"show p0 --state up", 2, "", "do not fit show"},
               {"list --state upp", 2, "", "no interface is ever in the state upp"},
               {"watch --kind", 2, "", "--kind: a value is missing"},
               {"--nam x", 2, "", "unknown option --nam\n"},
               {"begin", 2, "", "unknown subcommand begin"}});
}

TEST_F(NetworkCommand, ShowsAllOfOne) {
    ASSERT_TRUE(Ip("route add default via 192.0.2.9 dev p0 metric 7")) << ReadFile("/tmp/ip.out");
    const Result shown = Ctl("network show second");
    EXPECT_EQ(shown.code, 0) << shown.err;
    EXPECT_TRUE(InOrder(
        shown.out, {"Identity\n",
                    "  name:                     p0\n",
                    "  alias:                    uplink\n",
                    "  alternative names:        second\n",
                    "State\n",
                    "  state:                    up\n",
                    "  mtu:                      1500 bytes\n",
                    "Relations\n",
                    "  parent:                   p1\n",
                    "  master:                   b0\n",
                    "Counters\n",
                    "  rx bytes:",
                    "Hardware\n",
                    "  speed:                    10000 Mbit/s\n",
                    "Settings\n",
                    "  features:                 ",
                    "Addresses\n",
                    "  ipv4:                     192.0.2.1/24 scope global permanent label p0\n",
                    "  ipv6:                     2001:db8::1/64 scope global nodad permanent\n",
                    "Routes\n",
                    "default via 192.0.2.9 metric 7\n"}))
        << shown.out;
    const Result json = Ctl("network show p0 --json");
    EXPECT_TRUE(JsonCheck::IsValid(json.out)) << json.out;
    EXPECT_TRUE(Holds(
        json.out,
        {R"("alternative_names":["second"])", R"("carrier":true)", R"("mtu":1500)",
         R"("parent":{"index":)", R"("name":"p1"})", R"("flags":["up","broadcast",)",
         R"("duplex":"full")", R"("type":"unicast","gateway":"192.0.2.9","table":254,"metric":7)"}))
        << json.out;
    EXPECT_TRUE(Holds(Ctl("network show b0 --json").out, {R"("members":["p0"])"}));
}

// The other end of a veth may be in another name space, where its index names something else.
TEST_F(NetworkCommand, AnIndexOfAnotherNameSpaceHasNoName) {
    const std::string here = std::to_string(gettid());
    UniqueFd other;
    std::thread([&] {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        other = NameSpace();
        ASSERT_TRUE(Ip("link add q1 type veth peer name q0 netns " + here));
    }).join();
    const std::string shown = Ctl("network show q0").out;
    EXPECT_TRUE(Holds(shown, {"  parent:                   index ", "  parent name space:"}))
        << shown;
}

TEST_F(NetworkCommand, StrangeNamesAndColors) {
    ASSERT_TRUE(Ip("link add a\xff\x1b[1m type veth peer name b\"\\\xc3\xa4"))
        << ReadFile("/tmp/ip.out");
    for (const char* const command : {"list", "show 'a\xff\x1b[1m'"}) {
        const Result json = Ctl(std::string("network --json ") + command);
        EXPECT_TRUE(JsonCheck::IsValid(json.out)) << json.out;
        EXPECT_TRUE(
            Holds(json.out, {"\"a\xEF\xBF\xBD\\u001b[1m\"", "\"b\\\"\\\\\xc3\xa4\""}, {"\xff"}));
        const std::string text = Ctl(std::string("network ") + command).out;
        EXPECT_TRUE(Holds(text, {"a\\xff\\x1b[1m"}, {"\xff", "\x1b"}));
    }
    const std::string list = "/build/bin/kemdctl network --name p0";
    EXPECT_TRUE(Contains(OnTerminal("TERM=xterm " + list), "\x1b[32mup\x1b[0m     veth"));
    for (const char* const environment : {"TERM=xterm NO_COLOR=1 ", "TERM=dumb "}) {
        EXPECT_FALSE(Contains(OnTerminal(environment + list), "\x1b"));
    }
}

TEST_F(NetworkCommand, AnOrdinaryUserSeesTheRest) {
    const int code = InChild([] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct none[2]{};
        if (prctl(PR_SET_SECUREBITS, SECBIT_NOROOT) != 0) return 99;
        if (syscall(SYS_capset, &header, none) != 0) return 98;
        WriteFile("/tmp/text", Ctl("network show p0").out);
        return Ctl("network show p0 --json").code;
    });
    const std::string text = ReadFile("/tmp/text");
    EXPECT_TRUE(Holds(text,
                      {"Not shown\n  wake-on-LAN:              Operation not permitted; ask as "
                       "root\n  plugged module:           Operation not permitted; ask as root\n"},
                      {"module vendor"}))
        << text;
    EXPECT_EQ(code, 0);
    const std::string out = ReadFile("/tmp/out");
    EXPECT_TRUE(JsonCheck::IsValid(out)) << out;
    EXPECT_TRUE(Holds(out, {"\"driver\":\"veth\"", "\"module_vendor\":\"Operation not permitted"}))
        << out;
    EXPECT_TRUE(Contains(ReadFile("/tmp/err"), "kemdctl: note: ")) << ReadFile("/tmp/err");
}

TEST_F(NetworkCommand, WatchesUntilItIsInterrupted) {
    const struct {
        const char* commands;
        const char* line;
        const char* json;
    } steps[] = {
        {"link set p1 down", "  p0: state down (was up)\n",
         R"("changes":{"state":{"before":"up","after":"down"}}})"},
        {"addr add 192.0.2.7/24 dev p0",
         "  p0: addresses 192.0.2.1/24 192.0.2.7/24 2001:db8::1/64 (was 192.0.2.1/24 2001:db8::1/64)\n",
         R"("what":["address"])"},
        {"link set p0 mtu 1400", "mtu 1400 bytes (was 1500 bytes)\n", R"("what":["other"])"},
        {"link set p0 nomaster", "master none (was b0)",
         R"("master":{"before":"b0","after":"none"})"},
        {"route add default via 192.0.2.9 dev p0 metric 7",
         "  p0: route default via 192.0.2.9 metric 7 linkdown (was none)\n", R"("what":["route"])"},
        {"route replace default via 192.0.2.9 dev p0 metric 7 proto dhcp onlink",
         " metric 7 protocol dhcp linkdown onlink (was default via 192.0.2.9 metric 7 linkdown)\n",
         R"("after":"default via 192.0.2.9 metric 7 protocol dhcp linkdown onlink")"},
        {"route add unreachable default metric 9",
         "  route unreachable default metric 9 (was none)\n",
         R"("after":"unreachable default metric 9")"},
        {"link set p1 up\naddr add 198.51.100.1/24 dev p1\nroute replace default via 198.51.100.9 dev p1 metric 7",
         "  p1: route default via 198.51.100.9 dev p1 metric 7 (was default via 192.0.2.9 dev p0 ",
         R"(default via 198.51.100.9 dev p1 metric 7)"},
        {"link set p1 name q1", "  q1: name q1 (was p1)\n",
         R"("name":{"before":"p1","after":"q1"})"},
        {"link del b0", "  b0: removed (was bridge, off)\n", R"("what":["removed"])"},
        {"link add b1 type bridge", "  b1: added: bridge, off\n", R"("name":"b1","state":"off")"},
    };
    for (const bool asJson : {false, true}) {
        Watch(asJson ? "--json" : nullptr);
        ASSERT_TRUE(Sees(asJson ? "\"interfaces\":[" : "  watching 4 interfaces\n"));
        for (const auto& [commands, line, json] : steps) {
            ASSERT_TRUE(Ip(commands)) << ReadFile("/tmp/ip.out");
            EXPECT_TRUE(Sees(asJson ? json : line)) << commands << "\n" << ReadFile("/tmp/watch");
        }
        EXPECT_EQ(Interrupt(), 0);
        std::istringstream lines(ReadFile("/tmp/watch"));
        for (std::string line; asJson && std::getline(lines, line);) {
            EXPECT_TRUE(JsonCheck::IsValid(line)) << line;
        }
        ASSERT_TRUE(
            Ip("link set q1 name p1\nlink del b1\nlink add b0 type bridge\n"
               "link set p0 mtu 1500 master b0\nlink set p1 up\n"
               "addr del 192.0.2.7/24 dev p0\naddr flush dev p1\nroute flush default"))
            << ReadFile("/tmp/ip.out");
    }
    // A filter hides the others' changes.
    Watch("--kind=bridge");
    ASSERT_TRUE(Ip("link set p1 down\nlink set b0 up"));
    EXPECT_TRUE(Sees("  b0: state "));
    EXPECT_FALSE(Contains(ReadFile("/tmp/watch"), "p1:"));
    EXPECT_EQ(Interrupt(), 0);
    // What comes and goes while it cannot read is merged, not lost.
    Watch(nullptr);
    kill(process, SIGSTOP);
    std::string commands;
    for (int i = 0; i < 3000; ++i) commands += "link set p1 up\nlink set p1 down\n";
    ASSERT_TRUE(Ip(commands + "link set p0 alias other"));
    kill(process, SIGCONT);
    EXPECT_TRUE(Sees("p0: alias other (was uplink), carrier changes ")) << ReadFile("/tmp/watch");
    EXPECT_EQ(Interrupt(), 0);
    // An interrupt that its caller ignores, as of a command in the background, does not end it.
    std::signal(SIGINT, SIG_IGN);
    Watch("--kind=bridge");
    std::signal(SIGINT, SIG_DFL);
    kill(process, SIGINT);
    ASSERT_TRUE(Ip("link set b0 down"));
    EXPECT_TRUE(Sees("  b0: state off"));
    EXPECT_EQ(Interrupt(SIGTERM), 0);
    // It ends with its reader, though nothing changes.
    EXPECT_EQ(std::system("{ /build/bin/kemdctl network watch; echo $? >/tmp/code; } | read line"),
              0);
    EXPECT_EQ(ReadFile("/tmp/code"), "0\n");
}

}  // namespace
