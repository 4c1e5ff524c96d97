// The delays between automatic restarts, with a systemd that a script plays.
#include "tests/packaging/script.h"

namespace {

namespace fs = std::filesystem;

TEST(Restart, DelayGrowsWithEachRestart) {
    const struct {
        const char* restarts;
        const char* limit;
        const char* wait;
    } cases[] = {{"0", "3min", ""},         {"1", "3min", ""},       {"2", "3min", "5"},
                 {"3", "3min", "15"},       {"6", "3min", "155"},    {"700", "3min", "155"},
                 {"4", "1min 30s", "20"},   {"3", "45s", "15"},      {"6", "10min", "155"},
                 {"6", "infinity", "155"},  {"6", "1h 2min", "155"}, {"", "", ""},
                 {"Failed", "infinity", ""}};
    WriteProgram("/usr/sbin/sleep", "echo waited $1");
    for (const auto& each : cases) {
        WriteProgram("/usr/bin/systemctl",
                     std::string("[ \"$*\" = \"show -P NRestarts kemd\" ] && echo '") +
                         each.restarts + "' || echo '" + each.limit + "'");
        EXPECT_EQ(Shell("/usr/libexec/kemd/restart-delay"), 0);
        const std::string waited = std::string("waited ") + each.wait + "\n";
        EXPECT_TRUE(*each.wait == '\0' ? Output().empty() : Output().ends_with(waited))
            << each.restarts << " " << Output();
    }
    fs::remove("/usr/sbin/sleep");
    fs::remove("/usr/bin/systemctl");
}

TEST(Restart, GeneratorKnowsWhatSystemdUnderstands) {
    for (const auto& [version, line] :
         {std::pair("systemd 252 (252.38-1~deb12u1)", "ExecStartPre=-+/usr/libexec/kemd/restart-"),
          {"systemd 254~rc1 (254~rc1)", "RestartSteps=5\nRestartMaxDelaySec=160\n"},
          {"systemd 257 (257.7-1)\n+PAM", "RestartSteps=5\nRestartMaxDelaySec=160\n"},
          {"", "ExecStartPre=-+/usr/libexec/kemd/restart-delay\n"}}) {
        WriteProgram("/usr/bin/systemctl",
                     std::string("[ $1 = --version ] && echo '") + version + "'");
        EXPECT_EQ(Shell("/generators/kemd-restart-generator /tmp/units"), 0);
        EXPECT_TRUE(
            InOrder(ReadFile("/tmp/units/kemd.service.d/10-restart.conf"), {"[Service]\n", line}));
    }
    fs::remove("/usr/bin/systemctl");
}

}  // namespace
