// What the trace says about the last run of the daemon.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "kemdctl/trace/trace_files.h"
#include "trace_reader/record.h"

struct LastRun {
    enum class End : uint8_t { kRunning, kStopped, kKilled, kDiedAtStart, kDied, kUnknown };
    struct Call {
        std::string name;
        int64_t since = 0;
    };
    static constexpr size_t kLastRecords = 10;

    uint64_t records = 0;
    bool hasBegin = false;  // the trace goes back to it
    bool isInitialised = false;
    bool hasExit = false;
    int64_t begin = 0;  // of what is there of it
    int64_t end = 0;
    std::string fatal;   // the failure that ended it; empty: none
    std::string signal;  // numbers, as far as they are in the trace
    std::string runLevel;
    std::optional<Call> openCall;                // the daemon makes one after the other
    std::optional<Call> openModule;              // what the reference switch library does in it
    std::map<std::string, std::string> modules;  // their last states
    std::deque<KeptRecord> lastRecords;          // the first 2 KiB of each

    // All records in order; a start of the daemon begins it again.
    void Take(const TraceRecord& record);
    // The innermost call that had not ended; null: there is none.
    [[nodiscard]] const Call* OpenCall() const {
        return openModule ? &*openModule : openCall ? &*openCall : nullptr;
    }
    [[nodiscard]] End HowEnded(Writing writing) const;

  private:
    void TakeMark(const TraceRecord& record);
    void TakeModule(const TraceRecord& record);
    void TakeStop(std::string_view text);
};

// One sentence without its full stop.
[[nodiscard]] std::string DescribeEnd(const LastRun& run, LastRun::End end);
