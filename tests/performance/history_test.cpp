// The history: what is appended is read again, at all resolutions, whatever happens to the process,
// the machine and the file.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <map>
#include <random>

#include "base/unique_fd.h"
#include "performance/checksum.h"
#include "performance/column_model.h"
#include "performance/history_block.h"
#include "performance/history_format.h"
#include "performance/history_reader.h"
#include "performance/history_writer.h"
#include "tests/world.h"

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kMinute = 60 * kSecond;
constexpr int64_t kHour = 60 * kMinute;
constexpr int64_t kStart = 472'000 * kHour;
using Points = std::vector<std::vector<HistoryPoint>>;

struct HistoryTest : testing::Test {
    HistorySettings settings{"/var/lib/kemd/performance/history", 1 << 20, kSecond, "box",
                             "b0071d00-0000-4000-8000-000000000001"};
    std::unique_ptr<HistoryWriter> writer;
    SeriesTable table;
    std::mt19937_64 random{4711};

    void SetUp() override { unlink(settings.path.c_str()); }
    void OpenWriter() {
        writer.reset();
        std::string error;
        writer = HistoryWriter::Open(settings, error);
        ASSERT_NE(writer, nullptr) << error;
    }
    std::unique_ptr<HistoryReader> OpenReader() const {
        std::string error;
        auto reader = HistoryReader::Open(settings.path, error);
        EXPECT_NE(reader, nullptr) << error;
        return reader;
    }
    // A gauge, a real gauge, a counter, one that never changes, and one that is often absent.
    void AddFive() {
        (void)table.Add({"gauge", "", "", "", SeriesKind::kGauge, false, 1, 100});
        (void)table.Add({"real", "", "watts", "", SeriesKind::kGauge, true});
        (void)table.Add({"counter", "", "bytes", "", SeriesKind::kCounter});
        (void)table.Add({"constant", "of=\"all\"", "", "", SeriesKind::kGauge});
        (void)table.Add({"rare", "", "", "", SeriesKind::kGauge});
    }
    // Values that tell the sample's number, so that a reader can check each.
    void AppendFive(int64_t i) {
        table.Set(0, static_cast<uint64_t>(i % 1000 - 500));
        table.SetReal(1, Real(i));
        table.Set(2, Counter(i));
        table.Set(3, 7);
        table.Clear(4);
        if (i % 10 == 0) table.Set(4, static_cast<uint64_t>(i));
        writer->Append({kStart + i * kSecond, kHour + i * kSecond}, table);
    }
    static double Real(int64_t i) { return i % 3 == 0 ? i * 0.1 : std::sqrt(i); }
    static uint64_t Counter(int64_t i) { return static_cast<uint64_t>(i * (i + 7) / 2); }
    static Points ReadAll(HistoryReader& reader, int64_t step, int64_t newest = kHour * 1000) {
        std::vector<uint32_t> all(reader.Series().size());
        for (uint32_t i = 0; i < all.size(); ++i) all[i] = i;
        Points points;
        HistorySpan span = reader.Range();
        span.from = std::max(span.from, span.to - newest);
        reader.Read(all, span, step, points);
        return points;
    }
    // The newest samples of AppendFive that are there are right; the numbers of the whole ones.
    static std::vector<int64_t> CheckFive(HistoryReader& reader, int64_t newest = kHour * 1000) {
        const Points points = ReadAll(reader, 0, newest);
        // The first value of a counter has no rate.
        const auto isOfEach = [](const SeriesInfo& info) {
            return info.name != "rare" && info.name != "counter";
        };
        const auto& all = reader.Series();
        const auto ofEach = std::count_if(all.begin(), all.end(), isOfEach);
        std::map<int64_t, std::ptrdiff_t> missing;
        for (size_t s = 0; s < points.size(); ++s) {
            for (const HistoryPoint& point : points[s]) {
                const int64_t i = (point.wall - kStart) / kSecond;
                const std::string& name = all[s].name;
                if (isOfEach(all[s])) --missing.try_emplace(i, ofEach).first->second;
                const double wanted = name == "gauge"      ? (i % 1000 - 500) / 100.0
                                      : name == "real"     ? Real(i)
                                      : name == "counter"  ? static_cast<double>(Counter(i))
                                      : name == "constant" ? 7
                                                           : static_cast<double>(i);
                EXPECT_EQ(point.last, wanted) << name << " " << i;
                if (point.last != wanted) return {};
            }
        }
        std::vector<int64_t> numbers;
        for (const auto& [number, count] : missing) {
            if (count == 0) numbers.push_back(number);
        }
        return numbers;
    }
    // Of this process's time on a processor, so that a busy machine changes nothing.
    static void KillAfter(long nanoseconds) {
        sigevent event{};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGKILL;
        timer_t timer{};
        const itimerspec after{{}, {0, nanoseconds + 1}};
        if (timer_create(CLOCK_PROCESS_CPUTIME_ID, &event, &timer) != 0 ||
            timer_settime(timer, 0, &after, nullptr) != 0) {
            _exit(1);
        }
    }
    static bool IsRun(const std::vector<int64_t>& numbers) {
        for (size_t i = 1; i < numbers.size(); ++i) {
            if (numbers[i] != numbers[i - 1] + 1) return false;
        }
        return true;
    }
};

