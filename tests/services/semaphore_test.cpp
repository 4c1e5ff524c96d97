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
    SemaphoreHandle handle;
    for (const auto& [initial, maximum] : {std::pair{0L, SEM_VALUE_MAX + 1L}, {-1, 3}}) {
        EXPECT_EQ(CreateSemaphore(handle, initial, maximum, nullptr), 0) << initial;
        EXPECT_FALSE(ReleaseSemaphore(handle, 1));
        EXPECT_EQ(WaitForSemaphore(handle, 0), -1);
        EXPECT_EQ(CloseSemaphore(handle), 0);
    }
    EXPECT_EQ(CreateSemaphore(handle, 5, 3, nullptr), 1);
    EXPECT_EQ(Drain(handle), 3);
    EXPECT_EQ(CloseSemaphore(handle), 1);
}

TEST(SemaphoreTest, TimedWaitTriesOnce) {
    SemaphoreHandle handle;
    ASSERT_EQ(CreateSemaphore(handle, 0, 1, nullptr), 1);
    EXPECT_EQ(WaitForSemaphore(handle, 5000), -1);
    EXPECT_EQ(WaitForSemaphore(handle, 0), 102);
    EXPECT_FALSE(ReleaseSemaphore(handle, 0));
    EXPECT_TRUE(ReleaseSemaphore(handle, 3));  // beyond the maximum
    EXPECT_EQ(WaitForSemaphore(handle, 5000), 0);
    EXPECT_EQ(Drain(handle), 2);
    std::thread giver([&] { ReleaseSemaphore(handle, 1); });
    EXPECT_EQ(WaitForSemaphore(handle, -1), 0);
    giver.join();
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
    EXPECT_EQ(CloseSemaphore(first), 0);  // the other handle remains
    EXPECT_EQ(Drain(second), 1);
    EXPECT_EQ(CloseSemaphore(second), 1);
}

}  // namespace
