// The C interface as a module in another language uses it: results, sizes and ends of lists.
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <string>

#include <gtest/gtest.h>

#include "kemd/exit_event.h"
#include "kemd/services.h"
#include "kemd/trace.h"
#include "tests/services/registry_world.h"

namespace {

TEST(CInterfaceTest, EventsAreSetWaitedForAndSharedByName) {
    KemdEvent* const event = KemdEventOpen("shared", 1, 0);
    KemdEvent* const same = KemdEventOpen("shared", 0, 1);  // keeps kind and state
    ASSERT_TRUE(event != nullptr && same != nullptr && event != same);
    EXPECT_EQ(KemdEventIsSet(same), 0);
    EXPECT_EQ(KemdEventWait(same, 0), ETIMEDOUT);
    EXPECT_EQ(KemdEventSet(event), 0);
    EXPECT_EQ(KemdEventWait(same, KEMD_WAIT_FOREVER), 0);
    EXPECT_EQ(KemdEventIsSet(same), 1);
    EXPECT_EQ(KemdEventPulse(same), 0);
    EXPECT_EQ(KemdEventIsSet(event), 0);
    KemdEventClose(event);
    EXPECT_EQ(KemdEventSet(same), 0);
    EXPECT_EQ(KemdEventReset(same), 0);
    KemdEventClose(same);
    EXPECT_EQ(KemdEventSet(nullptr), EINVAL);
    // Everybody's: closing it does nothing.
    KemdEventClose(KemdExitEvent());
    EXPECT_EQ(KemdEventSet(KemdExitEvent()), 0);
    EXPECT_EQ(CheckEvent(ExitEvent()), 1);
    EXPECT_EQ(KemdEventReset(KemdExitEvent()), 0);
}

TEST(CInterfaceTest, SemaphoresCountUnits) {
    EXPECT_EQ(KemdSemaphoreOpen(uint32_t{INT_MAX} + 1), nullptr);
    KemdSemaphore* const semaphore = KemdSemaphoreOpen(1);
    ASSERT_NE(semaphore, nullptr);
    EXPECT_EQ(KemdSemaphoreGive(semaphore, 2), 0);
    EXPECT_EQ(KemdSemaphoreTake(semaphore), 0);
    EXPECT_EQ(KemdSemaphoreTryTake(semaphore), 0);
    EXPECT_EQ(KemdSemaphoreTryTake(semaphore), 0);
    EXPECT_EQ(KemdSemaphoreTryTake(semaphore), EAGAIN);
    EXPECT_EQ(KemdSemaphoreGive(semaphore, 0), EINVAL);
    KemdSemaphoreClose(semaphore);
}

TEST(CInterfaceTest, ProfileFilesAreReadAndWritten) {
    const char* const file = "/tmp/profile";
    EXPECT_EQ(KemdProfileWrite(file, "limits", "warm", "60"), 0);
    char text[8];
    EXPECT_EQ(KemdProfileRead(file, "limits", "warm", "1", text, sizeof text), 2u);
    EXPECT_STREQ(text, "60");
    EXPECT_EQ(KemdProfileRead(file, "limits", "hot", "none", text, sizeof text), 4u);
    EXPECT_EQ(KemdProfileWrite("/proc/profile", "limits", "warm", "60"), EIO);
}

class CRegistryInterfaceTest : public RegistryTest {
  protected:
    void SetUp() override {
        RegistryTest::SetUp();
        Load("");
        ASSERT_EQ(KemdRegistryOpen(&m_key, "HKEY_LOCAL_MACHINE\\Fans/front", 1), 0);
    }
    void TearDown() override {
        KemdRegistryClose(m_key);
        RegistryTest::TearDown();
    }
    KemdRegistryKey* m_key = nullptr;
};

TEST_F(CRegistryInterfaceTest, ValuesComeBackWholeOrWithTheSizeThatTheyNeed) {
    EXPECT_EQ(KemdRegistryWriteText(m_key, "name", "left"), 0);
    EXPECT_EQ(KemdRegistryWriteNumber(m_key, "rpm", -1), 0);
    EXPECT_EQ(KemdRegistryWriteBinary(m_key, "raw", "\1\0\2", 3), 0);
    EXPECT_EQ(KemdRegistrySave(), 0);
    EXPECT_NE(ReadFile(kRegistryPath).find("left"), std::string::npos);

    char text[5] = "keep";
    size_t size = 4;
    EXPECT_EQ(KemdRegistryReadText(m_key, "name", text, &size), ERANGE);
    EXPECT_EQ(size, 5u);
    EXPECT_STREQ(text, "keep");
    EXPECT_EQ(KemdRegistryReadText(m_key, "name", text, &size), 0);
    EXPECT_STREQ(text, "left");
    EXPECT_EQ(KemdRegistryReadBinary(m_key, "raw", text, &size), 0);
    EXPECT_EQ(std::string(text, size), std::string("\1\0\2", 3));
    int32_t number = 0;
    EXPECT_EQ(KemdRegistryReadNumber(m_key, "rpm", &number), 0);
    EXPECT_EQ(number, -1);
    EXPECT_EQ(KemdRegistryReadNumber(m_key, "name", &number), ENOENT);
    EXPECT_EQ(KemdRegistryReadText(m_key, "rpm", text, &size), ENOENT);
}

TEST_F(CRegistryInterfaceTest, ListsEndWithENOENT) {
    const std::string longName(200, 'n');
    KemdRegistryKey* sub = nullptr;
    ASSERT_EQ(KemdRegistryOpen(&sub, ("HKEY_LOCAL_MACHINE/Fans/front/" + longName).c_str(), 1), 0);
    EXPECT_EQ(KemdRegistryWriteNumber(m_key, "a", 1), 0);
    char name[256];
    size_t size = sizeof name;
    uint32_t type = 0;
    EXPECT_EQ(KemdRegistryValueName(m_key, 0, name, &size, &type), 0);
    EXPECT_STREQ(name, "a");
    EXPECT_EQ(type, KEMD_REGISTRY_NUMBER);
    EXPECT_EQ(KemdRegistryValueName(m_key, 1, name, &size, nullptr), ENOENT);
    size = sizeof name;
    EXPECT_EQ(KemdRegistrySubkeyName(m_key, 0, name, &size), 0);
    EXPECT_EQ(name, longName);
    EXPECT_EQ(KemdRegistrySubkeyName(m_key, 1, name, &size), ENOENT);

    EXPECT_EQ(KemdRegistryDelete(m_key, longName.c_str()), 0);
    EXPECT_EQ(KemdRegistryWriteNumber(sub, "late", 1), EINVAL);  // its key is gone
    KemdRegistryClose(sub);
    EXPECT_EQ(KemdRegistryOpen(&sub, "HKEY_LOCAL_MACHINE/nothing", 0), ENOENT);
    EXPECT_EQ(KemdRegistryOpen(&sub, "NO_ROOT/key", 1), EINVAL);
}

using CTraceTest = TracedTest;

void WriteV(bool isMessage, unsigned level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    isMessage ? KemdMessageV("c", format, args) : KemdTraceV("c", level, format, args);
    va_end(args);
}

TEST_F(CTraceTest, ArgumentListsAndTheLevelInForce) {
    const unsigned level = KemdTraceLevel();
    EXPECT_EQ(level, Debug.TraceLevel());
    WriteV(false, level, "at %d", 1);
    WriteV(false, level + 1, "above %d", 2);
    Debug.SwitchTrace(false);
    EXPECT_EQ(KemdTraceLevel(), 0u);
    Debug.SwitchTrace(true);
    WriteV(true, 0, "message %d", 3);
    EXPECT_TRUE(InOrder(Trace(), {" c             at 1\n", " c             message 3\n"}));
    EXPECT_FALSE(Contains(Trace(), "above 2"));
}

TEST(CInterfaceTest, ProcessFiguresFillWhatTheCallerKnows) {
    struct KemdMemory memory = {};
    EXPECT_EQ(KemdProcessMemory(getpid(), &memory, sizeof memory), 0);
    EXPECT_TRUE(memory.size >= memory.resident && memory.resident > 0);
    EXPECT_EQ(KemdProcessMemory(-1, &memory, sizeof memory), ESRCH);
    char path[64];
    size_t size = sizeof path;
    EXPECT_EQ(KemdProcessProgram(getpid(), path, &size), 0);
    EXPECT_STREQ(path, "/test/services_test");
    EXPECT_EQ(KemdProcessFind("services_test"), getpid());
}

}  // namespace
