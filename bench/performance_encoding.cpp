// What the history takes of recorded values beside other coders, and what writing and reading it
// costs.
//
// A recording is CSV: wall clock, monotonic time, then a column for each series, "g:NAME" or
// "c:NAME". "record" makes one of this machine, by the sampler, once a second: let it compile
// something meanwhile.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

#include "base/unique_fd.h"
#include "bench/performance_parts.h"
#include "performance/block_builder.h"
#include "performance/history_block.h"
#include "performance/history_reader.h"
#include "performance/history_writer.h"
#include "performance/sampler.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int64_t kSecond = 1'000'000'000;
constexpr size_t kRows = 900;
constexpr size_t kSeries = 347;
constexpr size_t kConstant = 253;
constexpr const char* kFile = "/tmp/performance_bench/history";

struct Recording {
    std::vector<SampleTime> times;
    std::vector<std::string> names;
    std::vector<std::vector<uint64_t>> columns;  // by series, then by row
};

Recording Load(const std::string& path) {
    Recording recording;
    std::ifstream file(path);
    std::string line;
    std::string field;
    std::getline(file, line);
    std::istringstream head(line);
    while (std::getline(head, field, ',')) recording.names.push_back(field);
    if (recording.names.size() < 3) return {};
    recording.names.erase(recording.names.begin(), recording.names.begin() + 2);
    recording.columns.resize(recording.names.size());
    while (std::getline(file, line)) {
        if (std::count(line.begin(), line.end(), ',') !=
            static_cast<long>(recording.names.size() + 1)) {
            break;
        }
        std::istringstream row(line);
        std::getline(row, field, ',');
        SampleTime& time = recording.times.emplace_back();
        time.wall = std::stoll(field);
        std::getline(row, field, ',');
        time.monotonic = std::stoll(field);
        for (auto& column : recording.columns) {
            std::getline(row, field, ',');
            column.push_back(std::stoull(field));
        }
    }
    return recording;
}

bool IsConstant(const std::vector<uint64_t>& column, size_t rows) {
    const auto end = column.begin() + static_cast<long>(rows);
    return std::find_if(column.begin(), end, [&](uint64_t value) { return value != column[0]; }) ==
           end;
}

// As many that change and that do not as wanted, spread over the recording.
std::vector<size_t> Choose(const Recording& recording, size_t rows, bool constant, size_t most) {
    std::vector<size_t> all;
    for (size_t i = 0; i < recording.columns.size(); ++i) {
        if (IsConstant(recording.columns[i], rows) == constant) all.push_back(i);
    }
    std::vector<size_t> chosen;
    const size_t count = std::min(most, all.size());
    for (size_t i = 0; i < count; ++i) chosen.push_back(all[i * all.size() / count]);
    return chosen;
}

// In blocks of as many rows as the history has.
size_t BlockSize(const Recording& recording, const std::vector<size_t>& chosen, size_t rows) {
    constexpr size_t kBlockRows = 512;
    size_t size = 0;
    BlockHead head;
    BlockBuilder builder(512 << 10);
    builder.Begin();
    std::vector<RowColumn> columns(chosen.size());
    for (size_t row = 0; row < rows; ++row) {
        for (size_t i = 0; i < chosen.size(); ++i) {
            columns[i] = {MakeColumn(static_cast<uint32_t>(i), false, kLast),
                          1,
                          {recording.columns[chosen[i]][row], true}};
        }
        builder.Add(recording.times[row], columns);
        if (builder.Rows() < kBlockRows && row + 1 < rows) continue;
        (void)builder.Finish(head);
        size += head.size;
        builder.Begin();
    }
    return size;
}

