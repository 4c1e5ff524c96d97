// Finds the records of a time without reading those before.
#pragma once

#include "trace_reader/layout.h"
#include "trace_reader/trace_file.h"

// Moves the begin of a segment to a little before where records of this time (as in TraceRecord)
// begin. Where the clock went back over this time they begin more than once, and the first time
// counts; one that is shorter than a hundredth of the segment may be missed.
void SkipOlder(const TraceFile& file, Segment& segment, int64_t time);
