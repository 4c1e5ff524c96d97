#include "performance/sampler.h"

#include <algorithm>

#include "performance/process_source.h"
#include "performance/slow_source.h"
#include "performance/source.h"

namespace {

// How long the first sample waits for what is read by the worker.
constexpr int64_t kFirstWaitNs = kSecondNs / 10;

// Where a sample comes as seldom as a round, what the worker reads would be as late as the next
// sample: an hour.
int64_t WaitFor(int64_t sinceSample) {
    constexpr int64_t kPart = 20;
    return sinceSample < kRareNs ? 0 : std::min(sinceSample / kPart, SlowTask::kPatienceNs);
}

}  // namespace

struct Sampler::Sources {
    ::Sources sources;
    SlowSources slowSources;
    SlowWorker worker;
    int64_t slowRound = INT64_MIN / 2;
    int64_t sampledAt = 0;  // 0: never
    std::vector<char> buffer = std::vector<char>(size_t{16} << 10);
    std::unique_ptr<ProcessSource> processes;  // null: not wanted
};

Sampler::Sampler(const SamplerSettings& settings) : m_sources(std::make_unique<Sources>()) {
    if (settings.processes) m_sources->processes = std::make_unique<ProcessSource>();
    ::Sources& sources = m_sources->sources;
    AddCpuSource(sources);
    AddKeyedSources(sources);
    AddSmallSources(sources);
    AddDiskSource(sources);
    AddInterfaceSource(sources);
    AddProtocolSources(sources);
    AddFilesystemSource(m_sources->slowSources);
    AddSensorSource(m_sources->slowSources);
    AddFrequencySource(m_sources->slowSources);
    AddDiskErrorSource(m_sources->slowSources);
}

Sampler::~Sampler() = default;

// The worker begins before the other sources are read, and is usually done after them.
void Sampler::Sample(SeriesTable& table) {
    Sources& all = *m_sources;
    SampleContext context{table, SampleTime::Now().monotonic, all.buffer};
    const int64_t wait = all.sampledAt == 0 ? kFirstWaitNs : WaitFor(context.now - all.sampledAt);
    all.sampledAt = context.now;
    if (wait > 0 || context.now - all.slowRound >= kRareNs) {
        for (const auto& source : all.slowSources) source->Start(context, all.worker);
        all.slowRound = context.now;
    }
    for (const auto& source : all.sources) source->Sample(context);
    if (all.processes != nullptr) all.processes->Sample(context.now);
    all.worker.Check(context.now);
    if (wait > 0) all.worker.Wait(wait);
    for (const auto& source : all.slowSources) source->Collect(context);
}

const std::string& Sampler::Processes() const {
    static const std::string kNone;
    return m_sources->processes != nullptr ? m_sources->processes->Lines() : kNone;
}

std::vector<std::string> Sampler::Notes() const {
    std::vector<std::string> notes;
    for (const auto& source : m_sources->sources) source->AddNotes(notes);
    for (const auto& source : m_sources->slowSources) source->AddNotes(notes);
    if (m_sources->processes != nullptr) m_sources->processes->AddNotes(notes);
    const int hanging = m_sources->worker.HangingThreads();
    if (hanging != 0) {
        notes.push_back(std::to_string(hanging) +
                        (hanging == 1 ? " thread hangs" : " threads hang") + " in the kernel");
    }
    return notes;
}
