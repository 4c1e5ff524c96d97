// The probe and a driver played by this program: the device is a plain file and ioctl is ours.
// Offsets in the records are those of the driver's binary interface.
#include "daemon/smbus_probe.h"

#include <stdarg.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "daemon/version.h"
#include "tests/traced_test.h"

namespace {

constexpr size_t kRequestSize = 32;
constexpr size_t kInfoSize = 1312;

struct Driver {
    int error = 0;                                     // 0: the request succeeds
    std::string reply = std::string(kInfoSize, '\0');  // where it is 0 the request's bytes stay
    unsigned long code = 0;
    std::string request;
    std::string info;
};
Driver g_driver;

template <typename Value>
Value At(const std::string& record, size_t offset) {
    Value value{};
    std::memcpy(&value, record.data() + offset, sizeof(value));
    return value;
}

template <typename Value>
void Put(std::string& record, size_t offset, Value value) {
    std::memcpy(record.data() + offset, &value, sizeof(value));
}

uint32_t OwnVersionCode() {
    const VersionNumbers version = ParseVersion(kVersion.version);
    return version.major << 16 | version.minor << 8 | version.build;
}

}  // namespace

extern "C" int ioctl(int /*fd*/, unsigned long code, ...) noexcept {
    va_list args;
    va_start(args, code);
    char* request = va_arg(args, char*);
    va_end(args);
    g_driver.code = code;
    g_driver.request.assign(request, kRequestSize);
    char* info = At<char*>(g_driver.request, 16);
    g_driver.info.assign(info, kInfoSize);
    for (size_t i = 0; i < g_driver.reply.size(); ++i) {
        if (g_driver.reply[i] != '\0') info[i] = g_driver.reply[i];
    }
    request[24] = 7;  // success or not: a number that is only shown
    errno = g_driver.error;
    return g_driver.error == 0 ? 0 : -1;
}

