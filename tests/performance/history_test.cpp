// The history: what is appended is read again, at all resolutions, whatever happens to the process,
// the machine and the file.
#include "performance/history_reader.h"
#include "performance/history_writer.h"
#include "tests/world.h"

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kStart = 1'700'000'040 * kSecond;

struct HistoryTest : testing::Test {
    HistorySettings settings{.path = "/var/lib/kemd/performance/history",
                             .size = 4 << 20,
                             .host = "box",
                             .bootId = "b0071d00-0000-4000-8000-000000000001"};
    std::unique_ptr<HistoryWriter> writer;
    SeriesTable table;

    void OpenWriter() {
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
};

TEST_F(HistoryTest, GaugesAndRatesOfCountersComeBackInSteps) {
    OpenWriter();
    const auto gauge = table.Add({"load", "", "", "", SeriesKind::kGauge, false, 1, 100});
    const auto counter = table.Add({"bytes", "", "bytes", "", SeriesKind::kCounter});
    for (int i = 0; i < 20; ++i) {
        table.Set(gauge, static_cast<uint64_t>(i - 5));
        table.Set(counter, static_cast<uint64_t>(i) * i);
        writer->Append({kStart + i * kSecond, 5 * kSecond + i * kSecond}, table);
    }
    const auto reader = OpenReader();
    const uint32_t both[] = {0, 1};
    std::vector<std::vector<HistoryPoint>> points;
    ASSERT_TRUE(reader->Read(both, reader->Range(), 0, points));
    ASSERT_EQ(points[0].size(), 20U);
    ASSERT_EQ(points[1].size(), 19U);  // the first sample has no rate
    EXPECT_DOUBLE_EQ(points[0][0].last, -0.05);
    EXPECT_DOUBLE_EQ(points[1][18].mean, 19 * 19 - 18 * 18);
    ASSERT_TRUE(reader->Read(both, reader->Range(), 10 * kSecond, points));
    ASSERT_EQ(points[1].size(), 2U);
    EXPECT_EQ(points[1][1].wall, kStart + 20 * kSecond);
    EXPECT_DOUBLE_EQ(points[1][1].minimum, 19);
    EXPECT_DOUBLE_EQ(points[1][1].maximum, 37);
    EXPECT_DOUBLE_EQ(points[1][1].mean, 28);
    EXPECT_DOUBLE_EQ(points[1][1].last, 19 * 19);
    EXPECT_EQ(reader->Host(), "box");
}

}  // namespace