struct Bytes {
    std::vector<uint8_t>* bytes;
    void operator()(uint8_t byte) const { bytes->push_back(byte); }
};

TEST(Checksum, IsCastagnolis) {
    EXPECT_EQ(Crc32c("123456789", 9), 0xe3069283U);
    EXPECT_EQ(Crc32c("6789", 4, Crc32c("12345", 5)), 0xe3069283U);
}

TEST(FileHead, EverySizeHasRoomForItsAreasAndSlots) {
    constexpr uint64_t kMiB = 1 << 20;
    const struct {
        uint64_t size;
        std::array<uint64_t, kLogs> slots;  // in KiB
    } cases[] = {
        {kMiB, {64, 36, 16}},
        {64 * kMiB, {512, 512, 512}},
        {512 * kMiB, {4096, 2444, 1200}},
        {uint64_t{16} << 30, {16384, 16384, 16384}},
    };
    for (const auto& one : cases) {
        const FileHead head = MakeFileHead(one.size, "host");
        EXPECT_EQ(CheckFileHead(head), "");
        uint64_t end = kPage;
        for (uint32_t area = 0; area < kAreas; ++area) {
            EXPECT_EQ(head.areas[area].offset, end) << one.size << " area " << area;
            end += head.areas[area].size;
            if (area < kLogs) {
                EXPECT_EQ(head.areas[area].slot >> 10, one.slots[area]) << one.size;
            }
        }
        EXPECT_EQ(end, one.size);
    }
}

TEST(ColumnModel, ReturnsEveryValueBitByBit) {
    std::mt19937_64 random(1);
    const auto real = [](double value) { return std::bit_cast<uint64_t>(value); };
    std::vector<std::pair<bool, std::vector<uint64_t>>> columns = {
        {false, {0, UINT64_MAX, 0, uint64_t{1} << 63, 1, (uint64_t{1} << 63) - 1, 5, 5}},
        {false, {4096, 8192, 8192, 40960, 4096, 4097, 4096 * 3, 0}},
        {true,
         {real(0.1), real(-0.0), real(0.0), real(NAN), real(INFINITY), real(5e-324), real(1e300)}},
        {true, {real(20.5), real(20.25), real(-3), real(1e15 + 0.5), real(1234567.891)}},
    };
    for (int shift = 0; shift < 64; shift += 7) {
        std::vector<uint64_t> values(300);
        for (uint64_t& value : values) value = random() >> shift;
        columns.push_back({shift % 2 == 0, values});
    }
    for (const auto& [isReal, values] : columns) {
        std::vector<uint8_t> bytes;
        ColumnModel model(values[0], isReal);
        BitEncoder<Bytes> encoder({&bytes});
        for (size_t i = 1; i < values.size(); ++i) {
            (void)model.Present(encoder, i % 5 != 0);
            if (i % 5 != 0) (void)model.Value(encoder, values[i]);
        }
        encoder.Finish();
        ColumnModel again(values[0], isReal);
        BitDecoder decoder(bytes.data(), bytes.data() + bytes.size());
        for (size_t i = 1; i < values.size(); ++i) {
            ASSERT_EQ(again.Present(decoder, false), i % 5 != 0);
            if (i % 5 == 0) continue;
            ASSERT_EQ(again.Value(decoder, 0), values[i]) << i;
        }
    }
}