namespace {

class SmbusProbeTest : public TracedTest {
  protected:
    void SetUp() override {
        TracedTest::SetUp();
        WriteFile("/dev/pci/smbus", "");
        g_driver = Driver();
        for (const char* name : {"OV_SYSTEM", "OV_OS", "OV_NICKNAME"}) unsetenv(name);
    }
    static constexpr const char* kNoDriver =
        "KEMD-MAIN: INFO: smbus-driver is not available on this OS (But, don't worry about this, it "
        "might be OK on some OS systems!)\n";
    const std::string m_probe = "KEMD-MAIN::DiscoverSmbusDriverInfo: ";
};

TEST_F(SmbusProbeTest, SendsWhoAsks) {
    setenv("OV_SYSTEM", std::string(40, 'S').c_str(), 1);
    setenv("OV_OS", "", 1);
    setenv("OV_NICKNAME", "SLES12", 1);
    DiscoverSmbusDriverInfo();
    EXPECT_EQ(g_driver.code, 0xC00873FF);
    std::string request(kRequestSize, '\0');
    Put(request, 0, 1);
    Put(request, 4, 0xFF);
    Put(request, 8, 0x520);
    request.replace(16, 8, g_driver.request, 16, 8);  // the address of the buffer
    EXPECT_EQ(g_driver.request, request);
    std::string info(kInfoSize, '\0');
    Put(info, 32, OwnVersionCode());
    info.replace(96, 4, "KEMD");
    info.replace(736, 32, 32, 'S');
    info.replace(896, 6, "SLES12");
    EXPECT_EQ(g_driver.info, info);
}

TEST_F(SmbusProbeTest, TracesEveryFieldInOrder) {
    setenv("OV_SYSTEM", "RX300", 1);
    uint32_t number = 0x0A0B0CA0;
    for (const size_t offset : {0, 16, 20, 24, 28, 32, 64, 68})
        Put(g_driver.reply, offset, ++number);
    for (size_t offset = 48; offset < 56; ++offset) g_driver.reply[offset] = char(offset + 0x80);
    size_t text = 0;
    for (const size_t offset : {128, 160, 224, 288, 352, 384, 448, 576, 928}) {
        g_driver.reply.replace(offset, 6, "text " + std::to_string(++text));
    }
    g_driver.reply.replace(128, 32, 32, 'N');  // fills its field
    DiscoverSmbusDriverInfo();
    EXPECT_TRUE(InOrder(Trace(), {m_probe + "evaluating IOCTL_SMBUS_DRIVER_INFO (0xC00873FF)\n",
                                  "Version                     : 0x00000001\n",
                                  "CmdNumber                   : 0x000000FF\n",
                                  "SizeOfInOutBuffer           : 0x00000520\n",
                                  "pInOutBuffer                : 0x0x",
                                  "Success                     : 0x00000007\n",
                                  "OSKernelVersionCode         : 0x0A0B0CA1\n",
                                  "smbus_VersionCode           : 0x0A0B0CA2\n",
                                  "smbus_ArchMode              : 0x0A0B0CA3\n",
                                  "smbus_ArchXEN               : 0x0A0B0CA4\n",
                                  "smbus_ArchFacil             : 0x0A0B0CA5\n",
                                  "RequestorVersion            : 0x0A0B0CA6\n",
                                  "smbus_IsSmbiHwFound         : 0x000000B0\n",
                                  "smbus_IsBapiHwFound         : 0x000000B1\n",
                                  "smbus_IsGabiHwFound         : 0x000000B2\n",
                                  "smbus_IsSmbusHwFound        : 0x000000B3\n",
                                  "smbus_IsBusIoHwFound        : 0x000000B4\n",
                                  "smbus_IsCpuErrHwFound       : 0x000000B5\n",
                                  "smbus_IsCpuApicHwFound      : 0x000000B6\n",
                                  "smbus_IsCpuInfoHwFound      : 0x000000B7\n",
                                  "smbus_MajorDeviceNumber     : 0x0A0B0CA7\n",
                                  "smbus_IsKmpModule           : 0x0A0B0CA8\n",
                                  "RequestorName               : KEMD\n",
                                  "smbus_Name                  : " + std::string(32, 'N') + "\n",
                                  "smbus_SrcVersion            : text 2\n",
                                  "smbus_SrcDate               : text 3\n",
                                  "smbus_ObjDate               : text 4\n",
                                  "smbus_OsArchitecture        : text 5\n",
                                  "smbus_OsVersion             : text 6\n",
                                  "smbus_CompilerVersion       : text 7\n",
                                  "smbus_KernelVersion         : text 8\n",
                                  "OV_SYSTEM                   : RX300\n",
                                  "OV_OS                       : \n",
                                  "OV_NICKNAME                 : \n",
                                  "smbus_ErrorReturnString     : text 9\n"}));
    EXPECT_FALSE(InOrder(Trace(), {kNoDriver}));
}

TEST_F(SmbusProbeTest, WarnsOnlyWhenTheDriverIsNewer) {
    const uint32_t own = OwnVersionCode();
    for (const uint32_t driver : {own, own - 1, own + 0x10000, 0xFF000000U}) {
        ASSERT_TRUE(Debug.Init("kemd"));
        Put(g_driver.reply, 16, driver);
        DiscoverSmbusDriverInfo();
        char text[128];
        snprintf(text, sizeof(text),
                 "KEMD-MAIN: WARNING: kemd version (0x%08X) is less than smbus driver version "
                 "(0x%08X)\n",
                 own, driver);
        EXPECT_EQ(static_cast<bool>(InOrder(Trace(), {text})), driver > own) << text;
        EXPECT_EQ(static_cast<bool>(InOrder(Trace(), {"WARNING"})), driver > own) << text;
    }
}

TEST_F(SmbusProbeTest, FailuresAreTraced) {
    g_driver.error = ENOTTY;
    DiscoverSmbusDriverInfo();
    std::filesystem::remove("/dev/pci/smbus");
    DiscoverSmbusDriverInfo();
    EXPECT_TRUE(InOrder(
        Trace(),
        {m_probe + "IOCTL_SMBUS_DRIVER_INFO (0xC00873FF) to /dev/pci/smbus failed "
                   "(errno=25: Inappropriate ioctl for device)\n",
         kNoDriver, m_probe + "cannot open /dev/pci/smbus (errno=2: No such file or directory)\n",
         kNoDriver}));
    EXPECT_FALSE(InOrder(Trace(), {"evaluating"}));
}

TEST(VersionTest, NumbersThatDoNotParseAreZero) {
    const struct {
        const char* text;
        unsigned major, minor, build;
    } cases[] = {{"1.2-3", 1, 2, 3}, {"10.07-15", 10, 7, 15}, {"4.x-3", 4, 0, 0}, {"", 0, 0, 0}};
    for (const auto& [text, major, minor, build] : cases) {
        const VersionNumbers version = ParseVersion(text);
        EXPECT_EQ(version.major, major) << text;
        EXPECT_EQ(version.minor, minor) << text;
        EXPECT_EQ(version.build, build) << text;
    }
}

}  // namespace
