// What the switch library and a module's own process (kemd-module-host --isolated) say to each
// other. Both are of one build: nothing here is for others.
//
// The process is started with four descriptors: the socket of the calls (SOCK_SEQPACKET: a message
// is whole or not there), the pipe of the trace, a page of memory with the trace level in force,
// and memory for the module's series. Calls come one at a time; each has one answer. When the
// socket ends, so does the process. It is also killed when the thread ends that started it
// (PR_SET_PDEATHSIG), not only the daemon: that thread must live as long as the daemon.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int kIsolatedCalls = 3;
inline constexpr int kIsolatedTrace = 4;  // to write
inline constexpr int kIsolatedLevel =
    5;  // the level as a uint32_t, which the switch library changes
inline constexpr int kIsolatedSeries = 6;  // of KemdSeriesShare

enum class IsolatedCall : uint32_t {
    kLoad,       // text: the library's path, the user (may be empty), each with its NUL
    kConfigure,  // text: the path of the settings with its NUL, then what the file holds
    kStart,
    kStop,
    kNotify,
    kHealth,
    kRequest,  // text: the request
};

// The text follows, without a NUL at its end.
struct IsolatedRequest {
    IsolatedCall call{};
    uint32_t code = 0;          // of kNotify
    int32_t runLevel = 0;       // of kNotify with KEMD_NOTIFY_SHUTDOWN
    uint32_t isDaemonStop = 0;  // of kStop: the exit event is set before the call
    uint64_t memoryLimit = 0;   // of kLoad, in bytes; 0: none
};

enum class IsolatedOutcome : uint32_t {
    kReturned,
    kThrew,    // text: what
    kRefused,  // kLoad only; text: why it is no module, or cannot be loaded
};

// The text: of kLoad a sequence of texts that each end with a NUL, version, description and the
// names of startAfter; of kHealth why; of kRequest the reply.
struct IsolatedAnswer {
    IsolatedOutcome outcome{};
    int32_t result = 0;  // of the module's call
    uint32_t has = 0;    // of kLoad: kIsolatedHas*
};

inline constexpr uint32_t kIsolatedHasConfigure = 1;
inline constexpr uint32_t kIsolatedHasNotify = 2;
inline constexpr uint32_t kIsolatedHasHealth = 4;
inline constexpr uint32_t kIsolatedHasRequest = 8;

// The longest message either way: the longest request or reply and its head.
inline constexpr size_t kIsolatedMostText = size_t{96} << 10;
// A module that writes a longer reply is refused the rest.
inline constexpr size_t kIsolatedMostReply = size_t{64} << 10;

enum class IsolatedRecordKind : uint8_t {
    kTrace,    // level as the module gave it
    kMessage,  // whatever the level, also to the log file
    kCrash,    // the line of the crash handler: the process is about to die
};

// A record in the pipe, written by one write of at most PIPE_BUF bytes, so that threads do not mix
// and what was written before a crash is there. Tag and text follow.
struct IsolatedRecord {
    uint16_t size;  // of all three
    IsolatedRecordKind kind;
    uint8_t level;
    uint32_t thread;  // as it stands in the prefix
    uint16_t tagSize;
    uint16_t reserved;
};
static_assert(sizeof(IsolatedRecord) == 12);