TEST_F(HistoryTest, SamplesMinutesAndHoursComeBackAndGoRound) {
    AddFive();
    OpenWriter();
    constexpr int64_t kSamples = 100'000;
    for (int64_t i = 0; i < kSamples; ++i) AppendFive(i);
    const auto reader = OpenReader();
    ASSERT_EQ(reader->Series().size(), 5U);
    EXPECT_EQ(reader->Range().to, kStart + (kSamples - 1) * kSecond + 1);
    const Points samples = ReadAll(*reader, 0);
    EXPECT_TRUE(reader->Problems().empty()) << reader->Problems()[0];
    // Hours, then minutes, then samples; each time once.
    std::map<int64_t, int> steps;
    for (size_t i = 1; i < samples[2].size(); ++i) {
        ++steps[samples[2][i].wall - samples[2][i - 1].wall];
    }
    EXPECT_GT(steps[kSecond], 5000);
    for (const int64_t step : {kHour, kMinute, 10 * kSecond}) {
        const Points points = ReadAll(*reader, step);
        for (const HistoryPoint& point : points[2]) {
            if (point.wall % step != 0) continue;
            const int64_t to = std::min((point.wall - kStart) / kSecond, kSamples) - 1;
            EXPECT_EQ(point.last, static_cast<double>(Counter(to))) << step << " " << to;
            EXPECT_NEAR(point.maximum, static_cast<double>(to + 3), point.maximum / 250);
        }
    }
    const Points hours = ReadAll(*reader, kHour);
    ASSERT_EQ(hours[0].size(), 28U);
    EXPECT_DOUBLE_EQ(hours[0][5].minimum, -5);
    EXPECT_DOUBLE_EQ(hours[0][5].maximum, 4.99);
    EXPECT_NEAR(hours[2][5].mean, (18000 + 21600 + 6) / 2.0, 80);
}

TEST_F(HistoryTest, AKillAtAnyMomentLosesNothing) {
    AddFive();
    auto* const done = static_cast<std::atomic<int64_t>*>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(done, MAP_FAILED);
    settings.size = 4 << 20;
    int64_t last = -1;
    for (int round = 0; round < 1000; ++round) {
        *done = last;
        const auto delay = static_cast<long>(random() % 6'000'000);
        const pid_t child = fork();
        if (child == 0) {
            KillAfter(delay);
            OpenWriter();
            for (int64_t i = last + 1; i < last + 40; ++i) {
                AppendFive(i);
                *done = i;
            }
            raise(SIGKILL);
        }
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        std::string error;
        const auto reader = HistoryReader::Open(settings.path, error);
        // Killed before the file was made, or before its first sample was done, which may be there.
        if (reader == nullptr && *done < 0) continue;
        ASSERT_NE(reader, nullptr) << error;
        const int64_t newest = round % 100 == 99 ? 10 * kHour : 3 * kMinute;
        const std::vector<int64_t> numbers = CheckFive(*reader, newest);
        if (numbers.empty() && *done < 0) continue;
        ASSERT_FALSE(numbers.empty()) << round;
        // The sample that the kill interrupted may be there or not.
        ASSERT_TRUE(IsRun(numbers)) << round << " " << testing::PrintToString(numbers);
        ASSERT_GE(numbers.back(), *done);
        ASSERT_LE(numbers.back(), *done + 1);
        ASSERT_TRUE(reader->Problems().empty()) << reader->Problems()[0];
        last = numbers.back();
    }
    munmap(done, 4096);
}

