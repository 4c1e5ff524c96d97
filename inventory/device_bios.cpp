#include "inventory/device_bios.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "trace/debug.h"

// Not blocking: a FIFO in the device's place must make nobody wait. Nothing but a device or a file
// can be mapped.
CDeviceBios::CDeviceBios() {
    TRACE(3, "\nCDeviceBiosBase     :   connect to BIOS device...");
    m_file.Reset(open(kMemoryDevice, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!m_file.IsOpen() || fstat(m_file.Get(), &status) != 0) {
        m_lastError = errno;
        m_file.Reset();
    } else if (!S_ISREG(status.st_mode) && !S_ISCHR(status.st_mode)) {
        m_lastError = EINVAL;
        m_file.Reset();
    }
}

// Reads both ends: touching a mapping of memory that is not there would end the process.
bool CDeviceBios::IsReadable(uint64_t address, size_t length) {
    if (length == 0 || address > INT64_MAX - length) {
        m_lastError = EINVAL;
        return false;
    }
    for (const uint64_t position : {address, address + length - 1}) {
        uint8_t byte = 0;
        const ssize_t count = pread(m_file.Get(), &byte, 1, static_cast<off_t>(position));
        if (count == 1) continue;
        m_lastError = count < 0 ? errno : ENXIO;
        return false;
    }
    return true;
}

std::span<const uint8_t> CDeviceBios::Map(uint64_t address, size_t length) {
    m_region.Unmap();
    if (!m_file.IsOpen() || !IsReadable(address, length)) return {};
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const uint64_t offset = address % page;
    if (!m_region.MapReadOnly(m_file.Get(), static_cast<off_t>(address - offset),
                              offset + length)) {
        m_lastError = errno;
        return {};
    }
    return {reinterpret_cast<const uint8_t*>(m_region.Data()) + offset, length};
}
