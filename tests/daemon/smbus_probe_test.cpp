// The probe and a driver played by this program: the device is a plain file and ioctl is ours.
// Offsets in the records are those of the driver's binary interface.
#include <stdarg.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "daemon/startup.h"
#include "daemon/version.h"
#include "tests/traced_test.h"

namespace {

struct Driver {
    int error = 0;                                // 0: the request succeeds
    std::string reply = std::string(1312, '\0');  // where it is 0 the request's bytes stay
    unsigned long code = 0;
    std::string request;
    std::string info;
};
Driver g_driver;

void Put(std::string& record, size_t offset, uint32_t value) {
    std::memcpy(record.data() + offset, &value, sizeof(value));
}

uint32_t OwnVersionCode() {
    const VersionNumbers version = ParseVersion(kVersion.version);
    return version.major << 16 | version.minor << 8 | version.build;
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming)
extern "C" int ioctl(int /*fd*/, unsigned long code, ...) noexcept {
    va_list args;
    va_start(args, code);
    char* request = va_arg(args, char*);
    va_end(args);
    char* info = nullptr;
    std::memcpy(&info, request + 16, sizeof(info));
    g_driver.code = code;
    g_driver.request.assign(request, 32);
    g_driver.info.assign(info, g_driver.reply.size());
    request[24] = 7;  // success or not: a number that is only shown
    for (size_t i = 0; i < g_driver.reply.size(); ++i) {
        if (g_driver.reply[i] != '\0') info[i] = g_driver.reply[i];
    }
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
    }
    const std::string m_probe = "KEMD-MAIN::DiscoverSmbusDriverInfo: ";
};

TEST_F(SmbusProbeTest, SendsWhoAsks) {
    setenv("OV_SYSTEM", std::string(40, 'S').c_str(), 1);
    setenv("OV_OS", "", 1);
    setenv("OV_NICKNAME", "SLES12", 1);
    DiscoverSmbusDriverInfo();
    EXPECT_EQ(g_driver.code, 0xC00873FF);
    std::string request(32, '\0');
    Put(request, 0, 1);
    Put(request, 4, 0xFF);
    Put(request, 8, 0x520);
    request.replace(16, 8, g_driver.request, 16, 8);  // the address of the buffer
    EXPECT_EQ(g_driver.request, request);
    std::string info(1312, '\0');
    Put(info, 32, OwnVersionCode());
    info.replace(96, 4, "KEMD");
    info.replace(736, 32, 32, 'S');
    info.replace(896, 6, "SLES12");
    EXPECT_EQ(g_driver.info, info);
}

TEST_F(SmbusProbeTest, TracesEveryFieldInOrder) {
    setenv("OV_SYSTEM", "RX300", 1);
    for (const char* name : {"OV_OS", "OV_NICKNAME"}) setenv(name, "", 1);
    for (const unsigned offset : {0, 16, 20, 24, 28, 32, 64, 68}) {
        Put(g_driver.reply, offset, 0x0A0B0C80 + offset);
    }
    for (size_t offset = 48; offset < 56; ++offset) g_driver.reply[offset] = char(offset + 0x80);
    for (const size_t offset : {160, 224, 288, 352, 384, 448, 576, 928}) {
        g_driver.reply.replace(offset, 5, "at" + std::to_string(offset));
    }
    g_driver.reply.replace(128, 32, 32, 'N');  // no terminator
    DiscoverSmbusDriverInfo();
    std::istringstream fields(
        "Version 0x00000001 CmdNumber 0x000000FF SizeOfInOutBuffer 0x00000520 pInOutBuffer 0x0x "
        "Success 0x00000007 OSKernelVersionCode 0x0A0B0C80 smbus_VersionCode 0x0A0B0C90 "
        "smbus_ArchMode 0x0A0B0C94 smbus_ArchXEN 0x0A0B0C98 smbus_ArchFacil 0x0A0B0C9C "
        "RequestorVersion 0x0A0B0CA0 smbus_IsSmbiHwFound 0x000000B0 "
        "smbus_IsBapiHwFound 0x000000B1 smbus_IsGabiHwFound 0x000000B2 "
        "smbus_IsSmbusHwFound 0x000000B3 smbus_IsBusIoHwFound 0x000000B4 "
        "smbus_IsCpuErrHwFound 0x000000B5 smbus_IsCpuApicHwFound 0x000000B6 "
        "smbus_IsCpuInfoHwFound 0x000000B7 smbus_MajorDeviceNumber 0x0A0B0CC0 "
        "smbus_IsKmpModule 0x0A0B0CC4 RequestorName KEMD "
        "smbus_Name NNNNNNNNNNNNNNNNNNNNNNNNNNNNNNNN smbus_SrcVersion at160 smbus_SrcDate at224 "
        "smbus_ObjDate at288 smbus_OsArchitecture at352 smbus_OsVersion at384 "
        "smbus_CompilerVersion at448 smbus_KernelVersion at576 OV_SYSTEM RX300 OV_OS - "
        "OV_NICKNAME - smbus_ErrorReturnString at928 ");
    std::vector<std::string> lines{m_probe + "evaluating IOCTL_SMBUS_DRIVER_INFO (0xC00873FF)\n"};
    for (std::string name, value; fields >> name >> value;) {
        name.resize(28, ' ');
        if (value == "-") value.clear();
        lines.push_back(name.append(": ").append(value).append(value == "0x0x" ? "" : "\n"));
    }
    EXPECT_EQ(lines.size(), 35U);
    EXPECT_TRUE(InOrder(Trace(), lines));
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
        EXPECT_EQ(Contains(Trace(), text), driver > own) << text;
        EXPECT_EQ(Contains(Trace(), "WARNING"), driver > own) << text;
    }
}

TEST_F(SmbusProbeTest, FailuresAreTraced) {
    const std::string noDriver =
        "KEMD-MAIN: INFO: smbus-driver is not available on this OS (But, don't worry about this, it "
        "might be OK on some OS systems!)\n";
    g_driver.error = ENOTTY;
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

TEST(VersionTest, NumbersThatDoNotParseAreZero) {
    const struct {
        const char* text;
        unsigned major, minor, build;
    } cases[] = {{"1.2-3", 1, 2, 3}, {"10.07-15", 10, 7, 15}, {"4.x-3", 4, 0, 0}, {"", 0, 0, 0}};
    for (const auto& [text, major, minor, build] : cases) {
        const VersionNumbers version = ParseVersion(text);
        EXPECT_TRUE(version.major == major && version.minor == minor && version.build == build)
            << text;
    }
}

}  // namespace
