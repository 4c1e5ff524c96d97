#include "kemdctl/status/trace_facts.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "base/file_io.h"
#include "kemdctl/trace/header_report.h"
#include "kemdctl/trace/run_marks.h"
#include "trace_reader/record.h"
#include "trace_reader/trace_source.h"

namespace {

std::string Stamp(int64_t time) {
    return FormatTime(time).data();
}

TraceHeader ReadSettings(TraceSource& source) {
    TraceHeader header;
    // Of several headers the last one is right.
    for (const HeaderEntry& entry : ReadHeader(source)) {
        const long number = std::strtol(entry.value.c_str(), nullptr, 10);
        if (entry.name == "Process PID") header.processId = number;
        if (entry.name == "Trace Target") header.target = number;
        if (entry.name == "Trace Level") header.level = number;
    }
    return header;
}

void TakeModule(const TraceRecord& record, ModuleStates& modules) {
    const auto note = ParseModuleNote(record);
    if (!note) return;
    ModuleState& module = modules[std::string(note->name)];
    std::string stamp = Stamp(record.time);
    if (stamp < module.stamp) return;
    module = {std::move(stamp), std::string(note->state)};
}

// The log is truncated at each start, so what it says of the ring buffers is of the last one.
void TakeRingState(const TraceRecord& record, TraceFacts& all) {
    const std::string_view text = record.text.substr(0, record.text.find('\n'));
    constexpr std::string_view kFailure = "### InitRingBuffer(): ";
    if (text.starts_with(kFailure)) {
        all.ringFailure = text.substr(kFailure.size(), text.rfind(" ###") - kFailure.size());
    }
    all.isSwitchingRing = text.find("## Done initializing ##") != text.npos;
}

void ReadRecords(TraceSource& source, TraceFileFacts& facts, TraceFacts& all) {
    source.ShowAll(false);
    source.Rewind();
    const bool isLog = facts.path.ends_with("/log.kemd");
    for (TraceRecord record; source.Next(record);) {
        TakeModule(record, all.modules);
        if (isLog) TakeRingState(record, all);
    }
    if (source.Facts().records == 0) return;
    facts.oldest = Stamp(source.Facts().firstTime);
    facts.newest = Stamp(source.Facts().lastTime);
}

TraceFileFacts Read(const std::string& path, TraceFacts& all) {
    TraceFileFacts facts;
    facts.path = path;
    const UniqueFd file = OpenRegularFile(path.c_str(), O_RDONLY);
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        facts.error = errno;
        return facts;
    }
    facts.size = status.st_size;
    TraceSource source(path, 0);
    if (!source.Open()) {
        facts.error = EIO;  // compressed, and it cannot be unpacked
        return facts;
    }
    facts.cycles = source.Facts().cycle;
    facts.header = ReadSettings(source);
    ReadRecords(source, facts, all);
    return facts;
}

}  // namespace

const TraceFileFacts& TraceFacts::Ring(pid_t daemon) const {
    if (startupRing.header.processId == daemon) return startupRing;
    return runtimeRing.error != 0 && startupRing.error == 0 ? startupRing : runtimeRing;
}

const TraceFileFacts* TraceFacts::Newest() const {
    const TraceFileFacts* newest = nullptr;
    for (const TraceFileFacts* file : {&runtimeRing, &startupRing, &log}) {
        if (!file->newest.empty() && (newest == nullptr || file->newest > newest->newest)) {
            newest = file;
        }
    }
    return newest;
}

const TraceFileFacts* TraceFacts::Unreadable() const {
    for (const TraceFileFacts* file : {&runtimeRing, &startupRing, &startupArchive, &log}) {
        if (file->error != 0 && file->error != ENOENT) return file;
    }
    return nullptr;
}

TraceFacts ReadTrace(const std::string& directory) {
    TraceFacts facts;
    const std::string base = directory + "/log.kemd";
    facts.startupArchive = Read(base + "_i.gz", facts);
    facts.startupRing = Read(base + "_i", facts);
    facts.log = Read(base, facts);
    facts.runtimeRing = Read(base + "_a", facts);
    // The log begins with the daemon's start, the rings may be of an earlier one.
    std::erase_if(facts.modules,
                  [&](const auto& module) { return module.second.stamp < facts.log.oldest; });
    return facts;
}

std::optional<time_t> TimeOfStamp(const std::string& stamp) {
    tm local{};
    if (strptime(stamp.c_str(), "%Y-%m-%d %H:%M:%S", &local) == nullptr) return std::nullopt;
    local.tm_isdst = -1;
    const time_t time = mktime(&local);
    return time != -1 ? std::optional(time) : std::nullopt;
}