// The textbook's coder: doubles as the exclusive or with the one before, in a window of its bits.
size_t GorillaBits(const std::vector<uint64_t>& column, size_t rows) {
    size_t bits = 64;
    uint64_t before = std::bit_cast<uint64_t>(static_cast<double>(column[0]));
    int windowLeft = 65;
    int windowRight = 0;
    for (size_t i = 1; i < rows; ++i) {
        const auto now = std::bit_cast<uint64_t>(static_cast<double>(column[i]));
        const uint64_t changed = now ^ before;
        before = now;
        ++bits;
        if (changed == 0) continue;
        const int left = std::min(std::countl_zero(changed), 31);
        const int right = std::countr_zero(changed);
        ++bits;
        if (left >= windowLeft && right >= windowRight) {
            bits += static_cast<size_t>(64 - windowLeft - windowRight);
            continue;
        }
        windowLeft = left;
        windowRight = right;
        bits += 5 + 6 + static_cast<size_t>(64 - left - right);
    }
    return bits;
}

// Its coder of times, for whole numbers: counters do far better with it.
size_t DeltaBits(const std::vector<uint64_t>& column, size_t rows) {
    size_t bits = 64;
    int64_t before = 0;
    for (size_t i = 1; i < rows; ++i) {
        const auto delta = static_cast<int64_t>(column[i] - column[i - 1]);
        const int64_t change = delta - before;
        before = delta;
        if (change == 0) {
            bits += 1;
        } else if (change >= -63 && change <= 64) {
            bits += 2 + 7;
        } else if (change >= -255 && change <= 256) {
            bits += 3 + 9;
        } else if (change >= -2047 && change <= 2048) {
            bits += 4 + 12;
        } else {
            bits += change == static_cast<int32_t>(change) ? 4 + 32 : 5 + 64;
        }
    }
    return bits;
}

size_t SizeAfter(const std::string& command) {
    FILE* const pipe = popen((command + " | wc -c").c_str(), "r");
    size_t size = 0;
    if (pipe == nullptr) return 0;
    if (std::fscanf(pipe, "%zu", &size) != 1) size = 0;
    pclose(pipe);
    return size;
}

void WriteCsv(const Recording& recording, const std::vector<size_t>& chosen, size_t rows) {
    std::ofstream file("/tmp/performance_bench.csv");
    for (size_t row = 0; row < rows; ++row) {
        file << recording.times[row].wall;
        for (const size_t i : chosen) file << ',' << recording.columns[i][row];
        file << '\n';
    }
}

void CompareSizes(const Recording& recording) {
    const size_t rows = std::min(kRows, recording.times.size());
    std::vector<size_t> changing = Choose(recording, rows, false, kSeries - kConstant);
    std::vector<size_t> all = Choose(recording, rows, true, kConstant);
    std::printf("%zu samples, %zu series, %zu of them never changed\n", rows,
                all.size() + changing.size(), all.size());
    all.insert(all.end(), changing.begin(), changing.end());
    const auto show = [&](const char* name, double ofAll, double ofChanging) {
        const auto count = static_cast<double>(rows);
        std::printf("  %-44s %8.3f B a value, %6.3f of those that changed\n", name,
                    ofAll / count / static_cast<double>(all.size()),
                    ofChanging / count / static_cast<double>(changing.size()));
    };
    // A definition serves all blocks of the half of the file: its share of one.
    const auto block = static_cast<double>(BlockSize(recording, all, rows));
    const double blocks = 31.0 * (1 << 20) / block;
    show("history, with head, times and definitions",
         block + static_cast<double>(all.size()) * 128 / blocks,
         static_cast<double>(BlockSize(recording, changing, rows)));
    double xored[2] = {0, 0};
    double deltas[2] = {0, 0};
    for (const size_t i : all) {
        const bool changes = !IsConstant(recording.columns[i], rows);
        const auto best = static_cast<double>(GorillaBits(recording.columns[i], rows)) / 8;
        const double delta = static_cast<double>(DeltaBits(recording.columns[i], rows)) / 8;
        for (int which = 0; which < (changes ? 2 : 1); ++which) {
            xored[which] += best;
            deltas[which] += std::min(best, delta);
        }
    }
    show("Gorilla, values only", xored[0], xored[1]);
    show("the better of that and delta of delta", deltas[0], deltas[1]);
    size_t sizes[2][2] = {};
    for (int which = 0; which < 2; ++which) {
        WriteCsv(recording, which == 0 ? all : changing, rows);
        sizes[which][0] = SizeAfter("gzip -6 < /tmp/performance_bench.csv");
        sizes[which][1] = SizeAfter("zstd -19 -q < /tmp/performance_bench.csv");
    }
    show("gzip -6 of CSV", static_cast<double>(sizes[0][0]), static_cast<double>(sizes[1][0]));
    show("zstd -19 of CSV", static_cast<double>(sizes[0][1]), static_cast<double>(sizes[1][1]));
}

