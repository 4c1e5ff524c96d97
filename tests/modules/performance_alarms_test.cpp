// What the module performance decides from values and clocks alone.
#include "modules/performance/alarms.h"
#include "modules/performance/clocks.h"
#include "modules/performance/moved.h"
#include "performance/history_writer.h"
#include "tests/world.h"

namespace {

class AlarmsTest : public testing::Test {
  protected:
    void Limits(Rule rule, const Limit& limit) {
        std::array<Limit, kRules> limits;
        limits[static_cast<size_t>(rule)] = limit;
        alarms.Configure(limits);
    }
    void Set(const std::string& id, double value) {
        if (!m_series.contains(id)) {
            const size_t brace = std::min(id.find('{'), id.size());
            SeriesInfo info = {id.substr(0, brace), "", "", "", SeriesKind::kCounter, true};
            if (brace < id.size()) info.labels = id.substr(brace + 1, id.size() - brace - 2);
            m_series[id] = table.Add(info);
        }
        table.SetReal(m_series[id], value);
    }
    void Remove(const std::string& id) {
        table.Remove(m_series[id]);
        m_series.erase(id);
    }
    // "+" or "-" for each alarm that begins or ends; `text` has the last one.
    std::string Sample(int seconds = 1) {
        m_now += seconds * kSecond;
        std::vector<AlarmEvent> events;
        alarms.Compare(table, {m_now, m_now}, events);
        std::string shown;
        for (const AlarmEvent& event : events) {
            shown += event.isEnd ? '-' : '+';
            text = event.text;
        }
        return shown;
    }

    Alarms alarms;
    SeriesTable table;
    std::string text;

  private:
    std::map<std::string, SeriesTable::Index> m_series;
    int64_t m_now = 1000 * kSecond;
};

TEST_F(AlarmsTest, GaugesBeginAndEndOnTheirSidesOfTheLimit) {
    const struct {
        Rule rule;
        Limit limit;
        std::vector<std::pair<const char*, double>> fixed;
        const char* moves;
        double good, atBegin, between, atEnd;
        const char* text;
    } cases[] = {
        {Rule::kFileSystemFull,
         {95, 93, 2000},
         {{"filesystem_size_bytes{mount=\"/a b\"}", 100},
          {"filesystem_free_bytes{mount=\"/a b\"}", 10},
          {"filesystem_available_bytes{mount=\"/\"}", 0}},  // of another one
         "filesystem_available_bytes{mount=\"/a b\"}",
         50,
         4.7,
         5.5,
         6.9,
         "file system /a b: 95.0 % full (limit 95 %), since "},
        {Rule::kMemoryAvailable,
         {5, 7, 2000},
         {{"memory_total_bytes", 100}, {"memory_available_bytes{module=\"m\"}", 0}},
         "memory_available_bytes",
         50,
         5,
         7,
         7.1,
         "memory: 5.0 % available (limit 5 %), since "},
        {Rule::kTemperatureMargin,
         {5, 10, 2000},
         {{"temperature_limit_celsius{chip=\"c\",sensor=\"s\"}", 80},
          {"temperature_limit_celsius{chip=\"d\",sensor=\"s\"}", 0},  // not set
          {"temperature_celsius{chip=\"d\",sensor=\"s\"}", 40}},
         "temperature_celsius{chip=\"c\",sensor=\"s\"}",
         40,
         75,
         70,
         69,
         "temperature of c s: 5.0 C below the sensor's limit (limit 5 C), since "},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.moves);
        Limits(each.rule, each.limit);
        for (const auto& [id, value] : each.fixed) Set(id, value);
        const struct {
            double value;
            const char* events;
        } steps[] = {
            {each.good, ""},    {each.atBegin, ""}, {each.atBegin, ""},  {each.good, ""},
            {each.atBegin, ""}, {each.atBegin, ""}, {each.atBegin, "+"}, {each.between, ""},
            {each.between, ""}, {each.between, ""}, {each.atEnd, ""},    {each.atEnd, ""},
            {each.between, ""}, {each.atEnd, ""},   {each.atEnd, ""},    {each.atEnd, "-"}};
        for (size_t i = 0; i < std::size(steps); ++i) {
            Set(each.moves, steps[i].value);
            EXPECT_EQ(Sample(), steps[i].events) << i;
            if (steps[i].events[0] == '+') {
                EXPECT_TRUE(text.starts_with(each.text)) << text;
            }
        }
        EXPECT_TRUE(text.starts_with("over after 11.0 s: ")) << text;
        // What goes has no alarm.
        Set(each.moves, each.atBegin);
        EXPECT_EQ(Sample(), "");
        EXPECT_EQ(Sample(2), "+");
        Remove(each.moves);
        EXPECT_EQ(Sample(), "-");
        EXPECT_EQ(alarms.Texts(), "");
    }
}