TEST_F(HistoryTest, APowerCutLosesAtMostWhatCameAfterTheLastSync) {
    AddFive();
    // So that a block has many pages, of which some may be on the disk.
    for (const char* label : {"n=\"1\"", "n=\"2\"", "n=\"3\"", "n=\"4\"", "n=\"5\""}) {
        (void)table.Add({"real", label, "", "", SeriesKind::kGauge, true});
    }
    const auto append = [this](int64_t number) {
        for (SeriesTable::Index place = 5; place < 10; ++place) table.SetReal(place, Real(number));
        AppendFive(number);
    };
    OpenWriter();
    int64_t i = 0;
    for (int variant = 0; variant < 60; ++variant) {
        for (const int64_t to = i + static_cast<int64_t>(random() % 400); i < to; ++i) append(i);
        ASSERT_EQ(writer->Sync(), 0);
        const int64_t synced = i - 1;
        std::string disk = ReadFile(settings.path);
        for (const int64_t to = i + 1 + static_cast<int64_t>(random() % 60); i < to; ++i) append(i);
        const std::string memory = ReadFile(settings.path);
        for (size_t page = 0; page < disk.size(); page += 4096) {
            if (random() % 2 == 0) disk.replace(page, 4096, memory, page, 4096);
        }
        const HistorySettings kept = settings;
        settings.path = "/tmp/after/history";
        WriteFile(settings.path, disk);
        auto other = std::move(writer);
        const auto reader = OpenReader();
        std::vector<int64_t> numbers = CheckFive(*reader, 10 * kMinute);
        // What came after the sync may have holes.
        const auto end = std::upper_bound(numbers.begin(), numbers.end(), synced);
        ASSERT_TRUE(IsRun({numbers.begin(), end}));
        ASSERT_TRUE(end != numbers.begin() && *std::prev(end) == synced) << variant;
        // The next run goes on with it.
        OpenWriter();
        append(numbers.back() + 1);
        ASSERT_TRUE(reader->Refresh());
        ASSERT_EQ(CheckFive(*reader, 10 * kMinute).back(), numbers.back() + 1);
        writer.reset();
        settings = kept;
        writer = std::move(other);
    }
}

// The rows of a torn newest block come from its slot, unless most of them are gone there.
TEST_F(HistoryTest, ATornBlockIsReplacedByWhatItsSlotHas) {
    AddFive();
    OpenWriter();
    for (int64_t i = 0; i < 600; ++i) AppendFive(i);
    writer.reset();
    const AreaPlace place = MakeFileHead(1 << 20, "box").areas[kSamples];
    const UniqueFd file(open(settings.path.c_str(), O_RDWR | O_CLOEXEC));
    const auto read = [&](std::vector<BlockRef>& blocks) {
        std::vector<SlotRows> slots;
        blocks.clear();
        EXPECT_EQ(ReadLog(file.Get(), place, kSamples, blocks, slots), 0);
        std::vector<uint32_t> rows;
        for (const SlotRows& slot : slots) rows.push_back(slot.rows);
        return rows;
    };
    std::vector<BlockRef> blocks;
    EXPECT_EQ(read(blocks), std::vector<uint32_t>({88}));
    ASSERT_EQ(blocks.size(), 1U);
    std::vector<DirectoryEntry> entries;
    ASSERT_EQ(ReadDirectory(file.Get(), blocks[0], entries), BlockState::kSound);
    const auto torn = std::find_if(entries.begin(), entries.end(), [](const auto& entry) {
        return !entry.isConstant && SeriesOf(entry.id) != kNoSeries;
    });
    ASSERT_NE(torn, entries.end());
    const auto last = static_cast<off_t>(blocks[0].offset + torn->offset + torn->size - 1);
    char byte = 0;
    ASSERT_EQ(pread(file.Get(), &byte, 1, last), 1);
    byte = static_cast<char>(byte ^ 0x40);
    ASSERT_EQ(pwrite(file.Get(), &byte, 1, last), 1);
    // So many rows of its slot are there.
    const struct {
        uint32_t kept;
        std::vector<uint32_t> slots;
    } cases[] = {{512, {512, 88}}, {256, {256, 88}}, {255, {88}}, {0, {88}}};
    for (const auto& each : cases) {
        auto at = static_cast<off_t>(place.offset + place.slot + sizeof(SlotHead));
        RowHead head;
        for (uint32_t row = 0; row < each.kept; ++row) {
            ASSERT_EQ(pread(file.Get(), &head, sizeof head, at), sizeof head);
            at += static_cast<off_t>(sizeof head + head.size);
        }
        ASSERT_EQ(pwrite(file.Get(), "", 1, at), 1);
        EXPECT_EQ(read(blocks), each.slots) << each.kept;
        EXPECT_EQ(blocks.size(), 2 - each.slots.size()) << each.kept;
        const auto reader = OpenReader();
        const size_t whole = CheckFive(*reader).size();
        EXPECT_EQ(whole, 88 + (each.slots.size() == 2 ? each.kept : 0)) << each.kept;
        EXPECT_EQ(reader->Problems().size(), blocks.size()) << each.kept;
    }
}

