#include "tools/kemdctl/trace_facts.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "services/base/line_reader.h"
#include "services/base/regular_file.h"
#include "tools/kemdctl/gunzip.h"
#include "tools/kemdctl/trace_line.h"

namespace {

// One pass over the lines of a file. Where the newest record is: docs/trace-files.md.
class Scan {
  public:
    Scan(TraceFileFacts& facts, ModuleStates& modules, bool isRing)
        : m_facts(facts), m_modules(modules), m_isRing(isRing) {}

    void Lines(int fd) {
        LineReader lines(fd);
        std::string_view line;
        bool isStart = true;
        for (off_t offset = 0; lines.Next(line); offset = lines.Position()) {
            if (isStart) Line(line, offset);
            isStart = line.ends_with('\n');
        }
        if (!m_isRing) m_facts.newest = m_last;
    }

  private:
    void Line(std::string_view line, off_t offset);
    void Header(std::string_view text);
    void Log(const TraceLine& line);
    void Module(const TraceLine& line);

    TraceFileFacts& m_facts;
    ModuleStates& m_modules;
    const bool m_isRing;
    bool m_isHeaderOver = false;
    bool m_hasBegin = false;
    bool m_isOver = false;  // what follows is older
    std::string m_last;     // the stamp of the record before
    TraceHeader m_header;   // as far as read
};

void Scan::Line(std::string_view line, off_t offset) {
    constexpr off_t kBeginAlignment = 1024;
    if (m_isRing && line == "## TRACE-END ##\n") {
        m_isHeaderOver = true;
        if (!m_isOver) m_facts.newest = m_last;
        m_isOver = m_isOver || m_hasBegin;
        return;
    }
    const auto record = ParseTraceLine(line);
    if (!record) return;
    const bool isBegin = record->text.ends_with("### Begin of RingBuffer. ###");
    if (m_isRing && isBegin && offset % kBeginAlignment == 0) m_hasBegin = m_isHeaderOver = true;
    if (m_facts.oldest.empty()) m_facts.oldest = record->stamp;
    if (!m_isHeaderOver) Header(record->text);
    Module(*record);
    if (m_isRing) {
        m_last = record->stamp;
    } else {
        Log(*record);
    }
}

// The settings stand behind everything that comes from elsewhere: the last ones are right.
void Scan::Header(std::string_view text) {
    const auto value = [text](std::string_view key) -> std::optional<long> {
        const size_t found = text.find(key);
        if (found == text.npos) return std::nullopt;
        const size_t colon = text.find(':', found);
        if (colon == text.npos) return std::nullopt;
        return std::strtol(std::string(text.substr(colon + 1)).c_str(), nullptr, 10);
    };
    if (const auto number = value("Process PID                :")) m_header.processId = number;
    if (const auto number = value("Trace Target               :")) m_header.target = number;
    if (const auto number = value("Trace Level                :")) m_header.level = number;
    if (text.ends_with("# End of header.")) m_facts.header = m_header;
}

// Behind the last wrap the records are new until the time goes back.
void Scan::Log(const TraceLine& line) {
    constexpr std::string_view kWrap = "------ WRAP ----- Cycle=";
    const size_t wrap = line.text.find(kWrap);
    if (wrap != line.text.npos) {
        const std::string number(line.text.substr(wrap + kWrap.size()));
        const long cycle = std::strtol(number.c_str(), nullptr, 10);
        if (cycle <= m_facts.cycles) return;
        m_facts.cycles = cycle;
        m_isOver = false;
    } else if (m_facts.cycles > 0) {
        m_isOver = m_isOver || line.stamp < m_last;
    }
    if (!m_isOver) m_last = line.stamp;
}

void Scan::Module(const TraceLine& line) {
    const auto note = ParseModuleNote(line.text);
    if (!note) return;
    ModuleState& module = m_modules[std::string(note->name)];
    if (line.stamp < module.stamp) return;
    module = {std::string(line.stamp), std::string(note->state)};
}

void Read(TraceFileFacts& facts, const std::string& path, bool isRing, ModuleStates& modules) {
    facts.path = path;
    const UniqueFd file = OpenRegularFile(path.c_str(), O_RDONLY);
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        facts.error = errno;
        return;
    }
    facts.size = status.st_size;
    Scan(facts, modules, isRing).Lines(file.Get());
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

TraceFacts ReadTrace(const std::string& directory) {
    TraceFacts facts;
    const std::string base = directory + "/log.kemd";
    const UniqueFd compressed = OpenRegularFile((base + "_i.gz").c_str(), O_RDONLY);
    if (compressed.IsOpen()) {
        TraceFileFacts ignored;
        Gunzip(compressed.Get(), [&](int fd) { Scan(ignored, facts.modules, true).Lines(fd); });
    }
    Read(facts.startupRing, base + "_i", true, facts.modules);
    Read(facts.log, base, false, facts.modules);
    Read(facts.runtimeRing, base + "_a", true, facts.modules);
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
