// What a shell completes.
#include "tests/packaging/script.h"

namespace {

// What is offered for the last of the words.
std::string Offered(const std::string& words, const std::string& before = "") {
    const std::string command = words.substr(0, words.find(' '));
    WriteFile("/tmp/complete", before + "\nsource /completion/" + command + ".bash\nCOMP_WORDS=(" +
                                   words + ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_" +
                                   (command == "kemd-module-host" ? "kemd_module_host" : command) +
                                   "\nprintf '%s\\n' \"${COMPREPLY[*]}\"\n");
    EXPECT_EQ(Shell("cd /tmp && bash /tmp/complete"), 0) << Output();
    return Output();
}

TEST(Completion, OffersWhatFits) {
    const std::string head = "2026-11-15 10:00:00.000 [D82A0740]     3000 KB !";
    WriteFile("/tmp/log", head + "beats         one,\n" + head + "bells, \"x\"    two\n" +
                              "2026-11-15 10:00:00.000 [0000ABCD]     3000 KB !kemd          x\n");
    std::filesystem::create_directories("/sys/class/net");
    WriteFile("/sys/class/net/bonding_masters", "");
    for (const char* const name : {"eth0", "eth1.5", "lo"}) {
        std::filesystem::create_symlink("/", std::string("/sys/class/net/") + name);
    }
    const std::pair<const char*, const char*> cases[] = {
        {"kemd --", "--help --version\n"},
        {"kemd-module-host --t", "--timeout --trace\n"},
        {"kemd-module-host --trace = ''", "0 1 2 3 4 5 6\n"},
        {"kemdctl ''",
         "check inventory modules network performance prepare registry status trace xml\n"},
        {"kemdctl status --j", "--json\n"},
        {"kemdctl modules re", "restart reload request\n"},
        {"kemdctl modules stop --", "--help --json\n"},
        {"kemdctl trace /tmp/log --tag ''", "beats kemd\n"},
        {"kemdctl trace --tag kemd /tmp/log --tag = b", "beats\n"},
        {"kemdctl trace /tmp/log --thread ''", "0000ABCD D82A0740\n"},
        {"kemdctl trace --l", "--last-run --lines --list-runs\n"},
        {"kemdctl xml ''", "check convert\n"},
        {"kemdctl inventory ''", "save diff system memory slots pci usb drives network volumes\n"},
        {"kemdctl inventory pci d", "drives\n"},
        {"kemdctl inventory save f m", "memory\n"},
        {"kemdctl inventory diff --v", "--volatile\n"},
        {"kemdctl network ''", "list show watch\n"},
        {"kemdctl network show eth", "eth0 eth1.5\n"},
        {"kemdctl network --name = e", "eth0 eth1.5\n"},
        {"kemdctl network watch --state d", "down dormant\n"},
        {"kemdctl performance ''", "show live summary around list export\n"},
        {"kemdctl perf around ''", "last-run now\n"},
        {"kemdctl perf show --un", "--until\n"},
        {"kemdctl perf show --until y", "yesterday\n"},
        {"kemdctl registry get -", "--expand --help --json\n"},
    };
    for (const auto& [words, offered] : cases) EXPECT_EQ(Offered(words), offered) << words;
    const std::string answer =
        R"(timeout() { printf %s '{"interfaces":[{"alternative_names":["eth,2"]},{"alternative_names":["eth\"3"]},{"alternative_names":["eth]","ethernet"]}]}'; })";
    EXPECT_EQ(Offered("kemdctl network show eth", answer), "eth0 eth1.5 eth,2\n");
}

// No option of a help text is missing in either shell. Those of kemdctl are read from the help.
TEST(Completion, KnowsEveryOption) {
    for (const std::string command :
         {"kemd-module-host", "kemdctl trace", "kemdctl check", "kemdctl inventory",
          "kemdctl network", "kemdctl performance", "kemdctl xml"}) {
        ASSERT_EQ(Shell(command + " --help"), 0);
        const std::string help = Output(), name = command.substr(0, command.find(' '));
        const std::string bash = Offered(command + " --") + " ";
        const std::string zsh = ReadFile("/completion/_" + name);
        for (size_t at = 0; (at = help.find(" --", at)) != help.npos; ++at) {
            const size_t end = help.find_first_not_of("-abcdefghijklmnopqrstuvwxyz", at + 1);
            const std::string option = help.substr(at + 1, end - at - 1);
            if (option == "--") continue;
            EXPECT_TRUE(Contains(bash, option)) << option << " of " << command;
            EXPECT_TRUE(name == "kemdctl" || Contains(zsh, option)) << option << " of " << command;
        }
    }
}

}  // namespace
