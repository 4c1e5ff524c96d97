#include "daemon/smbus_probe.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/unique_fd.h"
#include "daemon/smbus_driver.h"
#include "daemon/version.h"
#include "trace/debug.h"

namespace {

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

// A field without a terminator must not run on into the next one.
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