TEST_F(HistoryTest, DamagedBytesAreLeftOutAndReported) {
    AddFive();
    OpenWriter();
    for (int64_t i = 0; i < 5000; ++i) AppendFive(i);
    writer.reset();
    const std::string sound = ReadFile(settings.path);
    const size_t head = 4096;
    int problems = 0;
    for (int round = 0; round < 80; ++round) {
        std::string damaged = sound;
        for (int i = 0; i < 40; ++i) {
            damaged[head + random() % (damaged.size() - head)] = static_cast<char>(random());
        }
        if (round % 10 == 0) damaged.resize(random() % damaged.size() + head);
        WriteFile(settings.path, damaged);
        const auto reader = OpenReader();
        for (const int64_t step : {int64_t{0}, kMinute, kHour}) (void)ReadAll(*reader, step);
        (void)reader->Marks(reader->Range());
        problems += reader->Problems().empty() ? 0 : 1;
        std::string error;
        if (round % 10 != 1) continue;
        EXPECT_NE(HistoryWriter::Open(settings, error), nullptr) << error;
    }
    EXPECT_GT(problems, 10);
    // A block that is lost as a whole: its minutes answer for it.
    std::string damaged = sound;
    const size_t block = damaged.find("KBLK");
    damaged[block + 9] ^= 1;
    WriteFile(settings.path, damaged);
    const auto reader = OpenReader();
    const Points points = ReadAll(*reader, 0);
    EXPECT_EQ(points[0].front().wall, kStart + kMinute);
    EXPECT_EQ(points[0].back().wall, kStart + 4999 * kSecond);
}

