// Runs with tests/base/status.in as /proc/1/status, so that every figure is known.
#include "kemd/process_status.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr pid_t kNobody = 0x7FFFFFFF;

TEST(ProcessStatus, ValueByKeyUnitAndSteps) {
    // Process, key, scale steps, what the caller left in the value, what it must be then.
    const std::vector<std::tuple<pid_t, const char*, uint32_t, uint64_t, uint64_t>> rows = {
        {1, "VmRSS:", 0, 0, 2048 * 1024},
        {1, "VmRSS:", 1, 0, 2048},
        {1, "VmRSS:", 2, 0, 2},
        {1, "VmRSS:", ~0u, 0, 0},
        {1, "VmRSS", 0, 0, 5},
        {1, "mRSS:", 1, 0, 0},
        {1, "VmPeak:", 1, 0, 20 * 1024},
        {1, "VmSize:", 3, 0, 3},
        {1, "VmSwap:", 0, 0, 12},
        {1, "VmStk:", 0, 0, 7},
        {1, "VmExe:", 0, 77, 0},  // found, but no number
        {1, "VmHWM:", 0, 0, 0},   // stands inside a long line only
        {1, "Last:", 0, 0, 9},    // without a line end
        {1, "Nothing:", 1, 4096, 4},
        {kNobody, "VmRSS:", 1, 0, 0},
        {-1, "VmRSS:", 1, 3000, 2}};
    for (const auto& [process, key, steps, initial, expected] : rows) {
        uint64_t value = initial;
        ReadProcStatusValue(process, value, key, steps);
        EXPECT_EQ(expected, value) << process << " " << key << " " << steps;
    }
}

TEST(ProcessStatus, FindsProcessesByTheirWholeNameAndNullNowhere) {
    prctl(PR_SET_NAME, "a child");  // it inherits the name, so it has it from its first moment
    const pid_t child = fork();
    if (child == 0) _exit(pause());
    prctl(PR_SET_NAME, "test");
    const std::map<const char*, int32_t> rows = {
        {"a child", child}, {"test", 1}, {"a chil", -1}, {"", -1}, {nullptr, -1}};
    for (const auto& [name, expected] : rows) {
        int32_t found = 1234;
        EXPECT_EQ(expected > 0, FindProcessByName(found, name));
        EXPECT_EQ(expected, found);
    }
    std::string text = "old";
    EXPECT_FALSE(ReadProcFileLine(1, nullptr, text) || !text.empty());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

// A request to end that is pending acts after each call, not in it: nothing is left open.
TEST(ProcessStatus, CancelledThreadLeavesNothingOpen) {
    const auto open = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = open();
    for (int call = 0; call < 4; ++call) {
        bool returned = false;
        std::thread([call, &returned] {
            std::string text;
            ProcessMemoryInfo info{};
            uint64_t value = 0;
            int32_t pid = 0;
            pthread_cancel(pthread_self());
            if (call == 0) ReadProcStatusValue(1, value, "VmRSS:", 1);
            if (call == 1) GetProcessMemoryInfo(1, info);
            if (call == 2) FindProcessByName(pid, "nobody");
            if (call == 3) ReadProcFileLine(1, "comm", text);
            returned = value == 2048 || info.size != 0 || pid == -1 || !text.empty();
            pthread_testcancel();
            ADD_FAILURE() << call;
        }).join();
        EXPECT_TRUE(returned) << call;
    }
    EXPECT_EQ(before, open());
}

}  // namespace
