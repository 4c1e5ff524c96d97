// /usr/libexec/kemd/environment on the release files of other systems.
#include "tests/packaging/script.h"

namespace {

namespace fs = std::filesystem;

std::string Describe(const std::string& release) {
    WriteFile("/etc/os-release", release);
    fs::remove("/run/kemd.env");
    EXPECT_EQ(Shell("/usr/libexec/kemd/environment /run/kemd.env"), 0);
    return ReadFile("/run/kemd.env");
}

// What a shell, and the init system, makes of the file.
std::string Values(const std::string& release) {
    Describe(release);
    EXPECT_EQ(Shell(". /run/kemd.env; echo \"$OV_NICKNAME|$OV_OS_MAJOR|$OV_OS_MINOR|$OV_OS\""), 0);
    return Output();
}

TEST(EnvironmentScript, KnowsTheSystems) {
    struct Case {
        const char* release;
        const char* values;
    };
    const Case cases[] = {
        {"PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nVERSION_ID=\"12\"\nID=debian\n",
         "DEBIAN12|12|0|Debian GNU/Linux 12 (bookworm)\n"},
        {"ID=debian\nPRETTY_NAME=\"Debian GNU/Linux trixie/sid\"\n",
         "DEBIAN|||Debian GNU/Linux trixie/sid\n"},
        {"NAME=\"SLES\"\nVERSION_ID=\"12.5\"\nID=\"sles\"\nPRETTY_NAME=\"SUSE Linux Enterprise Server "
         "12 SP5\"\n",
         "SLES12|12|5|SUSE Linux Enterprise Server 12 SP5\n"},
        {"ID=\"sles_sap\"\nVERSION_ID=\"15.6\"\n", "SLES15|15|6|sles_sap\n"},
        {"ID=\"rhel\"\nVERSION_ID=\"7.9\"\n", "RHEL7|7|9|rhel\n"},
        {"ID=\"ol\"\nVERSION_ID=\"7.9\"\nPRETTY_NAME=\"Oracle Linux Server 7.9\"\n",
         "OL7|7|9|Oracle Linux Server 7.9\n"},
        {"ID=\"centos\"\nVERSION_ID=\"7\"\n", "CENTOS7|7|0|centos\n"},
        {"ID='rocky'\nVERSION_ID='9.4'\n", "ROCKY9|9|4|rocky\n"},
        {"ID=\"almalinux\"\r\nVERSION_ID=\"8.10\"\r\n", "ALMALINUX8|8|10|almalinux\n"},
        {"ID=ubuntu\nVERSION_ID=\"22.04\"", "UBUNTU22|22|04|ubuntu\n"},
        {"ID=fedora\nVERSION_ID=40\n", "FEDORA40|40|0|fedora\n"},
        {"ID=\"opensuse-leap\"\nVERSION_ID=\"15.5\"\n", "OPENSUSELEAP15|15|5|opensuse-leap\n"},
        {"ID=\"amzn\"\nVERSION_ID=\"2\"\n", "AMZN2|2|0|amzn\n"},
        {"ID=arch\nPRETTY_NAME=\"Arch Linux\"\n", "ARCH|||Arch Linux\n"},
    };
    for (const Case& each : cases) EXPECT_EQ(Values(each.release), each.values);
}

TEST(EnvironmentScript, DescribesTheMachine) {
    WriteProgram("/usr/bin/systemd-detect-virt", "echo none; exit 1");
    std::string text = Describe("ID=debian\n");
    EXPECT_TRUE(InOrder(text, {"OV_SYSTEM=\"Linux\"\n", "OV_HOSTNAME=\"", "OV_ARCH=\"x86_64\"\n",
                               "OV_RUNNINGONVM=\"0\"\n"}));
    WriteProgram("/usr/bin/systemd-detect-virt", "echo kvm");
    EXPECT_TRUE(Contains(Describe("ID=debian\n"), "OV_RUNNINGONVM=\"1\"\n"));
    fs::remove("/usr/bin/systemd-detect-virt");
    EXPECT_FALSE(Contains(Describe("ID=debian\n"), "RUNNINGONVM"));
}

TEST(EnvironmentScript, SurvivesWhateverStandsThere) {
    // Nothing is executed and nothing leaves its quotes.
    const std::string hostile =
        "ID=\"x$(touch /tmp/pwned)`touch /tmp/pwned`\"\nPRETTY_NAME='a\"; touch /tmp/pwned; \\'\n"
        "VERSION_ID=$(touch /tmp/pwned)\n=\n\xff\xfe" +
        std::string(100'000, '=') + "\n";
    EXPECT_EQ(Values(hostile), "XTOUCHTMPPWNEDTOUCHTMPPWNED|||a; touch /tmp/pwned; \n");
    EXPECT_FALSE(fs::exists("/tmp/pwned"));

    EXPECT_EQ(Values("no assignment"), "|||Linux\n");
    fs::remove("/etc/os-release");
    EXPECT_EQ(Shell("/usr/libexec/kemd/environment /run/kemd.env"), 0);
    EXPECT_TRUE(Contains(Output(), "no os-release names this system"));

    EXPECT_EQ(Shell("/usr/libexec/kemd/environment /sys/none/kemd.env"), 0);
    EXPECT_TRUE(Contains(Output(), "cannot write /sys/none/kemd.env: kemd starts without"));
}

}  // namespace