TEST_F(HistoryTest, OpenRefusesConvertsOrSetsAside) {
    AddFive();
    settings.size = 4 << 20;
    OpenWriter();
    for (int64_t i = 0; i < 9000; ++i) AppendFive(i);
    writer->Mark({{kStart, kHour}, MarkKind::kAlarm, -3, "hot"});
    std::string error;
    EXPECT_EQ(HistoryWriter::Open(settings, error), nullptr);
    EXPECT_EQ(error, settings.path + ": another process is writing this history");
    struct stat status {};
    ASSERT_EQ(stat("/var/lib/kemd/performance", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755U);
    // Another size keeps what fits, and a reader follows.
    const auto reader = OpenReader();
    for (const uint64_t size : {1 << 20, 8 << 20, 3 << 20}) {
        settings.size = size;
        OpenWriter();
        EXPECT_EQ(writer->Findings(), "");
        ASSERT_TRUE(reader->Refresh()) << reader->Error();
        EXPECT_EQ(ReadFile(settings.path).size(), size);
        const std::vector<int64_t> numbers = CheckFive(*reader, kHour);
        ASSERT_TRUE(IsRun(numbers));
        EXPECT_EQ(numbers.back(), 8999);
        ASSERT_EQ(reader->Marks(reader->Range()).size(), 1U);
        EXPECT_EQ(reader->Marks(reader->Range())[0].text, "hot");
        EXPECT_EQ(ReadAll(*reader, kHour)[0].size(), 3U);
        EXPECT_EQ(reader->Series().size(), 5U);
    }
    writer.reset();
    std::string bytes = ReadFile(settings.path);
    bytes[8] = 3;
    WriteFile(settings.path, bytes);
    EXPECT_EQ(HistoryWriter::Open(settings, error), nullptr);
    EXPECT_TRUE(Contains(error, "a history of format 3, newer than 2")) << error;
    bytes[8] = 1;
    WriteFile(settings.path, bytes);
    EXPECT_EQ(HistoryReader::Open(settings.path, error), nullptr);
    EXPECT_EQ(error, settings.path + ": a history of format 1, which no release wrote");
    bytes[0] = 'X';
    WriteFile(settings.path, bytes);
    OpenWriter();
    EXPECT_EQ(writer->Findings(), settings.path +
                                      ": not a history of the performance monitor; it is now " +
                                      settings.path + ".bad\n");
    EXPECT_EQ(ReadFile(settings.path + ".bad"), bytes);
    // A disk with too little room: nothing is left there.
    settings.path = "/small/history";
    EXPECT_EQ(HistoryWriter::Open(settings, error), nullptr);
    EXPECT_EQ(error, "/small/history: its 3 MiB cannot be reserved: No space left on device");
    EXPECT_FALSE(std::filesystem::exists(settings.path));
}

TEST_F(HistoryTest, RatesAreNeverNegativeOrMadeUp) {
    const auto counter = table.Add({"counter", "", "", "", SeriesKind::kCounter});
    OpenWriter();
    int64_t monotonic = kHour;
    const auto append = [&](int64_t wall, uint64_t value) {
        table.Set(counter, value);
        writer->Append({kStart + wall * kSecond, monotonic}, table);
        monotonic += kSecond;
    };
    append(0, 1000);
    append(1, 1010);
    append(2, 5);  // began again
    append(3, 25);
    monotonic += 100 * kSecond;  // missed
    append(104, 1035);
    settings.bootId = "b0071d00-0000-4000-8000-000000000002";
    OpenWriter();
    monotonic = kSecond;
    append(200, 4000);
    append(201, 4001);
    append(150, 4011);  // the clock was set back
    append(151, 4012);
    const auto reader = OpenReader();
    EXPECT_EQ(reader->BootId(), settings.bootId);
    const Points points = ReadAll(*reader, 0);
    std::vector<std::pair<int64_t, double>> rates;
    for (const HistoryPoint& point : points[0]) {
        rates.emplace_back((point.wall - kStart) / kSecond, point.mean);
    }
    EXPECT_EQ(rates, (std::vector<std::pair<int64_t, double>>{
                         {1, 10}, {3, 20}, {104, 10}, {150, 10}, {151, 1}, {201, 1}}));
    const Points minutes = ReadAll(*reader, kMinute);
    ASSERT_EQ(minutes[0].size(), 4U);
    EXPECT_EQ(minutes[0][2].wall, kStart + 3 * kMinute);
    EXPECT_DOUBLE_EQ(minutes[0][2].maximum, 10);
    EXPECT_DOUBLE_EQ(minutes[0][2].mean, 5.5);
}

// Counters that begin again, are absent for a while, or are doubles; the writer ends in between.
TEST_F(HistoryTest, MeansOfMinutesAreThoseOfTheSamples) {
    (void)table.Add({"counter", "", "", "", SeriesKind::kCounter, false, 1, 100});
    (void)table.Add({"real", "", "", "", SeriesKind::kCounter, true});
    (void)table.Add({"gauge", "", "", "", SeriesKind::kGauge, false, 1, 10});
    OpenWriter();
    constexpr int64_t kSamples = 6000;
    struct Sum {
        double of = 0;
        double weight = 0;
    };
    std::map<int64_t, Sum> sums[3];
    double before[3] = {-1, -1, -1};
    double counts[2] = {0, 0};
    for (int64_t i = 0; i < kSamples; ++i) {
        if (i % 1500 == 777) OpenWriter();
        for (double& count : counts) {
            count = random() % 400 == 0 ? 0 : count + static_cast<double>(random() % 1000);
        }
        table.Set(0, static_cast<uint64_t>(counts[0]));
        if (i / 90 % 4 == 3) table.Clear(0);
        table.SetReal(1, counts[1] / 8);
        table.Set(2, random() % 5000 - 2500);
        writer->Append({kStart + i * kSecond, kHour + i * kSecond}, table);
        for (SeriesTable::Index s = 0; s < 3; ++s) {
            if (!table.HasValue(s)) continue;
            const double now = SeriesNumber(table.Info(s), table.Value(s));
            Sum& sum = sums[s][kStart + (i / 60 + 1) * kMinute];
            const bool isCounter = s < 2;
            const bool hasRate = isCounter && before[s] >= 0 && now >= before[s];
            if (hasRate || !isCounter) {
                sum.of += isCounter ? now - before[s] : now;
                sum.weight += s == 0 && i / 90 % 4 == 0 && i % 90 == 0 && i > 0 ? 91 : 1;
            }
            before[s] = now;
        }
    }
    const auto reader = OpenReader();
    const Points points = ReadAll(*reader, kMinute);
    ASSERT_EQ(points.size(), 3U);
    for (size_t s = 0; s < 3; ++s) {
        EXPECT_GT(points[s].size(), 70U);
        for (const HistoryPoint& point : points[s]) {
            const Sum& sum = sums[s][point.wall];
            const double room = (s == 2 ? point.mean - point.minimum : point.mean) / 256;
            EXPECT_NEAR(point.mean, sum.of / sum.weight, room) << s << " " << point.wall;
        }
    }
}

TEST_F(HistoryTest, SeriesThatComeAndGoForYearsStayBounded) {
    const auto lasting = table.Add({"lasting", "", "", "", SeriesKind::kGauge});
    OpenWriter();
    constexpr int64_t kSamples = 30'000;
    std::vector<SeriesTable::Index> guests;
    for (int64_t i = 0; i < kSamples; ++i) {
        table.Set(lasting, static_cast<uint64_t>(i));
        const std::string name = "veth" + std::to_string(i % 7 == 0 ? i : i % 5);
        guests.push_back(
            table.Add({"bytes", SeriesLabel("interface", name), "", "", SeriesKind::kGauge}));
        table.Set(guests.back(), static_cast<uint64_t>(i));
        if (guests.size() > 3) {
            table.Remove(guests.front());
            guests.erase(guests.begin());
        }
        writer->Append({kStart + i * kSecond, kHour + i * kSecond}, table);
        if (i % 4000 == 0) OpenWriter();
    }
    const auto reader = OpenReader();
    EXPECT_TRUE(reader->Problems().empty());
    const Points points = ReadAll(*reader, 0, kHour);
    size_t found = 0;
    for (size_t s = 0; s < points.size(); ++s) {
        for (const HistoryPoint& point : points[s]) {
            const int64_t i = (point.wall - kStart) / kSecond;
            const SeriesInfo& info = reader->Series()[s];
            if (info.name == "lasting") {
                ASSERT_EQ(point.last, static_cast<double>(i));
                ++found;
            } else if (info.labels == "interface=\"veth3\"") {
                ASSERT_EQ(static_cast<int64_t>(point.last) % 7 != 0, true);
            }
        }
    }
    EXPECT_GE(found, 3600U);
}

TEST_F(HistoryTest, WhatDoesNotFitIntoASmallFileIsReported) {
    OpenWriter();
    const std::string help(300, 'h');
    for (int i = 0; i < 6000; ++i) {
        const auto index = table.Add({"series_" + std::to_string(i), "", "", help,
                                      i % 2 == 0 ? SeriesKind::kGauge : SeriesKind::kCounter});
        table.Set(index, 1);
    }
    EXPECT_EQ(writer->Losses(table), "");
    writer->Append({kStart, kHour}, table);
    const std::string series = writer->Losses(table);
    EXPECT_TRUE(Contains(series, " series")) << series;
    // Few have room.
    SeriesTable few;
    settings.path = "/var/lib/kemd/performance/other";
    OpenWriter();
    for (int i = 0; i < 80; ++i) {
        (void)few.Add({"series_" + std::to_string(i), "", "", "", SeriesKind::kGauge});
        few.Set(static_cast<SeriesTable::Index>(i), random());
    }
    writer->Append({kStart, kHour}, few);
    EXPECT_EQ(writer->Losses(few), "");
}

TEST_F(HistoryTest, NotesOfProcessesNeverPushOutOtherMarks) {
    OpenWriter();
    writer->Mark({{kStart, 1}, MarkKind::kStart, 0, "1.0"});
    for (int64_t i = 1; i < 3000; ++i) {
        writer->Mark({{kStart + i, i + 1}, MarkKind::kProcesses, 0, std::string(1000, 'p')});
    }
    const auto reader = OpenReader();
    const std::vector<Mark> marks = reader->Marks({kStart, kStart + kHour});
    ASSERT_GT(marks.size(), 10U);
    EXPECT_EQ(marks.front().kind, MarkKind::kStart);
    EXPECT_EQ(marks.front().text, "1.0");
    EXPECT_EQ(marks.back().time.wall, kStart + 2999);
}

TEST_F(HistoryTest, AReaderBesideTheWriterSeesOnlyWholeSamples) {
    AddFive();
    OpenWriter();
    AppendFive(0);
    auto* const stop = static_cast<std::atomic<bool>*>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(stop, MAP_FAILED);
    const pid_t child = fork();
    if (child == 0) {
        for (int64_t i = 1; !*stop; ++i) AppendFive(i);
        _exit(0);
    }
    const auto reader = OpenReader();
    int64_t before = 0;
    for (int round = 0; round < 100; ++round) {
        ASSERT_TRUE(reader->Refresh());
        const std::vector<int64_t> numbers = CheckFive(*reader, kMinute);
        ASSERT_FALSE(numbers.empty());
        ASSERT_GE(numbers.back(), before);
        before = numbers.back();
    }
    *stop = true;
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(reader->Problems().empty()) << reader->Problems()[0];
    munmap(stop, 4096);
}

}  // namespace
