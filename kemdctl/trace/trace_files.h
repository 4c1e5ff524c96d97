// Which files are read, and what was found in them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kemdctl/trace/options.h"
#include "trace_reader/trace_merge.h"

// A run that was kept when it had not ended in order.
struct KeptPlace {
    std::string path;
    uint64_t size = 0;  // bytes of its files
};
// Newest first, of the named directory, or of that in force. Nothing, after a message, when they
// cannot be looked at.
[[nodiscard]] std::optional<std::vector<KeptPlace>> ListKept(const std::vector<std::string>& named);

// The files of kemd that are in a directory.
[[nodiscard]] std::vector<std::string> FilesIn(const std::string& directory);

// Those of the kept run that is asked for or, as they were named, files; of a directory those of
// kemd that are there, and for a command that follows also the others; without any name, those of
// the directory in force. Empty, after a message, when there are none.
[[nodiscard]] std::vector<std::string> ChooseFiles(const TraceOptions& options);

// Whether a process has a file open. Of other users' processes only root may ask, and not in every
// container.
enum class Writing : uint8_t { kNo, kYes, kUnseen };
[[nodiscard]] Writing SeeWriter(int process, const TraceFile& file);

// "ring, 1234 records read, 2026-11-15 20:04:51.123 to ..., wrapped, process 123 writes it", when
// all records were read. Holds nothing that comes from the file unchecked.
[[nodiscard]] std::string Describe(const TraceSource& source);
// One line for each file on standard error, when quiet only for those that could not be read or are
// no trace files. False when there is one of these.
bool ReportFacts(const TraceMerge& merge, bool isQuiet);
// The same, but only what could not be read, for a command that followed the files.
[[nodiscard]] bool ReportErrors(const TraceMerge& merge);
