// The process that holds the module: it is prepared like the daemon and makes the calls that the
// host asks for on a board in shared memory.
#pragma once

#include <semaphore.h>

#include <array>
#include <cstdint>

enum class Call {
    kNone,
    kLoad,
    kConfigure,
    kStart,
    kHealth,
    kRequest,
    kNotifyStop,
    kNotifyShutdown,
    kStop,
    kUnload,
};

enum class Outcome {
    kReturned,
    kThrew,     // `text`: what
    kNoModule,  // load only; `text`: why
    kEnded,     // the calling thread was cancelled, or ended itself
};

// Shared memory, because a module may close every descriptor of its process. The host writes `call`
// and posts `go`; the module's process makes the call, writes the rest and posts `done`. Each side
// touches the board only in its turn.
struct CallBoard {
    sem_t go;
    sem_t done;
    Call call;
    Outcome outcome;
    int64_t nanoseconds;
    int32_t result;    // of configure, start, health and request
    int32_t runLevel;  // for kNotifyShutdown: 0 or 6
    bool hasConfigure;
    bool hasHealth;
    bool hasRequest;
    bool hasNotify;
    std::array<char, 4096> input;  // for kConfigure: the file; for kRequest: the text
    std::array<char, 4096> text;   // also what health says, and the answer to a request
};

// Never returns. Posts `done` when it is ready and after each call. `path` is absolute. The process
// dies with its parent.
[[noreturn]] void ServeCalls(CallBoard& board, const char* path);
