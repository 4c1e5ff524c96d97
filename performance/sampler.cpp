#include "performance/sampler.h"

#include "performance/source.h"

struct Sampler::Sources {
    ::Sources sources;
    std::vector<char> buffer = std::vector<char>(size_t{16} << 10);
    std::string processes;
};

Sampler::Sampler(const SamplerSettings& settings) : m_sources(std::make_unique<Sources>()) {
    (void)settings;
    ::Sources& sources = m_sources->sources;
    AddCpuSource(sources);
    AddKeyedSources(sources);
    AddSmallSources(sources);
    AddDiskSource(sources);
    AddInterfaceSource(sources);
    AddProtocolSources(sources);
}

Sampler::~Sampler() = default;

void Sampler::Sample(SeriesTable& table) {
    SampleContext context{table, SampleTime::Now().monotonic, m_sources->buffer};
    for (const auto& source : m_sources->sources) source->Sample(context);
}

const std::string& Sampler::Processes() const {
    return m_sources->processes;
}

std::vector<std::string> Sampler::Notes() const {
    std::vector<std::string> notes;
    for (const auto& source : m_sources->sources) source->AddNotes(notes);
    return notes;
}