// The file of sysstat's sadc for the same half minute of this machine, by the values that sadf
// lists.
void ShowSysstat() {
    constexpr const char* kSadc = "/usr/lib/sysstat/sadc";
    const std::string path = "/tmp/performance_bench.sadc";
    if (access(kSadc, X_OK) != 0) {
        std::printf("  sysstat is not compared: %s is missing\n", kSadc);
        return;
    }
    (void)unlink(path.c_str());
    const std::string record = std::string(kSadc) + " -S XALL 1 31 " + path;
    FILE* const pipe = std::system(record.c_str()) != 0
                           ? nullptr
                           : popen(("sadf -d " + path +
                                    " -- -A 2>/dev/null | awk -F';' '!/^#/ { for (i = 4; i <= "
                                    "NF; ++i) if ($i ~ /^-?[0-9.]+$/) ++n } END { print n + 0 }'")
                                       .c_str(),
                                   "r");
    size_t values = 0;
    if (pipe == nullptr || std::fscanf(pipe, "%zu", &values) != 1) values = 0;
    if (pipe != nullptr) pclose(pipe);
    const size_t size = SizeAfter("cat " + path);
    if (values == 0) {
        std::printf("  sysstat is not compared: sadc or sadf failed\n");
        return;
    }
    std::printf("  %-44s %8.3f B a value, %zu values of this machine now\n", "sysstat's file",
                static_cast<double>(size) / static_cast<double>(values), values);
}

// Goes on for days: each hour begins somewhere else in the recording, and with another load, so
// that no minute or hour is like the one before. Counters grow up to 2.8 times faster or slower,
// gauges are up to 12 % higher or lower; what never changed stays as it is.
class Replay {
  public:
    // A sample each `seconds`: what counters grow is multiplied.
    Replay(const Recording& recording, const std::vector<size_t>& chosen, uint64_t seconds)
        : m_recording(recording), m_chosen(chosen), m_seconds(seconds), m_scales(chosen.size()) {
        for (const size_t i : chosen) {
            const bool isCounter = recording.names[i][0] == 'c';
            const std::string number = SeriesLabel("number", std::to_string(m_indexes.size()));
            m_indexes.push_back(table.Add({recording.names[i].substr(2), number, "", "",
                                           isCounter ? SeriesKind::kCounter : SeriesKind::kGauge}));
            m_counters.push_back(static_cast<double>(recording.columns[i][0]));
            m_isConstant.push_back(IsConstant(recording.columns[i], recording.times.size()));
        }
    }
    SampleTime Next() {
        if (m_count * m_seconds % 3600 == 0) BeginHour();
        const size_t row = m_row;
        m_row = row + 1 < m_recording.times.size() ? row + 1 : 1;
        for (size_t i = 0; i < m_chosen.size(); ++i) {
            const auto& column = m_recording.columns[m_chosen[i]];
            double value = static_cast<double>(column[row]);
            if (m_recording.names[m_chosen[i]][0] == 'c') {
                const double grown = value - static_cast<double>(column[row - 1]);
                const double scale = m_scales[i] * static_cast<double>(m_seconds);
                value = m_counters[i] += std::round(std::max(grown, 0.0) * scale);
            } else if (!m_isConstant[i]) {
                value = std::round(value * std::pow(m_scales[i], 0.11));
            }
            table.Set(m_indexes[i], static_cast<uint64_t>(static_cast<int64_t>(value)));
        }
        const SampleTime& first = m_recording.times[0];
        // Keeps the jitter of the recording.
        const int64_t time = static_cast<int64_t>(m_count * m_seconds) * kSecond +
                             (m_recording.times[row].monotonic - first.monotonic) % kSecond;
        ++m_count;
        return {first.wall + time, first.monotonic + time};
    }
    SeriesTable table;

