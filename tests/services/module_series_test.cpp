// kemd/performance.h: what modules register, and what is read from the memory of isolated ones.
#include <sys/mman.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <thread>

#include "base/unique_fd.h"
#include "kemd/performance.h"
#include "tests/world.h"

namespace {

using Labels = std::vector<KemdSeriesLabel>;

class ModuleSeriesTest : public testing::Test {
  protected:
    ~ModuleSeriesTest() override {
        KemdSeriesForget("services_test");
        KemdSeriesForget("apart");
    }
    static int Register(KemdSeries** series, const char* name, const char* unit = "",
                        uint32_t kind = KEMD_SERIES_GAUGE, const Labels& labels = {},
                        const char* help = nullptr) {
        Labels ended = labels;
        ended.push_back({});
        const KemdSeriesDescription description = {sizeof description, kind, name, unit, help,
                                                   ended.data()};
        return KemdSeriesRegister(series, &description);
    }
    // "name{labels} unit help" and the value, dead ones with a "!".
    static std::map<std::string, int64_t> Shown() {
        std::vector<KemdSeriesValue> values(KemdSeriesValues(nullptr, 0));
        values.resize(std::min(values.size(), KemdSeriesValues(values.data(), values.size())));
        std::map<std::string, int64_t> shown;
        for (const KemdSeriesValue& value : values) {
            KemdSeriesInfo info{};
            info.size = sizeof info;
            if (KemdSeriesDescribe(value.id, &info) != 0) continue;
            shown[std::string((value.flags & KEMD_SERIES_DEAD) != 0 ? "!" : "") + info.name + "{" +
                  info.labels + "} " + info.unit + " " + info.help] =
                static_cast<int64_t>(value.bits);
        }
        return shown;
    }
};

TEST_F(ModuleSeriesTest, AreSharedByAllThreads) {
    KemdSeries* counter = nullptr;
    KemdSeries* gauge = nullptr;
    KemdSeries* real = nullptr;
    ASSERT_EQ(0, Register(&counter, "sent_bytes", "bytes", KEMD_SERIES_COUNTER,
                          {{"to", "a\"\\ä"}, {"by", "x"}}, "Sent"));
    ASSERT_EQ(0, Register(&gauge, "queue"));
    ASSERT_EQ(0, Register(&real, "room_celsius", "celsius", KEMD_SERIES_REAL_GAUGE));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 10000; ++n) {
                KemdSeriesAdd(counter, 3);
                KemdSeriesAdd(gauge, -1);
                KemdSeriesAddReal(real, 0.5);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    auto shown = Shown();
    EXPECT_EQ(shown.at(R"(sent_bytes{module="services_test",by="x",to="a\"\\ä"} bytes Sent)"),
              120000);
    EXPECT_EQ(shown.at("queue{module=\"services_test\"}  "), -40000);
    double sum = 0;
    std::memcpy(&sum, &shown.at("room_celsius{module=\"services_test\"} celsius "), sizeof sum);
    EXPECT_EQ(sum, 20000);
    // A place that is used again is another series, which begins at 0.
    KemdSeriesSet(gauge, 7);
    KemdSeriesRelease(gauge);
    ASSERT_EQ(0, Register(&gauge, "other"));
    shown = Shown();
    EXPECT_EQ(shown.size(), 3U);
    EXPECT_EQ(shown.at("other{module=\"services_test\"}  "), 0);
    // What a module leaves goes with it.
    KemdSeriesForget("services_test");
    EXPECT_TRUE(Shown().empty());
}

