// Points in time and spans as a person writes them on the command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// Milliseconds as in TraceRecord::time: local time counted without regard to time zones.
[[nodiscard]] int64_t LocalTime(int64_t utcMilliseconds);
// The inverse. Of an hour that the end of summer time repeats one of both is taken.
[[nodiscard]] int64_t UtcTime(int64_t localMilliseconds);
// The system's clock, in milliseconds of UTC.
[[nodiscard]] int64_t ClockNow();

// "2026-11-15 20:04:51.123" and what is left when it is cut at the end or at the start of the time;
// with "today" or "yesterday" in place of the date; "now"; "-2h30m" and "+5m" from now. As
// TraceRecord::time; `now` as ClockNow. Nothing when it is none of these.
[[nodiscard]] std::optional<int64_t> ParseTime(std::string_view text, int64_t now);
// The same time as ClockNow has it.
[[nodiscard]] std::optional<int64_t> ParseUtcTime(std::string_view text, int64_t now);

// Milliseconds of "2h30m", "1.5s" and the like (w, d, h, m, s, ms); a bare number is seconds.
[[nodiscard]] std::optional<int64_t> ParseSpan(std::string_view text);