TEST_F(AlarmsTest, CountersAreComparedByWhatTheyGrew) {
    const struct {
        Rule rule;
        const char* fixed;
        const char* counter;
        const char* text;
    } cases[] = {
        {Rule::kOomKill, nullptr, "oom_kills", "out of memory: 4 killed within 10.0 s (limit 4)"},
        {Rule::kDiskErrors, nullptr, "disk_errors{disk=\"sda\"}",
         "disk sda: 4 errors within 10.0 s (limit 4)"},
        {Rule::kInterfaceErrors, "network_received_errors{interface=\"e\"}",
         "network_transmitted_errors{interface=\"e\"}",
         "interface e: 4 errors within 10.0 s (limit 4)"},
    };
    for (const auto& [rule, fixed, counter, expected] : cases) {
        SCOPED_TRACE(counter);
        Limits(rule, {4, 4, 10'000});
        if (fixed != nullptr) Set(fixed, 70);
        // What was counted before the first sample is no matter; 0: the counter begins again.
        const struct {
            double value;
            int seconds;
            const char* events;
        } steps[] = {{900, 1, ""}, {903, 1, ""}, {904, 1, "+"}, {0, 1, ""},
                     {1, 1, ""},   {1, 7, ""},   {1, 2, "-"},   {3, 5, ""}};
        for (const auto& [value, seconds, events] : steps) {
            Set(counter, value);
            EXPECT_EQ(Sample(seconds), events) << value;
            if (events[0] == '+') {
                EXPECT_TRUE(text.starts_with(expected)) << text;
            }
        }
    }
    Limits(Rule::kMemoryPressure, {20, 10, 3000});
    double stalled = 5;
    std::string all;
    for (const int percent : {0, 19, 20, 20, 20, 25, 11, 9, 9, 9, 9}) {
        stalled += percent / 100.0;
        Set("pressure_memory_some_seconds", stalled);
        const std::string events = Sample();
        all += events.empty() ? "." : events;
    }
    EXPECT_EQ(all, ".....+....-");
}

TEST_F(AlarmsTest, OneThatFlapsIsReportedAFewTimes) {
    Limits(Rule::kMemoryAvailable, {5, 5, 0});
    Set("memory_total_bytes", 100);
    std::string events;
    for (int i = 0; i < 600; ++i) {
        Set("memory_available_bytes", i % 2 == 0 ? 1 : 50);
        events += Sample();
    }
    EXPECT_EQ(events, "+-+-+");
    EXPECT_TRUE(Contains(alarms.Texts(), "memory: 50.0 % available"));
    EXPECT_EQ(Sample(59), "");
    EXPECT_EQ(Sample(1), "-");
}

TEST(ClocksTest, SuspendAndSteps) {
    const struct {
        const char* what;
        int64_t monotonic, boot, wall;  // milliseconds since the reading before
        int64_t slept, step;
    } cases[] = {
        {"runs", 1000, 1000, 1000, 0, 0},
        {"slept", 1000, 8000, 8000, 7000, 0},
        {"set forwards", 1000, 1000, 4600, 0, 3600},
        {"set back", 1000, 1000, -2000, 0, -3000},
        {"slept and set", 1000, 5000, 65000, 4000, 60000},
        {"read a little late", 1000, 1050, 1060, 0, 0},
        {"missed samples", 60000, 60000, 60000, 0, 0},
    };
    Clocks clocks;
    ClockReading now = {5'000'000'000, 9'000'000'000, 1'700'000'000'000'000'000};
    EXPECT_EQ(clocks.Compare(now).step, 0);
    for (const auto& each : cases) {
        now.monotonic += each.monotonic * 1'000'000;
        now.boot += each.boot * 1'000'000;
        now.wall += each.wall * 1'000'000;
        const ClockChange change = clocks.Compare(now);
        EXPECT_EQ(change.slept, each.slept * 1'000'000) << each.what;
        EXPECT_EQ(change.step, each.step * 1'000'000) << each.what;
    }
}

TEST(MovedTest, AllAlarmsOfASampleHaveTheOthers) {
    const char* const path = "/tmp/moved.history";
    std::string error;
    auto writer = HistoryWriter::Open({path, 4 << 20, 1'000'000'000, "host", "boot"}, error);
    ASSERT_NE(writer, nullptr) << error;
    SeriesTable table;
    std::vector<SeriesTable::Index> series;
    for (const char* const name : {"one_free", "two_free", "three_free", "four_free"}) {
        series.push_back(table.Add({name, "", "", "", SeriesKind::kGauge}));
    }
    const SampleTime now = SampleTime::Now();
    for (int64_t ago = 330; ago >= 0; --ago) {
        for (size_t i = 0; i < series.size(); ++i) table.Set(series[i], ago < 20 ? 100 << i : 1);
        const int64_t back = ago * 1'000'000'000;
        writer->Append({now.wall - back, now.monotonic - back}, table);
    }
    Moved moved(path, now, 1'000'000'000);
    const std::string last = "four_free 800 (was 1), ";
    const std::string two = "two_free 200 (was 1)";
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(moved.Text({false, 0, "", "", {"other"}}),
                  last + "three_free 400 (was 1), " + two);
        EXPECT_EQ(moved.Text({false, 0, "", "", {"three_free"}}),
                  last + two + ", one_free 100 (was 1)");
        unlink(path);  // it is read once
    }
}

}  // namespace
