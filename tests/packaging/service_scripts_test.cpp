// The scripts that the service runs, on other systems' release files and with an init system that a
// script plays.
#include <array>

#include "tests/packaging/script.h"

namespace {

namespace fs = std::filesystem;

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

// What a shell, and the init system, reads in it.
std::string Values(const std::string& release) {
    Describe(release);
    EXPECT_EQ(Shell(". /run/kemd.env; echo \"$OV_NICKNAME|$OV_OS_MAJOR|$OV_OS_MINOR|$OV_OS\""), 0);
    return Output();
}

TEST_F(ServiceScripts, EnvironmentKnowsTheSystems) {
    const std::pair<const char*, const char*> cases[] = {
        {"PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nVERSION_ID=\"12\"\nID=debian\n",
         "DEBIAN12|12|0|Debian GNU/Linux 12 (bookworm)\n"},
        {"ID=debian\nPRETTY_NAME=\"Debian GNU/Linux trixie/sid\"\n",
         "DEBIAN|||Debian GNU/Linux trixie/sid\n"},
        {"NAME=\"SLES\"\nVERSION_ID=\"12.5\"\nID=\"sles\"\nPRETTY_NAME=\"SLES 12 SP5\"\n",
         "SLES12|12|5|SLES 12 SP5\n"},
        {"ID=\"sles_sap\"\nVERSION_ID=\"15.6\"\n", "SLES15|15|6|sles_sap\n"},
        {"ID=\"rhel\"\nVERSION_ID=\"7.9\"\n", "RHEL7|7|9|rhel\n"},
        {"ID=\"ol\"\nVERSION_ID=\"7.9\"\n", "OL7|7|9|ol\n"},
        {"ID='rocky'\nVERSION_ID='9.4'\n", "ROCKY9|9|4|rocky\n"},
        {"ID=\"almalinux\"\r\nVERSION_ID=\"8.10\"\r\n", "ALMALINUX8|8|10|almalinux\n"},
        {"ID=ubuntu\nVERSION_ID=22.04", "UBUNTU22|22|04|ubuntu\n"},
        {"ID=\"opensuse-leap\"\nVERSION_ID=\"15.5\"\n", "OPENSUSELEAP15|15|5|opensuse-leap\n"},
        {"no assignment", "|||Linux\n"},
        // Nothing is executed and nothing leaves its quotes.
        {"ID=\"x$(touch /tmp/pwned)`touch /tmp/pwned`\"\nPRETTY_NAME='a\"; touch /tmp/pwned; \\'\n"
         "VERSION_ID=$(touch /tmp/pwned)\n=\n\xff\xfe\n",
         "XTOUCHTMPPWNEDTOUCHTMPPWNED|||a; touch /tmp/pwned; \n"},
    };
    for (const auto& [release, values] : cases) EXPECT_EQ(Values(release), values);
    EXPECT_FALSE(fs::exists("/tmp/pwned"));
}

TEST_F(ServiceScripts, EnvironmentDescribesTheMachine) {
    for (const auto& [answer, line] : {std::pair("echo none; exit 1", "OV_RUNNINGONVM=\"0\"\n"),
                                       {"echo kvm", "OV_RUNNINGONVM=\"1\"\n"}}) {
        WriteProgram("/usr/bin/systemd-detect-virt", answer);
        EXPECT_TRUE(InOrder(Describe(std::string(100'000, '=') + "\nID=debian\n"),
                            {"OV_SYSTEM=\"Linux\"\n", "OV_NICKNAME=\"DEBIAN\"\n", "OV_HOSTNAME=\"",
                             "OV_ARCH=\"x86_64\"\n", line}));
    }
    fs::remove("/usr/bin/systemd-detect-virt");
    EXPECT_FALSE(Contains(Describe("ID=debian\n"), "RUNNINGONVM"));
}

TEST_F(ServiceScripts, EnvironmentNeverFails) {
    fs::remove("/etc/os-release");
    EXPECT_EQ(Shell("/usr/libexec/kemd/environment /sys/none/kemd.env"), 0);
    EXPECT_TRUE(InOrder(Output(), {"no os-release names this system",
                                   "cannot write /sys/none/kemd.env: kemd starts without"}));
}

constexpr const char* kFile = "/etc/orvmon/RunLevel";

class RunLevel : public ServiceScripts {
  protected:
    void SetUp() override {
        fs::create_directories("/run/systemd/system");
        for (const auto& entry : fs::directory_iterator("/etc/orvmon")) fs::remove(entry);
    }

    // What the file holds afterwards, "none" without one.
    static std::string RunWith(const std::string& systemctl) {
        if (!systemctl.empty()) WriteProgram("/usr/bin/systemctl", systemctl);
        EXPECT_EQ(Shell("/usr/libexec/kemd/run-level"), 0);
        EXPECT_FALSE(fs::exists("/etc/orvmon/RunLevel.new"));
        return fs::exists(kFile) ? ReadFile(kFile) : "none";
    }
    static std::string RunWithJobs(const std::string& jobs) {
        return RunWith("[ \"$*\" = \"--no-legend --no-pager --plain list-jobs\" ] && echo '" +
                       jobs + "\n7 umount.target start waiting'");
    }
};

TEST_F(RunLevel, KnowsAShutdownByItsJob) {
    EXPECT_EQ(RunWithJobs("9 reboot.target start waiting"), "6\n");
    EXPECT_EQ(RunWithJobs("1 kemd.service stop running\n 9   kexec.target    start waiting"),
              "6\n");
    EXPECT_EQ(RunWithJobs("9 poweroff.target start waiting"), "0\n");
    EXPECT_EQ(RunWithJobs("9 halt.target start running"), "0\n");
    // Not the system's end; the file of an earlier stop is removed.
    for (const char* jobs :
         {"", "9 soft-reboot.target start waiting", "9 kemd.service restart running",
          "9 reboot.target stop waiting", "9 reboot.target.d start waiting", "No jobs running."}) {
        WriteFile(kFile, "6\n");
        EXPECT_EQ(RunWithJobs(jobs), "none") << jobs;
        EXPECT_EQ(Output(), "") << jobs;
    }
}

TEST_F(RunLevel, AssumesAPlainStopWithoutAnAnswer) {
    for (const char* systemctl : {"", "exit 1", "echo '9 reboot.target start waiting'; exit 1",
                                  "kill -9 $$", "sleep 600"}) {
        WriteFile(kFile, "6\n");
        EXPECT_EQ(RunWith(systemctl), "none") << systemctl;
        EXPECT_TRUE(Contains(Output(), "kemd run-level: cannot list the jobs of the init system"));
    }
}

TEST_F(RunLevel, LeavesNoHalfFileOnAFullDisk) {
    WriteFile("/etc/orvmon/filler", std::string(4096, 'x'));
    EXPECT_EQ(RunWithJobs("9 reboot.target start waiting"), "none");
    EXPECT_TRUE(
        Contains(Output(), "cannot write /etc/orvmon/RunLevel: the modules will not learn"));
}

TEST_F(RunLevel, AsksOtherInitSystems) {
    fs::remove("/run/systemd/system");
    for (const auto& [answer, level] :
         {std::pair("N 6", "6\n"), {"3 0", "0\n"}, {"N 5", "none"}, {"unknown", "none"}}) {
        WriteProgram("/usr/sbin/runlevel", std::string("echo ") + answer);
        EXPECT_EQ(RunWith(""), level) << answer;
    }
    fs::remove("/usr/sbin/runlevel");
    EXPECT_EQ(Shell("RUNLEVEL=6 PREVLEVEL=2 /usr/libexec/kemd/run-level"), 0);
    EXPECT_EQ(ReadFile(kFile), "6\n");
}

TEST_F(ServiceScripts, RestartDelayGrowsWithEachRestart) {
    const std::array<const char*, 3> cases[] = {
        {"1", "3min", ""},          {"2", "3min", "5"},      {"3", "3min", "15"},
        {"6", "1h 2min", "155"},    {"700", "3min", "155"},  {"4", "1min 30s", "20"},
        {"Failed", "infinity", ""}, {"6", "infinity", "155"}};
    WriteProgram("/usr/sbin/sleep", "echo waited $1");
    for (const auto& [restarts, limit, wait] : cases) {
        WriteProgram("/usr/bin/systemctl",
                     std::string("[ \"$*\" = \"show -P NRestarts kemd\" ] && echo '") + restarts +
                         "' || echo '" + limit + "'");
        EXPECT_EQ(Shell("/usr/libexec/kemd/restart-delay"), 0);
        const std::string waited = *wait ? std::string("waited ") + wait + "\n" : "";
        EXPECT_TRUE(Output().ends_with(waited)) << restarts << " " << Output();
        EXPECT_EQ(Output().empty(), waited.empty()) << restarts;
    }
}

TEST_F(ServiceScripts, GeneratorKnowsWhatSystemdUnderstands) {
    for (const auto& [version, line] :
         {std::pair("systemd 252 (252.38-1~deb12u1)", "ExecStartPre=-+/usr/libexec/kemd/restart-"),
          {"systemd 254~rc1 (254~rc1)", "RestartSteps=5\nRestartMaxDelaySec=160\n"},
          {"", "ExecStartPre=-+/usr/libexec/kemd/restart-delay\n"}}) {
        WriteProgram("/usr/bin/systemctl",
                     std::string("[ $1 = --version ] && echo '") + version + "'");
        EXPECT_EQ(Shell("/generators/kemd-restart-generator /tmp/units"), 0);
        EXPECT_TRUE(
            InOrder(ReadFile("/tmp/units/kemd.service.d/10-restart.conf"), {"[Service]\n", line}));
    }
}

}  // namespace
