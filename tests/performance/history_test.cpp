// The history: what is appended is read again, at all resolutions, whatever happens to the process,
// the machine and the file.
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstring>
#include <ctime>
#include <map>
#include <random>

#include "performance/checksum.h"
#include "performance/column_model.h"
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
        EXPECT_TRUE(reader.Read(all, span, step, points)) << reader.Error();
        return points;
    }
    // The newest samples of AppendFive that are there are right; their numbers.
    static std::vector<int64_t> CheckFive(HistoryReader& reader, int64_t newest = kHour * 1000) {
        const Points points = ReadAll(reader, 0, newest);
        std::vector<int64_t> numbers;
        for (size_t s = 0; s < points.size(); ++s) {
            for (const HistoryPoint& point : points[s]) {
                const int64_t i = (point.wall - kStart) / kSecond;
                const std::string& name = reader.Series()[s].name;
                if (name == "gauge") numbers.push_back(i);
                const double wanted = name == "gauge"      ? (i % 1000 - 500) / 100.0
                                      : name == "real"     ? Real(i)
                                      : name == "counter"  ? static_cast<double>(Counter(i))
                                      : name == "constant" ? 7
                                                           : static_cast<double>(i);
                EXPECT_EQ(point.last, wanted) << name << " " << i;
                if (point.last != wanted) return {};
            }
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
            EXPECT_NEAR(point.maximum, static_cast<double>(to + 3), point.maximum / 4000);
        }
    }
    const Points hours = ReadAll(*reader, kHour);
    ASSERT_EQ(hours[0].size(), 28U);
    EXPECT_DOUBLE_EQ(hours[0][5].minimum, -5);
    EXPECT_DOUBLE_EQ(hours[0][5].maximum, 4.99);
    EXPECT_NEAR(hours[2][5].mean, (18000 + 21600 + 6) / 2.0, 20);
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
        if (*done < 0) continue;
        const auto reader = OpenReader();
        const int64_t newest = round % 100 == 99 ? 10 * kHour : 3 * kMinute;
        const std::vector<int64_t> numbers = CheckFive(*reader, newest);
        ASSERT_FALSE(numbers.empty()) << round;
        // The sample that the kill interrupted may be there or not.
        ASSERT_TRUE(IsRun(numbers));
        ASSERT_GE(numbers.back(), *done);
        ASSERT_LE(numbers.back(), *done + 1);
        ASSERT_TRUE(reader->Problems().empty()) << reader->Problems()[0];
        last = numbers.back();
    }
    munmap(done, 4096);
}

}  // namespace
