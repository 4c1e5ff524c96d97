// The scripts that the service runs, on other systems' release files and with an init system that a
// script plays.
#include <array>

#include "tests/packaging/script.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kFile = "/etc/orvmon/RunLevel";

class ServiceScripts : public testing::Test {
  protected:
    void TearDown() override {
        for (const char* name :
             {"bin/systemctl", "bin/systemd-detect-virt", "sbin/runlevel", "sbin/sleep"})
            fs::remove(std::string("/usr/") + name);
    }
};

// The file that the script makes of a release file.
std::string Describe(const std::string& release) {
    WriteFile("/etc/os-release", release);
    fs::remove("/run/kemd.env");
    EXPECT_EQ(Shell("/usr/libexec/kemd/environment /run/kemd.env"), 0);
    return ReadFile("/run/kemd.env");
}

TEST_F(ServiceScripts, EnvironmentKnowsTheSystems) {
    const std::pair<const char*, const char*> cases[] = {
        {"PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nVERSION_ID=\"12\"\nID=debian\n",
         "DEBIAN12|12|0|Debian GNU/Linux 12 (bookworm)\n"},
        {"ID=\"sles_sap\"\nVERSION_ID=\"15.6\"\n", "SLES15|15|6|sles_sap\n"},
        {"ID=\"almalinux\"\r\nVERSION_ID=\"8.10\"\r\n", "ALMALINUX8|8|10|almalinux\n"},
        {"ID=ubuntu\nVERSION_ID=22.04", "UBUNTU22|22|04|ubuntu\n"},
        {"no assignment", "|||Linux\n"},
        // Nothing is executed and nothing leaves its quotes.
        {"ID=\"x$(touch /tmp/pwned)`touch /tmp/pwned`\"\nPRETTY_NAME='a\"; touch /tmp/pwned; \\'\n"
         "VERSION_ID=$(touch /tmp/pwned)\n=\n\xff\xfe\n",
         "XTOUCHTMPPWNEDTOUCHTMPPWNED|||a; touch /tmp/pwned; \n"},
    };
    for (const auto& [release, values] : cases) {
        (void)Describe(release);
        const char* const show = "echo \"$OV_NICKNAME|$OV_OS_MAJOR|$OV_OS_MINOR|$OV_OS\"";
        EXPECT_EQ(Shell(std::string(". /run/kemd.env; ") + show), 0);
        EXPECT_EQ(Output(), values);
    }
    EXPECT_FALSE(fs::exists("/tmp/pwned"));
}

TEST_F(ServiceScripts, EnvironmentDescribesTheMachineAndNeverFails) {
    WriteProgram("/usr/bin/systemd-detect-virt", "echo kvm");
    EXPECT_TRUE(InOrder(Describe("ID=debian\n"),
                        {"OV_SYSTEM=\"Linux\"\n", "OV_NICKNAME=\"DEBIAN\"\n", "OV_HOSTNAME=\"",
                         "OV_ARCH=\"x86_64\"\n", "OV_RUNNINGONVM=\"1\"\n"}));
    WriteProgram("/usr/bin/systemd-detect-virt", "echo none; exit 1");
    EXPECT_TRUE(Contains(Describe("ID=debian\n"), "OV_RUNNINGONVM=\"0\"\n"));
    fs::remove("/etc/os-release");
    EXPECT_EQ(Shell("/usr/libexec/kemd/environment /sys/none/kemd.env"), 0);
    EXPECT_TRUE(InOrder(Output(), {"no os-release names this system",
                                   "cannot write /sys/none/kemd.env: kemd starts without"}));
}

// What the file holds after the script ran, "none" without one.
std::string RunLevelWith(const std::string& systemctl) {
    WriteProgram("/usr/bin/systemctl", systemctl);
    EXPECT_EQ(Shell("/usr/libexec/kemd/run-level"), 0);
    EXPECT_FALSE(fs::exists("/etc/orvmon/RunLevel.new"));
    return fs::exists(kFile) ? ReadFile(kFile) : "none";
}

std::string RunLevelWithJobs(const std::string& jobs) {
    return RunLevelWith("[ \"$*\" = \"--no-legend --no-pager --plain list-jobs\" ] && echo '" +
                        jobs + "\n7 umount.target start waiting'");
}