TEST_F(ModuleSeriesTest, RefusesWhatMakesNoSense) {
    KemdSeries* first = nullptr;
    ASSERT_EQ(
        0, Register(&first, "a_seconds", "seconds", KEMD_SERIES_COUNTER, {{"a", "1"}, {"b", "2"}}));
    const std::string longText(380, 'x');
    const struct {
        int error;
        const char* name;
        const char* unit;
        uint32_t kind;
        Labels labels;
        const char* help;
    } cases[] = {
        {EEXIST, "a_seconds", "seconds", KEMD_SERIES_COUNTER, {{"b", "2"}, {"a", "1"}}, "other"},
        {0, "a_seconds", "seconds", KEMD_SERIES_COUNTER, {{"a", "2"}}, ""},
        {EINVAL, "a_seconds", "seconds", KEMD_SERIES_GAUGE, {{"a", "3"}}, ""},
        {EINVAL, "a_seconds", "", KEMD_SERIES_COUNTER, {{"a", "3"}}, ""},
        {EINVAL, nullptr, "", 0, {}, ""},
        {EINVAL, "", "", 0, {}, ""},
        {EINVAL, "9a", "", 0, {}, ""},
        {EINVAL, "a:b", "", 0, {}, ""},
        {EINVAL, "a-b", "", 0, {}, ""},
        {EINVAL, "\303\244", "", 0, {}, ""},
        {EINVAL, "sent_total", "", KEMD_SERIES_COUNTER, {}, ""},
        {EINVAL, "sent", "bytes", 0, {}, ""},
        {EINVAL, "sentbytes", "bytes", 0, {}, ""},
        {EINVAL, "_bytes", "bytes", 0, {}, ""},
        {EINVAL, "a", "", 3, {}, ""},
        {EINVAL, "a", "", 0, {}, "two\nlines"},
        {EINVAL, "a", "", 0, {}, "no UTF-8: \377"},
        {EINVAL, "a", "", 0, {{"module", "other"}}, ""},
        {EINVAL, "a", "", 0, {{"__a", ""}}, ""},
        {EINVAL, "a", "", 0, {{"a", ""}, {"a", "1"}}, ""},
        {EINVAL, "a", "", 0, {{"a", nullptr}}, ""},
        {EINVAL, "a", "", 0, {{"a", "\033[2J"}}, ""},
        {ENAMETOOLONG, "a", "", 0, {}, longText.c_str()},
        {ENAMETOOLONG, "a", "", 0, Labels(17, {"a", ""}), ""},
        {0, "a", "", 0, {{"a", ""}}, ""},
    };
    for (const auto& each : cases) {
        KemdSeries* series = first;
        EXPECT_EQ(Register(&series, each.name, each.unit, each.kind, each.labels, each.help),
                  each.error)
            << each.name;
        EXPECT_EQ(series != nullptr, each.error == 0);
    }
    KemdSeries* series = nullptr;
    EXPECT_EQ(KemdSeriesRegister(&series, nullptr), EINVAL);
    const KemdSeriesDescription old = {8, 0, "b", "", "", nullptr};
    EXPECT_EQ(KemdSeriesRegister(&series, &old), EINVAL);
    EXPECT_EQ(KemdSeriesRegister(nullptr, &old), EINVAL);
    // Nothing happens to what is not there.
    KemdSeriesAdd(series, 1);
    KemdSeriesAddReal(series, 1);
    KemdSeriesSetReal(series, 1);
    KemdSeriesRelease(series);
    KemdSeriesInfo info{};
    EXPECT_EQ(KemdSeriesDescribe(1, &info), EINVAL);
    info.size = sizeof info;
    for (const uint64_t id : {uint64_t{0}, uint64_t{1}, ~uint64_t{0}}) {
        EXPECT_EQ(KemdSeriesDescribe(id, &info), ENOENT);
    }
}

TEST_F(ModuleSeriesTest, AreLimitedInNumber) {
    KemdSeries* series = nullptr;
    int count = 0;
    int error = 0;
    for (; (error = Register(&series, ("n" + std::to_string(count)).c_str())) == 0; ++count) {
    }
    EXPECT_EQ(error, ENOSPC);
    EXPECT_EQ(count, 2047);
    EXPECT_EQ(Shown().size(), 2047U);
}

// The memory that an isolated module shares, written as its process never would.
TEST_F(ModuleSeriesTest, BelievesNothingOfAnIsolatedModule) {
    const UniqueFd file(KemdSeriesShare("apart"));
    ASSERT_TRUE(file.IsOpen());
    EXPECT_NE(ftruncate(file.Get(), 0), 0);  // whoever reads it would die
    auto* const memory = static_cast<unsigned char*>(
        mmap(nullptr, 1 << 20, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0));
    ASSERT_NE(memory, MAP_FAILED);
    const auto write = [&](size_t position, const std::string& bytes) {
        std::copy(bytes.begin(), bytes.end(), memory + position);
    };
    write(0, std::string("\2\0\0\0", 4));                             // end
    write(512, std::string("\5\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0", 16));  // value, serial, kind
    write(640, std::string("good_bytes\0bytes\0help\0target\0there\0", 35));
    const std::string good = "good_bytes{module=\"apart\",target=\"there\"} bytes help";
    EXPECT_EQ(Shown(), (std::map<std::string, int64_t>{{good, 5}}));
    const struct {
        size_t position;
        const char* bytes;
    } lies[] = {{640, "bad name"}, {640, "\033[2J"}, {651, "xxxxx"}, {524, "\7"},
                {662, "module"},   {640, ""},        {657, "\n"},    {669, "\377"}};
    const std::string whole(memory, memory + 1024);
    for (const auto& [position, bytes] : lies) {
        write(position, std::string(bytes, std::max<size_t>(std::strlen(bytes), 1)));
        EXPECT_TRUE(Shown().empty()) << position;
        write(0, whole);
    }
    // No end anywhere, and more series than there can be.
    std::memset(memory, 0xff, 1 << 20);
    EXPECT_TRUE(Shown().empty());
    std::memset(memory + 1024, 'x', (1 << 20) - 1024);
    write(0, whole);
    KemdSeriesMarkDead("apart");
    EXPECT_EQ(Shown(), (std::map<std::string, int64_t>{{"!" + good, 5}}));
    munmap(memory, 1 << 20);
}

TEST_F(ModuleSeriesTest, DoNotGrowWithRestarts) {
    const auto mappings = [] {
        const std::string maps = ReadFile("/proc/self/maps");
        size_t count = 0;
        for (size_t at = 0; (at = maps.find("kemd-series", at)) != maps.npos; ++at) ++count;
        return count;
    };
    for (int i = 0; i < 500; ++i) {
        const UniqueFd file(KemdSeriesShare("apart"));
        ASSERT_TRUE(file.IsOpen());
        KemdSeriesMarkDead("apart");
    }
    EXPECT_EQ(mappings(), 1U);
    KemdSeriesForget("apart");
    EXPECT_EQ(mappings(), 0U);
    EXPECT_EQ(KemdSeriesShare(std::string(64, 'x').c_str()), -EINVAL);
}

}  // namespace
