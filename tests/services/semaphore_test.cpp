#include "kemd/semaphore.h"

#include <climits>
#include <thread>

#include <gtest/gtest.h>

#include "services/name_registry.h"

namespace {

// Takes all units and counts them.
int Drain(SemaphoreHandle& handle) {
    int units = 0;
    while (WaitForSemaphore(handle, 0) == 0) ++units;
    return units;
}

TEST(SemaphoreTest, StartsAtTheInitialCountOrTheMaximum) {
    const struct {
        int64_t initial;
        int64_t maximum;
        int units;  // -1: refused
    } cases[] = {{1, 3, 1},
                 {5, 3, 3},
                 {0, SEM_VALUE_MAX, 0},
                 {0, SEM_VALUE_MAX + 1L, -1},
                 {-1, 3, -1},
                 {3, (1L << 32) + 3, -1}};
    for (const auto& [initial, maximum, units] : cases) {
        SemaphoreHandle handle;
        EXPECT_EQ(CreateSemaphore(handle, initial, maximum, nullptr), units < 0 ? 0 : 1) << initial;
        if (units >= 0) {
            EXPECT_EQ(Drain(handle), units);
        }
        EXPECT_EQ(CloseSemaphore(handle), units < 0 ? 0 : 1);
    }
}

TEST(SemaphoreTest, TimedWaitTriesOnce) {
    SemaphoreHandle handle;
    for (const int timeout : {-1, 0, 5000}) EXPECT_EQ(WaitForSemaphore(handle, timeout), -1);
    EXPECT_FALSE(ReleaseSemaphore(handle, 1));
    ASSERT_EQ(CreateSemaphore(handle, 0, 1, nullptr), 1);
    EXPECT_EQ(WaitForSemaphore(handle, 5000), -1);
    EXPECT_EQ(WaitForSemaphore(handle, 0), 102);
    for (const int64_t count : {0, -1}) EXPECT_FALSE(ReleaseSemaphore(handle, count));
    EXPECT_EQ(Drain(handle), 0);
    EXPECT_TRUE(ReleaseSemaphore(handle, 3));  // beyond the maximum
    EXPECT_EQ(WaitForSemaphore(handle, 5000), 0);
    EXPECT_EQ(Drain(handle), 2);
    std::thread giver([&] { ReleaseSemaphore(handle, 1); });
    EXPECT_EQ(WaitForSemaphore(handle, -1), 0);
    giver.join();
    EXPECT_EQ(CloseSemaphore(handle), 1);

    ASSERT_EQ(CreateSemaphore(handle, SEM_VALUE_MAX, SEM_VALUE_MAX, nullptr), 1);
    EXPECT_FALSE(ReleaseSemaphore(handle, INT64_MAX));  // stops at the first unit that is refused
    EXPECT_EQ(CloseSemaphore(handle), 1);
}

TEST(SemaphoreTest, NamesAreOnlyLookedUp) {
    SemaphoreHandle first;
    EXPECT_EQ(CreateSemaphore(first, 1, 1, "unknown"), 1);
    EXPECT_EQ(first.object, nullptr);
    ASSERT_EQ(CreateSemaphore(first, 1, 1, nullptr), 1);
    ASSERT_TRUE(NamedSemaphores().Put("shared", first.object));
    SemaphoreHandle second;
    EXPECT_EQ(CreateSemaphore(second, 7, 9, "shared"), 1);
    EXPECT_EQ(second.object, first.object);
    EXPECT_EQ(CloseSemaphore(first), 0);
    EXPECT_EQ(first.object, nullptr);
    EXPECT_EQ(Drain(second), 1);
    // A create on a handle drops its reference first, and fails when others remain.
    EXPECT_EQ(CreateSemaphore(first, 0, 1, "shared"), 1);
    EXPECT_EQ(CreateSemaphore(first, 1, 1, nullptr), 0);
    NamedSemaphores().Remove("shared");
    EXPECT_EQ(CreateSemaphore(second, 2, 2, nullptr), 1);
    EXPECT_EQ(Drain(second), 2);
    EXPECT_EQ(CloseSemaphore(second), 1);
}

}  // namespace
