// /usr/libexec/kemd/run-level with an init system that a script plays.
#include "tests/packaging/script.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kScript = "/usr/libexec/kemd/run-level";
constexpr const char* kFile = "/etc/orvmon/RunLevel";

class RunLevelScript : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories("/run/systemd/system");
        for (const auto& entry : fs::directory_iterator("/etc/orvmon")) fs::remove(entry);
        fs::remove("/usr/bin/systemctl");
    }
    void TearDown() override { fs::remove("/usr/bin/systemctl"); }

    // What the file holds afterwards, "none" without one.
    static std::string RunWith(const std::string& systemctl) {
        if (!systemctl.empty()) WriteProgram("/usr/bin/systemctl", systemctl);
        EXPECT_EQ(Shell(kScript), 0);
        EXPECT_FALSE(fs::exists("/etc/orvmon/RunLevel.new"));
        return fs::exists(kFile) ? ReadFile(kFile) : "none";
    }
    static std::string RunWithJobs(const std::string& jobs) {
        return RunWith("[ \"$*\" = \"--no-legend --no-pager --plain list-jobs\" ] && echo '" +
                       jobs + "'");
    }
};

TEST_F(RunLevelScript, KnowsAShutdownByItsJob) {
    const std::string others = "12 kemd.service stop running\n7 umount.target start waiting\n";
    EXPECT_EQ(RunWithJobs(others + "9 reboot.target start waiting"), "6\n");
    EXPECT_EQ(RunWithJobs(" 9   kexec.target    start waiting\n" + others), "6\n");
    EXPECT_EQ(RunWithJobs("9 poweroff.target start waiting\n" + others), "0\n");
    EXPECT_EQ(RunWithJobs("9 halt.target start running"), "0\n");
    // Not the system's end; whatever an earlier stop left goes away.
    for (const char* jobs :
         {"", "9 soft-reboot.target start waiting", "9 kemd.service restart running",
          "9 reboot.target stop waiting", "9 reboot.target.d start waiting",
          "9 my-poweroff.target start waiting", "No jobs running."}) {
        WriteFile(kFile, "6\n");
        EXPECT_EQ(RunWithJobs(jobs), "none") << jobs;
        EXPECT_EQ(Output(), "") << jobs;
    }
}

TEST_F(RunLevelScript, TakesAStopForAPlainOneWhenNobodyAnswers) {
    for (const char* systemctl : {"", "exit 1", "echo '9 reboot.target start waiting'; exit 1",
                                  "kill -9 $$", "sleep 600"}) {
        WriteFile(kFile, "6\n");
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(RunWith(systemctl), "none") << systemctl;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
        EXPECT_TRUE(Contains(Output(), "kemd run-level: cannot list the jobs of the init system"));
    }
}

TEST_F(RunLevelScript, LeavesNoHalfFileOnAFullDisk) {
    WriteFile("/etc/orvmon/filler", std::string(4096, 'x'));
    EXPECT_EQ(RunWithJobs("9 reboot.target start waiting"), "none");
    EXPECT_TRUE(Contains(Output(), "cannot write /etc/orvmon/RunLevel: the modules will not hear"));
}

TEST_F(RunLevelScript, AsksForTheRunLevelOfOtherInitSystems) {
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

}  // namespace
