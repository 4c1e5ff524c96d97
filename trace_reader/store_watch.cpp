#include "trace_reader/store_watch.h"

#include <linux/hw_breakpoint.h>
#include <linux/perf_event.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

constexpr uint64_t kWidth = 8;  // bytes that one breakpoint covers, at a multiple of them

// Where the process has this place of the file; 0 when it has not mapped it for writing.
uint64_t AddressOf(int process, const TraceFile& file, uint64_t offset) {
    std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
    for (std::string line; std::getline(maps, line);) {
        unsigned long begin = 0;
        unsigned long end = 0;
        unsigned long from = 0;
        unsigned long inode = 0;
        unsigned deviceMajor = 0;
        unsigned deviceMinor = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx rw-s %lx %x:%x %lu", &begin, &end, &from,
                        &deviceMajor, &deviceMinor, &inode) != 6) {
            continue;
        }
        struct stat mapped = {};
        mapped.st_dev = makedev(deviceMajor, deviceMinor);
        mapped.st_ino = inode;
        if (!file.IsSame(mapped) || offset < from || offset - from >= end - begin) continue;
        return begin + (offset - from);
    }
    return 0;
}

perf_event_attr StoreTo(uint64_t address) {
    perf_event_attr attributes = {};
    attributes.size = sizeof(attributes);
    attributes.type = PERF_TYPE_BREAKPOINT;
    attributes.bp_type = HW_BREAKPOINT_W;
    attributes.bp_addr = address;
    attributes.bp_len = kWidth;
    attributes.sample_period = 1;
    attributes.wakeup_events = 1;
    attributes.exclude_kernel = 1;
    return attributes;
}

// One event of this processor, of whatever process: threads come and go, and only one of them has
// something of ours at this address.
int OpenEvent(uint64_t address, int processor) {
    perf_event_attr attributes = StoreTo(address);
    return static_cast<int>(
        syscall(SYS_perf_event_open, &attributes, -1, processor, -1, PERF_FLAG_FD_CLOEXEC));
}

// Moves an event, which is far cheaper than a new one. What it has told is taken out of its buffer:
// a full one would tell nothing more.
bool MoveEvent(const StoreWatch::Event& event, uint64_t address) {
    perf_event_attr attributes = StoreTo(address);
    auto* const page = reinterpret_cast<perf_event_mmap_page*>(event.buffer.Data());
    page->data_tail = page->data_head;
    return ioctl(event.fd.Get(), PERF_EVENT_IOC_MODIFY_ATTRIBUTES, &attributes) == 0;
}

}  // namespace

int FindMapper(const TraceFile& file, int likely) {
    if (likely > 0 && AddressOf(likely, file, 0) != 0) return likely;
    std::error_code error;
    std::filesystem::directory_iterator entry("/proc", error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const int process = std::atoi(entry->path().filename().c_str());
        if (process > 0 && AddressOf(process, file, 0) != 0) return process;
    }
    return 0;
}

bool StoreWatch::Begin(int process, const TraceFile& file, uint64_t offset) {
    const uint64_t place = AddressOf(process, file, offset);
    const uint64_t address = (place + kWidth - 1) / kWidth * kWidth;
    const bool isMoved =
        place != 0 && m_events.size() == static_cast<size_t>(sysconf(_SC_NPROCESSORS_ONLN)) &&
        std::all_of(m_events.begin(), m_events.end(),
                    [address](const Event& event) { return MoveEvent(event, address); });
    if (isMoved) return true;
    End();
    return place != 0 && Open(address);
}

bool StoreWatch::Open(uint64_t address) {
    const auto bufferSize = 2 * static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const long processors = sysconf(_SC_NPROCESSORS_CONF);
    for (int processor = 0; processor < processors; ++processor) {
        UniqueFd fd(OpenEvent(address, processor));
        if (!fd.IsOpen() && errno == ENODEV) continue;  // switched off
        Event& event = m_events.emplace_back();
        event.fd = std::move(fd);
        if (!event.fd.IsOpen() || !event.buffer.MapShared(event.fd.Get(), bufferSize)) {
            End();
            return false;
        }
    }
    return !m_events.empty();
}
