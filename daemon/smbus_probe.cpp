// The system-management bus driver: the record that is exchanged with it, and the question.
#include <fcntl.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/unique_fd.h"
#include "base/version.h"
#include "daemon/startup.h"
#include "trace/debug.h"

namespace {

constexpr const char* kSmbusDevice = "/dev/pci/smbus";
// _IOWR('s', 0xFF, <a pointer>): the size in the code is that of a pointer, not of the record.
constexpr uint32_t IOCTL_SMBUS_DRIVER_INFO = 0xC00873FF;

// Offsets are the driver's binary interface; strings fill their field and need not be terminated.
struct SmbusRequest {
    uint32_t Version;            // 1
    uint32_t CmdNumber;          // 0xFF: driver information
    uint32_t SizeOfInOutBuffer;  // bytes
    uint32_t reserved1;
    void* pInOutBuffer;
    uint32_t Success;  // written by the driver, only printed here
    uint32_t reserved2;
};
static_assert(sizeof(SmbusRequest) == 32 && offsetof(SmbusRequest, pInOutBuffer) == 16 &&
              offsetof(SmbusRequest, Success) == 24);

struct SmbusDriverInfo {
    uint32_t OSKernelVersionCode;
    uint32_t reserved1[3];
    uint32_t smbus_VersionCode;  // major << 16 | minor << 8 | build, like RequestorVersion
    uint32_t smbus_ArchMode;
    uint32_t smbus_ArchXEN;
    uint32_t smbus_ArchFacil;
    uint32_t RequestorVersion;  // ours
    uint32_t reserved2[3];
    uint8_t smbus_IsSmbiHwFound;
    uint8_t smbus_IsBapiHwFound;
    uint8_t smbus_IsGabiHwFound;
    uint8_t smbus_IsSmbusHwFound;
    uint8_t smbus_IsBusIoHwFound;
    uint8_t smbus_IsCpuErrHwFound;
    uint8_t smbus_IsCpuApicHwFound;
    uint8_t smbus_IsCpuInfoHwFound;
    uint32_t reserved3[2];
    uint32_t smbus_MajorDeviceNumber;
    uint32_t smbus_IsKmpModule;
    uint32_t reserved4[6];
    char RequestorName[32];  // ours
    char smbus_Name[32];
    char smbus_SrcVersion[64];
    char smbus_SrcDate[64];
    char smbus_ObjDate[64];
    char smbus_OsArchitecture[32];
    char smbus_OsVersion[64];
    char smbus_CompilerVersion[128];
    char smbus_KernelVersion[160];
    char OV_SYSTEM[32];    // ours
    char OV_OS[128];       // ours
    char OV_NICKNAME[32];  // ours
    char smbus_ErrorReturnString[384];
};
static_assert(sizeof(SmbusDriverInfo) == 1312 &&
              offsetof(SmbusDriverInfo, RequestorVersion) == 32 &&
              offsetof(SmbusDriverInfo, smbus_IsSmbiHwFound) == 48 &&
              offsetof(SmbusDriverInfo, smbus_MajorDeviceNumber) == 64 &&
              offsetof(SmbusDriverInfo, RequestorName) == 96 &&
              offsetof(SmbusDriverInfo, smbus_CompilerVersion) == 448 &&
              offsetof(SmbusDriverInfo, OV_SYSTEM) == 736 &&
              offsetof(SmbusDriverInfo, smbus_ErrorReturnString) == 928);

template <size_t kSize>
void CopyText(char (&field)[kSize], std::string_view text) {
    std::memcpy(field, text.data(), std::min(text.size(), kSize));
}

template <size_t kSize>
void CopyVariable(char (&field)[kSize], const char* name) {
    const char* value = std::getenv(name);
    if (value != nullptr) CopyText(field, value);
}

uint32_t VersionCode() {
    const VersionNumbers version = ParseVersion(kVersion.version);
    return version.major << 16 | version.minor << 8 | version.build;
}

void FillRequest(SmbusRequest& request, SmbusDriverInfo& info) {
    request.Version = 1;
    request.CmdNumber = 0xFF;
    request.SizeOfInOutBuffer = sizeof(info);
    request.pInOutBuffer = &info;
    info.RequestorVersion = VersionCode();
    CopyText(info.RequestorName, kTag);
    CopyVariable(info.OV_SYSTEM, "OV_SYSTEM");
    CopyVariable(info.OV_OS, "OV_OS");
    CopyVariable(info.OV_NICKNAME, "OV_NICKNAME");
}

bool AskDriver(SmbusRequest& request) {
    UniqueFd device(open(kSmbusDevice, O_RDWR | O_CLOEXEC));
    int error = errno;
    if (!device.IsOpen()) {
        TRACE(2, "%s-MAIN::DiscoverSmbusDriverInfo: cannot open %s (errno=%d: %s)\n", kTag,
              kSmbusDevice, error, std::strerror(error));
        return false;
    }
    const int result = ioctl(device.Get(), IOCTL_SMBUS_DRIVER_INFO, &request);
    error = errno;
    device.Reset();
    if (result >= 0) return true;
    TRACE(2,
          "%s-MAIN::DiscoverSmbusDriverInfo: IOCTL_SMBUS_DRIVER_INFO (0x%08X) to %s failed "
          "(errno=%d: %s)\n",
          kTag, IOCTL_SMBUS_DRIVER_INFO, kSmbusDevice, error, std::strerror(error));
    return false;
}

void TraceNumber(const char* name, uint32_t value) {
    TRACE(2, "%-28s: 0x%08X\n", name, value);
}

// A field may lack a terminator.
template <size_t kSize>
void TraceText(const char* name, const char (&field)[kSize]) {
    TRACE(2, "%-28s: %.*s\n", name, static_cast<int>(kSize), field);
}

#define TRACE_NUMBER(record, field) TraceNumber(#field, (record).field)
#define TRACE_TEXT(record, field) TraceText(#field, (record).field)

void TraceNumbers(const SmbusRequest& request, const SmbusDriverInfo& info) {
    TRACE_NUMBER(request, Version);
    TRACE_NUMBER(request, CmdNumber);
    TRACE_NUMBER(request, SizeOfInOutBuffer);
    // Required: %p writes a 0x of its own.
    TRACE(2, "%-28s: 0x%p\n", "pInOutBuffer", request.pInOutBuffer);
    TRACE_NUMBER(request, Success);
    TRACE_NUMBER(info, OSKernelVersionCode);
    TRACE_NUMBER(info, smbus_VersionCode);
    TRACE_NUMBER(info, smbus_ArchMode);
    TRACE_NUMBER(info, smbus_ArchXEN);
    TRACE_NUMBER(info, smbus_ArchFacil);
    TRACE_NUMBER(info, RequestorVersion);
    TRACE_NUMBER(info, smbus_IsSmbiHwFound);
    TRACE_NUMBER(info, smbus_IsBapiHwFound);
    TRACE_NUMBER(info, smbus_IsGabiHwFound);
    TRACE_NUMBER(info, smbus_IsSmbusHwFound);
    TRACE_NUMBER(info, smbus_IsBusIoHwFound);
    TRACE_NUMBER(info, smbus_IsCpuErrHwFound);
    TRACE_NUMBER(info, smbus_IsCpuApicHwFound);
    TRACE_NUMBER(info, smbus_IsCpuInfoHwFound);
    TRACE_NUMBER(info, smbus_MajorDeviceNumber);
    TRACE_NUMBER(info, smbus_IsKmpModule);
}

void TraceTexts(const SmbusDriverInfo& info) {
    TRACE_TEXT(info, RequestorName);
    TRACE_TEXT(info, smbus_Name);
    TRACE_TEXT(info, smbus_SrcVersion);
    TRACE_TEXT(info, smbus_SrcDate);
    TRACE_TEXT(info, smbus_ObjDate);
    TRACE_TEXT(info, smbus_OsArchitecture);
    TRACE_TEXT(info, smbus_OsVersion);
    TRACE_TEXT(info, smbus_CompilerVersion);
    TRACE_TEXT(info, smbus_KernelVersion);
    TRACE_TEXT(info, OV_SYSTEM);
    TRACE_TEXT(info, OV_OS);
    TRACE_TEXT(info, OV_NICKNAME);
    TRACE_TEXT(info, smbus_ErrorReturnString);
}

}  // namespace

void DiscoverSmbusDriverInfo() {
    SmbusRequest request{};
    SmbusDriverInfo info{};
    FillRequest(request, info);
    if (!AskDriver(request)) {
        Debug.Message(
            "%s-MAIN: INFO: smbus-driver is not available on this OS (But, don't worry about this, "
            "it might be OK on some OS systems!)\n",
            kTag);
        return;
    }
    if (info.RequestorVersion < info.smbus_VersionCode) {
        Debug.Message(
            "%s-MAIN: WARNING: kemd version (0x%08X) is less than smbus driver version (0x%08X)\n",
            kTag, info.RequestorVersion, info.smbus_VersionCode);
    }
    TRACE(2, "%s-MAIN::DiscoverSmbusDriverInfo: evaluating IOCTL_SMBUS_DRIVER_INFO (0x%08X)\n",
          kTag, IOCTL_SMBUS_DRIVER_INFO);
    TraceNumbers(request, info);
    TraceTexts(info);
}
