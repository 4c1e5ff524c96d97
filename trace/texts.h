// What trace files consist of, for the writer and the reader alike. See docs/trace-files.md.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace trace_text {

// After the newest record of a ring. The next record overwrites it.
inline constexpr std::string_view kTrailer = "## TRACE-END ##\n";
// The record that ends the start of a ring, and the first two of its records.
inline constexpr std::string_view kRingBegin = "### Begin of RingBuffer. ###";
inline constexpr std::string_view kRingStart = "### Start of initialization. ###";
// Begins the record of a log about a ring that could not be made.
inline constexpr std::string_view kRingFailure = "### InitRingBuffer(): ";
// Begins a cycle of a log: the number of the cycle, "CntInitEnd=", where the cycle begins, ...
inline constexpr std::string_view kWrap = "------ WRAP ----- Cycle=";
inline constexpr std::string_view kWrapStart = "CntInitEnd=";

// Lines of a header.
inline constexpr std::string_view kCommandLine = " Command Line Options:";
inline constexpr std::string_view kEnvironment = "Orvana Environment:";
inline constexpr std::string_view kConfiguration = "Orvana Configuration File:";
inline constexpr std::string_view kValuesAsRead = "Debug values from ini file :";
inline constexpr std::string_view kValuesInForce = "Internal Debug values      :";
inline constexpr std::string_view kProcessId = "Process PID                : ";
inline constexpr std::string_view kRingSize = "Ring Buffer Size           : ";
inline constexpr std::string_view kHeaderEnd = "# End of header.";

// A prefix: time, thread, columns, tag.
//   2026-11-15 20:04:51.123 [D82A0740] kemd          text
//   2026-11-15 20:04:51.123 [D82A0740]     3188 KB !kemd          text
inline constexpr std::string_view kUnknownTime = "yyyy-mm-dd hh:mm:ss.mmm";
// The columns in their order, each of which a record may have or not: a number, right-aligned, and
// its unit.
enum Column : size_t { kMemory, kColumnCount };
struct ColumnForm {
    size_t width;
    std::string_view unit;
};
inline constexpr std::array<ColumnForm, kColumnCount> kColumns = {{
    {8, " KB !"},  // resident memory
}};
inline constexpr size_t kTagWidth = 13;

inline constexpr size_t kPrefixLimit = 128;   // characters
inline constexpr size_t kTextLimit = 1024;    // of a record in a log
inline constexpr size_t kPreFillLine = 1024;  // bytes, of a ring that nothing was written to
inline constexpr size_t kAlignment = 1024;    // of the record that begins a ring

}  // namespace trace_text
