// The probe, with a driver played by this program: the device is a plain file and ioctl is ours.
// Offsets in the records are those of the driver's binary interface.
#include <stdarg.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "base/version.h"
#include "daemon/startup.h"
#include "tests/traced_test.h"

static std::map<size_t, std::string> g_reply;  // bytes by their offset; none: the request fails
static std::string g_request;

// NOLINTNEXTLINE(readability-identifier-naming)
extern "C" int ioctl(int /*fd*/, unsigned long code, ...) noexcept {
    va_list args;
    va_start(args, code);
    char* request = va_arg(args, char*);
    va_end(args);
    char* info = nullptr;
    std::memcpy(&info, request + 16, sizeof(info));
    g_request.assign(info, 1312);
    for (const auto& [offset, bytes] : g_reply) bytes.copy(info + offset, bytes.size());
    errno = code == 0xC00873FF ? ENOTTY : EINVAL;
    return g_reply.empty() || code != 0xC00873FF ? -1 : 0;
}

namespace {

class SmbusProbeTest : public TracedTest {};

TEST_F(SmbusProbeTest, IntroducesTheDaemonAndTracesTheAnswer) {
    const VersionNumbers version = ParseVersion(kVersion.version);
    const uint32_t own = version.major << 16 | version.minor << 8 | version.build;
    setenv("OV_SYSTEM", std::string(40, 'S').c_str(), 1);
    WriteFile("/dev/pci/smbus", "");
    for (const uint32_t driver : {own, own + 1}) {
        ASSERT_TRUE(Debug.Init("kemd"));
        g_reply = {{0, "\x04\x03\x02\x01"},
                   {16, {reinterpret_cast<const char*>(&driver), 4}},
                   {55, "\x80"},
                   {128, "the driver"},
                   {928, std::string(384, 'E')}};
        DiscoverSmbusDriverInfo();
        char warning[128], ours[32];
        snprintf(warning, sizeof(warning),
                 "KEMD-MAIN: WARNING: kemd version (0x%08X) is less than smbus driver version "
                 "(0x%08X)\n",
                 own, driver);
        snprintf(ours, sizeof(ours), ": 0x%08X\n", own);
        EXPECT_EQ(Contains(Trace(), driver > own ? warning : "WARNING"), driver > own) << warning;
        // A text as long as its field has no terminator.
        EXPECT_TRUE(InOrder(
            Trace(),
            {"DiscoverSmbusDriverInfo: evaluating IOCTL_SMBUS_DRIVER_INFO (0xC00873FF)\n",
             "Version                     : 0x00000001\n",
             "CmdNumber                   : 0x000000FF\n",
             "SizeOfInOutBuffer           : 0x00000520\n", "pInOutBuffer                : 0x0x",
             "OSKernelVersionCode         : 0x01020304\n", "RequestorVersion            ", ours,
             "smbus_IsCpuInfoHwFound      : 0x00000080\n", "RequestorName               : KEMD\n",
             "smbus_Name                  : the driver\n",
             "OV_SYSTEM                   : " + std::string(32, 'S') + "\n",
             "smbus_ErrorReturnString     : " + std::string(384, 'E') + "\n"}));
        EXPECT_EQ(g_request.substr(732, 40).find(std::string(33, 'S')), std::string::npos);
    }
}

TEST_F(SmbusProbeTest, FailuresAreTraced) {
    const std::string probe = "KEMD-MAIN::DiscoverSmbusDriverInfo: ";
    const std::string noDriver =
        "KEMD-MAIN: INFO: smbus-driver is not available on this OS (But, don't worry about this, it "
        "might be OK on some OS systems!)\n";
    g_reply.clear();
    DiscoverSmbusDriverInfo();
    std::filesystem::remove("/dev/pci/smbus");
    DiscoverSmbusDriverInfo();
    EXPECT_TRUE(InOrder(
        Trace(),
        {probe + "IOCTL_SMBUS_DRIVER_INFO (0xC00873FF) to /dev/pci/smbus failed "
                 "(errno=25: Inappropriate ioctl for device)\n",
         noDriver, probe + "cannot open /dev/pci/smbus (errno=2: No such file or directory)\n",
         noDriver}));
    EXPECT_FALSE(Contains(Trace(), "evaluating"));
}

}  // namespace
