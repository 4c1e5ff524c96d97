// The probe, with a driver played by this program: the device is a plain file and ioctl is ours.
// Offsets in the records are those of the driver's binary interface.
#include <stdarg.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>

#include "daemon/startup.h"
#include "daemon/version.h"
#include "tests/traced_test.h"

static int g_error = 0;                                // 0: the request succeeds
static std::string g_reply = std::string(1312, '\0');  // where it is 0 the request's bytes stay
static std::string g_request;

// NOLINTNEXTLINE(readability-identifier-naming)
extern "C" int ioctl(int /*fd*/, unsigned long code, ...) noexcept {
    va_list args;
    va_start(args, code);
    char* request = va_arg(args, char*);
    va_end(args);
    char* info = nullptr;
    std::memcpy(&info, request + 16, sizeof(info));
    g_request.assign(info, g_reply.size());
    request[24] = 7;  // success or not: a number that is only shown
    for (size_t i = 0; i < g_reply.size(); ++i) {
        if (g_reply[i] != '\0') info[i] = g_reply[i];
    }
    errno = code == 0xC00873FF ? g_error : EINVAL;
    return errno == 0 ? 0 : -1;
}

namespace {

class SmbusProbeTest : public TracedTest {
  protected:
    void SetUp() override {
        TracedTest::SetUp();
        WriteFile("/dev/pci/smbus", "");
        g_error = 0;
        g_reply.assign(g_reply.size(), '\0');
    }
    const std::string m_probe = "KEMD-MAIN::DiscoverSmbusDriverInfo: ";
};

// In the order of the trace: name, offset, and the size of a number, or 0 for a text.
constexpr const char* kFields =
    "OSKernelVersionCode 0 4 smbus_VersionCode 16 4 smbus_ArchMode 20 4 smbus_ArchXEN 24 4 "
    "smbus_ArchFacil 28 4 RequestorVersion 32 4 smbus_IsSmbiHwFound 48 1 smbus_IsBapiHwFound 49 1 "
    "smbus_IsGabiHwFound 50 1 smbus_IsSmbusHwFound 51 1 smbus_IsBusIoHwFound 52 1 "
    "smbus_IsCpuErrHwFound 53 1 smbus_IsCpuApicHwFound 54 1 smbus_IsCpuInfoHwFound 55 1 "
    "smbus_MajorDeviceNumber 64 4 smbus_IsKmpModule 68 4 RequestorName 96 0 smbus_Name 128 0 "
    "smbus_SrcVersion 160 0 smbus_SrcDate 224 0 smbus_ObjDate 288 0 smbus_OsArchitecture 352 0 "
    "smbus_OsVersion 384 0 smbus_CompilerVersion 448 0 smbus_KernelVersion 576 0 OV_SYSTEM 736 0 "
    "OV_OS 768 0 OV_NICKNAME 896 0 smbus_ErrorReturnString 928 0 ";

TEST_F(SmbusProbeTest, IntroducesTheDaemonAndTracesEveryField) {
    // Sent by the daemon; a text as long as its field has no terminator.
    const std::map<size_t, std::string> own = {
        {96, "KEMD"}, {736, std::string(32, 'S')}, {768, ""}, {896, "SLES12"}};
    setenv("OV_SYSTEM", std::string(40, 'S').c_str(), 1);
    setenv("OV_OS", "", 1);
    setenv("OV_NICKNAME", "SLES12", 1);
    std::vector<std::string> lines{
        "Version                     : 0x00000001\n", "CmdNumber                   : 0x000000FF\n",
        "SizeOfInOutBuffer           : 0x00000520\n", "pInOutBuffer                : 0x0x",
        "Success                     : 0x00000007\n"};
    std::istringstream fields(kFields);
    size_t offset = 0, size = 0;
    for (std::string name; fields >> name >> offset >> size;) {
        const size_t number = size == 4 ? 0x0A0B0C80 + offset : 0x80 + offset;
        char text[16];
        snprintf(text, sizeof(text), size == 0 ? "at%zu" : "0x%08zX", size == 0 ? offset : number);
        const std::string value = own.contains(offset) ? own.at(offset) : text;
        if (size != 0) std::memcpy(&g_reply[offset], &number, size);
        if (size == 0) g_reply.replace(offset, value.size(), value);
        name.resize(28, ' ');
        lines.push_back(name.append(": ").append(value).append("\n"));
    }
    EXPECT_EQ(lines.size(), 34U);
    DiscoverSmbusDriverInfo();
    for (const auto& [field, value] : own) {
        EXPECT_EQ(g_request.substr(field, 32), value + std::string(32 - value.size(), '\0'));
    }
    EXPECT_TRUE(InOrder(Trace(), lines));
    EXPECT_TRUE(Contains(Trace(), m_probe + "evaluating IOCTL_SMBUS_DRIVER_INFO (0xC00873FF)\n"));
}

TEST_F(SmbusProbeTest, WarnsOnlyWhenTheDriverIsNewer) {
    const VersionNumbers version = ParseVersion(kVersion.version);
    const uint32_t own = version.major << 16 | version.minor << 8 | version.build;
    for (const uint32_t driver : {own, own + 1, 0xFF000000U}) {
        ASSERT_TRUE(Debug.Init("kemd"));
        std::memcpy(&g_reply[16], &driver, sizeof(driver));
        DiscoverSmbusDriverInfo();
        char text[128];
        snprintf(text, sizeof(text),
                 "KEMD-MAIN: WARNING: kemd version (0x%08X) is less than smbus driver version "
                 "(0x%08X)\n",
                 own, driver);
        EXPECT_EQ(Contains(Trace(), driver > own ? text : "WARNING"), driver > own) << text;
    }
}

TEST_F(SmbusProbeTest, FailuresAreTraced) {
    const std::string noDriver =
        "KEMD-MAIN: INFO: smbus-driver is not available on this OS (But, don't worry about this, it "
        "might be OK on some OS systems!)\n";
    g_error = ENOTTY;
    DiscoverSmbusDriverInfo();
    std::filesystem::remove("/dev/pci/smbus");
    DiscoverSmbusDriverInfo();
    EXPECT_TRUE(InOrder(
        Trace(),
        {m_probe + "IOCTL_SMBUS_DRIVER_INFO (0xC00873FF) to /dev/pci/smbus failed "
                   "(errno=25: Inappropriate ioctl for device)\n",
         noDriver, m_probe + "cannot open /dev/pci/smbus (errno=2: No such file or directory)\n",
         noDriver}));
    EXPECT_FALSE(Contains(Trace(), "evaluating"));
}

}  // namespace
