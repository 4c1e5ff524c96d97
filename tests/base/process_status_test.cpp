// Runs with tests/base/status.in as /proc/1/status, so that every figure is known.
#include "kemd/process_status.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

namespace {

TEST(ProcessStatus, ValueByKeyUnitAndSteps) {
    // Process, key, scale steps, and what becomes of a value of 4096.
    const std::tuple<pid_t, const char*, uint32_t, uint64_t> rows[] = {
        {1, "VmRSS:", 0, 2048 * 1024},
        {1, "VmRSS:", 1, 2048},
        {1, "VmRSS:", ~0u, 0},
        {1, "VmPeak:", 1, 20 * 1024},
        {1, "VmSize:", 3, 3},
        {1, "VmExe:", 0, 0},  // found, but no number
        {1, "VmHWM:", 1, 4},  // stands inside a long line only
        {1, "Last:", 0, 9},   // without a line end
        {-1, "VmRSS:", 1, 4}};
    for (const auto& [process, key, steps, expected] : rows) {
        uint64_t value = 4096;
        ReadProcStatusValue(process, value, key, steps);
        EXPECT_EQ(expected, value) << process << " " << key << " " << steps;
    }
}

TEST(ProcessStatus, FindsProcessesByTheirWholeName) {
    prctl(PR_SET_NAME, "a test");
    int32_t found = 1234;
    EXPECT_TRUE(FindProcessByName(found, "a test") && found == 1);
    EXPECT_TRUE(!FindProcessByName(found, "a tes") && found == -1);
    EXPECT_FALSE(FindProcessByName(found, nullptr));
}

// A pending request to end acts after each call, not in it: nothing is left open.
TEST(ProcessStatus, CancelledThreadLeavesNothingOpen) {
    const auto open = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = open();
    bool returned = false;
    std::thread([&returned] {
        pthread_cancel(pthread_self());
        std::string text;
        ProcessMemoryInfo info{};
        uint64_t value = 0;
        int32_t pid = 0;
        ReadProcStatusValue(1, value, "VmRSS:", 1);
        GetProcessMemoryInfo(1, info);
        returned = !FindProcessByName(pid, "nobody") && ReadProcFileLine(1, "comm", text) &&
                   value == 2048 && info.size != 0;
        pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
    }).join();
    EXPECT_TRUE(returned);
    EXPECT_EQ(before, open());
}

}  // namespace
