// What the trace tests share: a clock that stands still, so that whole files can be compared byte
// for byte, and clean directories and environment.
#pragma once

#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/world.h"
#include "trace/debug.h"

namespace fs = std::filesystem;

using Lines = std::vector<std::string>;
using Text = const char*;
using Texts = std::map<std::string, std::string>;

inline const std::string kConfigDirectory = "/etc/norvik/OrvanaSuite/TraceConfig/";
inline const std::string kLog = "/var/log/orvmon/log.kemd";
inline const std::string kStartupRing = kLog + "_i";
inline const std::string kRuntimeRing = kLog + "_a";
inline const std::string kTrailer = "## TRACE-END ##\n";
constexpr time_t kStart = 1794773091;  // 2026-11-15 20:04:51

// What gettimeofday and time return in the whole program.
void SetClock(time_t second);
// Calls it once, while the next record is made and its thread holds the trace's lock.
void OnNextRecord(void (*call)());

// The prefix of a record that this thread writes now, without the memory column; one record; all.
std::string Prefix(const std::string& tag = "kemd");
std::string Record(const std::string& text, const std::string& tag = "kemd");
std::string Records(const Lines& texts);

// Where two files differ; empty: nowhere.
std::string Difference(const std::string& expected, const std::string& found);
int DescriptorOf(const std::string& path);  // the one that has the file open, else -1
void SetOrUnset(const char* variable, const char* value);  // null: unset

class TraceTest : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override { Debug.Close(); }

    // One finished file with a section for kemd; `modified` is its time in seconds.
    void Configure(const std::string& keys, time_t modified = kStart);
    static void WriteConfig(const std::string& name, const std::string& text,
                            time_t modified = kStart);
    // Level 5 and ring buffers of 4 and 1 MiB, without the memory column.
    bool StartRing(CDebug& object);

    CDebug debug;
};