  private:
    void BeginHour() {
        m_row = 1 + m_random() % (m_recording.times.size() - 1);
        std::uniform_real_distribution<double> exponent(-1.5, 1.5);
        for (double& scale : m_scales) scale = std::exp2(exponent(m_random));
    }

    const Recording& m_recording;
    const std::vector<size_t>& m_chosen;
    uint64_t m_seconds;
    std::vector<double> m_scales;
    std::vector<double> m_counters;
    std::vector<bool> m_isConstant;
    std::vector<SeriesTable::Index> m_indexes;
    std::mt19937_64 m_random{4711};
    size_t m_row = 1;
    uint64_t m_count = 0;
};

double Microseconds(Clock::time_point from) {
    return std::chrono::duration<double, std::micro>(Clock::now() - from).count();
}

// Of this thread alone, so that what else runs on the machine counts less.
double CpuMicroseconds() {
    timespec used{};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e6 + static_cast<double>(used.tv_nsec) / 1e3;
}

void ShowTimes(const char* name, std::vector<double>& took) {
    double sum = 0;
    for (const double one : took) sum += one;
    std::sort(took.begin(), took.end());
    std::printf(
        "  append, sealing included, %s: mean %.2f us, median %.2f, 99.9 %% %.0f, most %.0f\n",
        name, sum / static_cast<double>(took.size()), took[took.size() / 2],
        took[took.size() * 999 / 1000], took.back());
}

void AppendAll(HistoryWriter& writer, Replay& replay, int count) {
    std::vector<double> wall;
    std::vector<double> cpu;
    for (int i = 0; i < count; ++i) {
        const SampleTime time = replay.Next();
        const auto from = Clock::now();
        const double used = CpuMicroseconds();
        writer.Append(time, replay.table);
        cpu.push_back(CpuMicroseconds() - used);
        wall.push_back(Microseconds(from));
    }
    ShowTimes("CPU time", cpu);
    ShowTimes("wall clock", wall);
}

void ShowLog(uint32_t log, const char* name, size_t changing, double wanted) {
    std::ifstream file(kFile, std::ios::binary);
    FileHead head;
    file.read(reinterpret_cast<char*>(&head), sizeof head);
    UniqueFd fd(open(kFile, O_RDONLY | O_CLOEXEC));
    std::vector<BlockRef> blocks;
    std::vector<SlotRows> slots;
    (void)ReadLog(fd.Get(), head.areas[log], log, blocks, slots);
    double bytes = 0;
    double rows = 0;
    for (const BlockRef& block : blocks) {
        bytes += block.head.size;
        rows += block.head.rows;
    }
    if (rows == 0) return;
    const double days =
        static_cast<double>(blocks.back().head.mostWall - blocks.front().head.leastWall) / kSecond /
        86'400;
    const double perRow = bytes / rows;
    std::printf(
        "  %-8s %8.1f B a row (%.2f a changing series), ring of %.1f MiB: for %.1f %s, has "
        "%.1f days\n",
        name, perRow, perRow / static_cast<double>(changing),
        static_cast<double>(head.areas[log].RingSize()) / (1 << 20),
        static_cast<double>(head.areas[log].RingSize()) / perRow / wanted,
        log == kSamples ? "days" : (log == kMinutes ? "months" : "years"), days);
}

