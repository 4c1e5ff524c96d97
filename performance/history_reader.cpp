#include "performance/history_reader.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "base/file_io.h"
#include "performance/history_format.h"
#include "performance/history_steps.h"

namespace {

struct Sample {
    SampleTime time;
    uint32_t boot = 0;
    std::vector<std::pair<uint32_t, uint64_t>> values;
};

}  // namespace

struct HistoryReader::File {
    std::string path;
    UniqueFd fd;
    std::string host;
    std::string bootId;
    int64_t period = 0;
    std::vector<SeriesInfo> series;
    std::map<std::string, uint32_t> numbers;
    std::map<uint32_t, uint32_t> places;  // index in the table, number here
    std::vector<Sample> samples;
    std::vector<Mark> marks;
    std::vector<std::string> problems;
    std::string error;
    std::string bytes;
    size_t at = 0;
    uint32_t boot = 0;
    bool bad = false;

    template <typename Number>
    Number Take() {
        Number number{};
        if (bytes.size() - at < sizeof number) bad = true;
        if (bad) return number;
        std::memcpy(&number, bytes.data() + at, sizeof number);
        at += sizeof number;
        return number;
    }
    std::string TakeText() {
        const auto size = Take<uint32_t>();
        if (bad || bytes.size() - at < size) return bad = true, std::string();
        at += size;
        return bytes.substr(at - size, size);
    }
    void TakeSeries();
    void TakeSample();
    void TakeMark();
    bool Load();
};

void HistoryReader::File::TakeSeries() {
    SeriesInfo info;
    const auto place = Take<uint32_t>();
    info.kind = static_cast<SeriesKind>(Take<uint8_t>() & 1);
    info.isReal = Take<uint8_t>() != 0;
    info.multiply = Take<uint32_t>();
    info.divide = Take<uint32_t>();
    for (auto* text : {&info.name, &info.labels, &info.unit, &info.help}) *text = TakeText();
    const auto [found, isNew] =
        numbers.emplace(SeriesId(info), static_cast<uint32_t>(series.size()));
    if (isNew) series.push_back(info);
    places[place] = found->second;
}

void HistoryReader::File::TakeSample() {
    Sample sample;
    sample.time.wall = Take<int64_t>();
    sample.time.monotonic = Take<int64_t>();
    sample.boot = boot;
    const auto count = Take<uint32_t>();
    for (uint32_t i = 0; i < count && !bad; ++i) {
        const auto place = places.find(Take<uint32_t>());
        const auto value = Take<uint64_t>();
        if (place != places.end()) sample.values.emplace_back(place->second, value);
    }
    samples.push_back(std::move(sample));
}

void HistoryReader::File::TakeMark() {
    Mark mark;
    mark.time.wall = Take<int64_t>();
    mark.time.monotonic = Take<int64_t>();
    mark.kind = static_cast<MarkKind>(Take<uint8_t>());
    mark.value = Take<int64_t>();
    mark.text = TakeText();
    marks.push_back(std::move(mark));
}

bool HistoryReader::File::Load() {
    struct stat status {};
    if (fstat(fd.Get(), &status) != 0) return false;
    bytes.resize(static_cast<size_t>(status.st_size));
    const ReadResult got = ReadFullyAt(fd.Get(), bytes.data(), bytes.size(), 0);
    if (got.error != 0) return error = path + ": " + std::strerror(got.error), false;
    uint64_t end = 0;
    if (bytes.size() >= kFirstRecord) std::memcpy(&end, bytes.data() + kCommitted, sizeof end);
    if (end < kFirstRecord || end > bytes.size() ||
        std::memcmp(bytes.data(), kMagic, sizeof kMagic) != 0) {
        return error = path + ": not a history of the performance monitor", false;
    }
    bytes.resize(end);
    at = kFirstRecord;
    samples.clear();
    marks.clear();
    while (at < bytes.size() && !bad) {
        switch (Take<uint32_t>()) {
            case kRun: {
                period = Take<int64_t>();
                host = TakeText();
                const std::string id = TakeText();
                boot += id != bootId ? 1 : 0;
                bootId = id;
                break;
            }
            case kSeries:
                TakeSeries();
                break;
            case kSample:
                TakeSample();
                break;
            case kMark:
                TakeMark();
                break;
            default:
                bad = true;
        }
    }
    bytes.clear();
    return true;
}

std::unique_ptr<HistoryReader> HistoryReader::Open(const std::string& path, std::string& error) {
    auto file = std::make_unique<File>();
    file->path = path;
    file->fd = OpenRegularFile(path.c_str(), O_RDONLY);
    if (!file->fd.IsOpen()) {
        error = path + ": " + std::strerror(errno);
        return nullptr;
    }
    if (!file->Load()) {
        error = file->error;
        return nullptr;
    }
    return std::unique_ptr<HistoryReader>(new HistoryReader(std::move(file)));
}

HistoryReader::HistoryReader(std::unique_ptr<File> file) : m_file(std::move(file)) {}
HistoryReader::~HistoryReader() = default;
const std::string& HistoryReader::Host() const {
    return m_file->host;
}
const std::string& HistoryReader::BootId() const {
    return m_file->bootId;
}
int64_t HistoryReader::PeriodNs() const {
    return m_file->period;
}
const std::vector<SeriesInfo>& HistoryReader::Series() const {
    return m_file->series;
}
const std::vector<std::string>& HistoryReader::Problems() const {
    return m_file->problems;
}
const std::string& HistoryReader::Error() const {
    return m_file->error;
}

HistorySpan HistoryReader::Range() const {
    HistorySpan range;
    for (const Sample& sample : m_file->samples) {
        if (range.to == 0) range.from = sample.time.wall;
        range.from = std::min(range.from, sample.time.wall);
        range.to = std::max(range.to, sample.time.wall + 1);
    }
    return range;
}

std::vector<Mark> HistoryReader::Marks(HistorySpan span) const {
    std::vector<Mark> marks;
    for (const Mark& mark : m_file->marks) {
        if (mark.time.wall >= span.from && mark.time.wall < span.to) marks.push_back(mark);
    }
    return marks;
}

bool HistoryReader::Read(std::span<const uint32_t> series, HistorySpan span, int64_t step,
                         std::vector<std::vector<HistoryPoint>>& points) {
    points.assign(series.size(), {});
    for (size_t i = 0; i < series.size(); ++i) {
        StepMerger merger(m_file->series.at(series[i]), span, step, points[i]);
        for (const Sample& sample : m_file->samples) {
            for (const auto& [number, bits] : sample.values) {
                if (number == series[i]) merger.AddSample(sample.boot, sample.time, bits);
            }
        }
        merger.Finish();
    }
    return true;
}

bool HistoryReader::Refresh() {
    return m_file->Load();
}
