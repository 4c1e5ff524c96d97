// What the host and the process that holds the module tell each other, and the side of the module:
// a process that is prepared like the daemon's and makes the calls.
#pragma once

#include <semaphore.h>

#include <array>
#include <cstdint>

enum class Call { kNone, kLoad, kStart, kNotifyStop, kNotifyShutdown, kStop, kUnload };

enum class Outcome {
    kReturned,
    kThrew,     // `text`: what
    kNoModule,  // load only; `text`: why
    kEnded,     // the calling thread was cancelled, or ended itself
};

// Memory that both share, because a module may close every descriptor of its process. The host
// writes `call` and posts `go`; the module's process makes the call, writes the rest and posts
// `done`. Each side touches the board only while it is its turn.
struct CallBoard {
    sem_t go;
    sem_t done;
    Call call;
    Outcome outcome;
    int64_t nanoseconds;
    int32_t result;    // of start
    int32_t runLevel;  // for kNotifyShutdown: 0 or 6
    bool hasNotify;
    std::array<char, 512> text;
};

// Never returns. Posts `done` once when it is ready, then once for each call that is asked for.
// `path` is absolute. The process dies with the one that made it.
[[noreturn]] void ServeCalls(CallBoard& board, const char* path);