void MeasureReads() {
    std::string error;
    std::vector<std::vector<HistoryPoint>> points;
    const auto begin = Clock::now();
    auto reader = HistoryReader::Open(kFile, error);
    if (reader == nullptr) return;
    std::printf("  open %.2f ms, %zu series, %zu problems\n", Microseconds(begin) / 1000,
                reader->Series().size(), reader->Problems().size());
    const HistorySpan range = reader->Range();
    const std::vector<uint32_t> one = {static_cast<uint32_t>(reader->Series().size() - 5)};
    std::vector<uint32_t> all(reader->Series().size());
    for (uint32_t i = 0; i < all.size(); ++i) all[i] = i;
    const auto measure = [&](const char* name, const std::vector<uint32_t>& series, int64_t length,
                             int64_t step) {
        const auto from = Clock::now();
        const auto cold = HistoryReader::Open(kFile, error);
        cold->Read(series, {range.to - length, range.to}, step, points);
        std::printf("  %-44s %8.2f ms, %zu points\n", name, Microseconds(from) / 1000,
                    points[0].size());
    };
    measure("open, a day of one series by the minute", one, 86'400 * kSecond, 60 * kSecond);
    measure("open, the last 5 minutes of all series", all, 300 * kSecond, 0);
    measure("open, a day of one series by the second", one, 86'400 * kSecond, 0);
}

void MeasureWriting(const Recording& recording, size_t series, int days) {
    (void)unlink(kFile);
    std::vector<size_t> chosen = Choose(recording, kRows, false, series * 94 / kSeries);
    const size_t changing = chosen.size();
    const std::vector<size_t> constant = Choose(recording, kRows, true, series - changing);
    chosen.insert(chosen.end(), constant.begin(), constant.end());
    std::string error;
    auto writer = HistoryWriter::Open(
        {kFile, uint64_t{64} << 20, kSecond, "bench", "00000000-0000-4000-8000-000000000000"},
        error);
    if (writer == nullptr) {
        std::printf("%s\n", error.c_str());
        return;
    }
    Replay replay(recording, chosen, 1);
    std::printf("%zu series, %zu of them changing, %d days of samples\n", chosen.size(), changing,
                days);
    // A reader of the newest five minutes has the most to do when a block was sealed within them.
    constexpr int kBlock = 512;
    AppendAll(*writer, replay, days * 86'400 / kBlock * kBlock + 290);
    ShowLog(kSamples, "samples", changing, 86'400);
    ShowLog(kMinutes, "minutes", changing, 43'830);
    ShowLog(kHours, "hours", changing, 8'766);
    MeasureReads();
    MeasureCommands(kFile);
}

// Memory that is this process's alone, without the mapped file.
double OwnMegabytes() {
    std::ifstream status("/proc/self/status");
    std::string word;
    size_t kilobytes = 0;
    while (status >> word && word != "RssAnon:") {
    }
    status >> kilobytes;
    return static_cast<double>(kilobytes) / 1024;
}

// As many as 256 processors and 500 disks have: those of the recording, again and again, each copy
// with loads of its own.
void MeasureMany(const Recording& recording, uint64_t megabytes) {
    constexpr size_t kMany = 8500;
    constexpr int kSamplesOfMany = 3 * 3600;
    (void)unlink(kFile);
    const std::vector<size_t> changing = Choose(recording, kRows, false, SIZE_MAX);
    const std::vector<size_t> constant = Choose(recording, kRows, true, SIZE_MAX);
    const size_t wanted = kMany * (kSeries - kConstant) / kSeries;
    std::vector<size_t> chosen;
    for (size_t i = 0; i < wanted; ++i) chosen.push_back(changing[i % changing.size()]);
    for (size_t i = wanted; i < kMany; ++i) chosen.push_back(constant[i % constant.size()]);
    std::string error;
    auto writer = HistoryWriter::Open({kFile, megabytes << 20, kSecond, "bench", "boot"}, error);
    if (writer == nullptr) {
        std::printf("%s\n", error.c_str());
        return;
    }
    Replay replay(recording, chosen, 1);
    const double before = OwnMegabytes();
    std::printf("%zu series, %zu of them changing, %d samples, %zu MiB\n", kMany, wanted,
                kSamplesOfMany, static_cast<size_t>(megabytes));
    AppendAll(*writer, replay, kSamplesOfMany);
    std::printf("  memory beside the file: %.1f MiB\n", OwnMegabytes() - before);
    ShowLog(kSamples, "samples", wanted, 86'400);
    ShowLog(kMinutes, "minutes", wanted, 43'830);
    ShowLog(kHours, "hours", wanted, 8'766);
    const std::string losses = writer->Losses(replay.table);
    std::printf("  not stored: %s\n", losses.empty() ? "nothing" : losses.c_str());
    MeasureReads();
}

// The default file with 100 series that all change, as long as it has to reach back: a month at 1
// s, then two years of a sample a minute, for the hours.
void MeasureLongTime(const Recording& recording, uint64_t seconds, uint64_t days) {
    (void)unlink(kFile);
    const std::vector<size_t> chosen = Choose(recording, kRows, false, 100);
    std::string error;
    auto writer = HistoryWriter::Open(
        {kFile, uint64_t{64} << 20, static_cast<int64_t>(seconds) * kSecond, "bench", "boot"},
        error);
    if (writer == nullptr) {
        std::printf("%s\n", error.c_str());
        return;
    }
    Replay replay(recording, chosen, seconds);
    for (uint64_t i = 0; i < days * 86'400 / seconds; ++i) {
        const SampleTime time = replay.Next();
        writer->Append(time, replay.table);
    }
    std::printf("%zu series, all changing, %zu days of a sample each %zu s\n", chosen.size(),
                static_cast<size_t>(days), static_cast<size_t>(seconds));
    if (seconds == 1) {
        ShowLog(kSamples, "samples", chosen.size(), 86'400);
        ShowLog(kMinutes, "minutes", chosen.size(), 43'830);
    }
    ShowLog(kHours, "hours", chosen.size(), 8'766);
}

void WriteNames(std::ofstream& file, const SeriesTable& table) {
    file << "wall,monotonic";
    for (SeriesTable::Index i = 0; i < table.Size(); ++i) {
        const SeriesInfo& info = table.Info(i);
        std::string name = SeriesId(info);
        std::replace(name.begin(), name.end(), ',', ';');
        file << (info.kind == SeriesKind::kCounter ? ",c:" : ",g:") << name;
    }
    file << '\n';
}

}  // namespace

int RecordValues(int seconds, const char* path) {
    Sampler sampler({});
    SeriesTable table;
    std::ofstream file(path);
    timespec next{};
    clock_gettime(CLOCK_MONOTONIC, &next);
    size_t series = 0;
    for (int i = 0; i < seconds; ++i) {
        ++next.tv_sec;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
        sampler.Sample(table);
        const SampleTime now = SampleTime::Now();
        if (i == 0) {
            series = table.Size();
            WriteNames(file, table);
        }
        file << now.wall << ',' << now.monotonic;
        for (SeriesTable::Index s = 0; s < series; ++s) file << ',' << table.Value(s);
        file << '\n' << std::flush;
    }
    return file ? 0 : 1;
}

int MeasureEncoding(int days, const char* path) {
    const Recording recording = Load(path);
    if (recording.times.size() < kRows) {
        std::fprintf(stderr, "%s: needs %zu samples, see performance_bench record\n", path, kRows);
        return 1;
    }
    CompareSizes(recording);
    ShowSysstat();
    MeasureWriting(recording, 300, 2);
    MeasureWriting(recording, kSeries, days);
    MeasureLongTime(recording, 1, 33);
    MeasureLongTime(recording, 60, 760);
    return 0;
}

int MeasureManySeries(const char* path) {
    const Recording recording = Load(path);
    if (recording.times.size() < kRows) {
        std::fprintf(stderr, "%s: needs %zu samples, see performance_bench record\n", path, kRows);
        return 1;
    }
    for (const uint64_t megabytes : {uint64_t{64}, uint64_t{512}})
        MeasureMany(recording, megabytes);
    return 0;
}
