// The record that the kernel's system-management bus driver exchanges with its callers. Offsets are
// the driver's binary interface; strings fill their field and need not be terminated.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr const char* kSmbusDevice = "/dev/pci/smbus";
// _IOWR('s', 0xFF, <a pointer>): the size in the code is that of a pointer, not of the record.
inline constexpr uint32_t IOCTL_SMBUS_DRIVER_INFO = 0xC00873FF;

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