TEST_F(ServiceScripts, RunLevelIsKnownByTheJobOfAShutdown) {
    fs::create_directories("/run/systemd/system");
    const std::pair<const char*, const char*> cases[] = {
        {"9 reboot.target start waiting", "6\n"},
        {"1 kemd.service stop running\n 9   kexec.target    start waiting", "6\n"},
        {"9 poweroff.target start waiting", "0\n"},
        {"9 halt.target start running", "0\n"},
        // Not the system's end; the file of an earlier stop is removed.
        {"9 soft-reboot.target start waiting", "none"},
        {"9 reboot.target stop waiting", "none"},
        {"9 reboot.target.d start waiting", "none"},
    };
    for (const auto& [jobs, level] : cases) {
        WriteFile(kFile, "6\n");
        EXPECT_EQ(RunLevelWithJobs(jobs), level) << jobs;
    }
    for (const char* systemctl : {"echo '9 reboot.target start waiting'; exit 1", "sleep 600"}) {
        WriteFile(kFile, "6\n");
        EXPECT_EQ(RunLevelWith(systemctl), "none") << systemctl;
        EXPECT_TRUE(Contains(Output(), "kemd run-level: cannot list the jobs of the init system"));
    }
    WriteFile("/etc/orvmon/filler", std::string(4096, 'x'));
    EXPECT_EQ(RunLevelWithJobs("9 reboot.target start waiting"), "none");
    EXPECT_TRUE(
        Contains(Output(), "cannot write /etc/orvmon/RunLevel: the modules will not learn"));
    fs::remove("/etc/orvmon/filler");
}

TEST_F(ServiceScripts, RunLevelOfOtherInitSystems) {
    fs::remove("/run/systemd/system");
    for (const auto& [answer, level] :
         {std::pair("N 6", "6\n"), {"3 0", "0\n"}, {"N 5", "none"}, {"unknown", "none"}}) {
        WriteProgram("/usr/sbin/runlevel", std::string("echo ") + answer);
        EXPECT_EQ(RunLevelWith(""), level) << answer;
    }
    EXPECT_EQ(Shell("RUNLEVEL=6 PREVLEVEL=2 /usr/libexec/kemd/run-level"), 0);
    EXPECT_EQ(ReadFile(kFile), "6\n");
    fs::remove(kFile);
}

TEST_F(ServiceScripts, RestartDelayGrowsWithEachRestart) {
    const std::array<const char*, 3> cases[] = {{"1", "3min", ""},
                                                {"3", "3min", "waited 15\n"},
                                                {"700", "3min", "waited 155\n"},
                                                {"4", "1min 30s", "waited 20\n"},
                                                {"Failed", "infinity", ""}};
    WriteProgram("/usr/sbin/sleep", "echo waited $1");
    for (const auto& [restarts, limit, waited] : cases) {
        WriteProgram("/usr/bin/systemctl",
                     std::string("[ \"$*\" = \"show -P NRestarts kemd\" ] && echo '") + restarts +
                         "' || echo '" + limit + "'");
        EXPECT_EQ(Shell("/usr/libexec/kemd/restart-delay"), 0);
        EXPECT_TRUE(Output().ends_with(waited)) << restarts << " " << Output();
        EXPECT_EQ(Output().empty(), *waited == '\0') << restarts;
    }
}

TEST_F(ServiceScripts, GeneratorKnowsWhatSystemdUnderstands) {
    for (const auto& [version, line] :
         {std::pair("systemd 252 (252.38-1~deb12u1)", "ExecStartPre=-+/usr/libexec/kemd/restart-"),
          {"systemd 254~rc1 (254~rc1)", "RestartSteps=5\nRestartMaxDelaySec=160\n"}}) {
        WriteProgram("/usr/bin/systemctl",
                     std::string("[ $1 = --version ] && echo '") + version + "'");
        EXPECT_EQ(Shell("/generators/kemd-restart-generator /tmp/units"), 0);
        EXPECT_TRUE(
            InOrder(ReadFile("/tmp/units/kemd.service.d/10-restart.conf"), {"[Service]\n", line}));
    }
}

}  // namespace
