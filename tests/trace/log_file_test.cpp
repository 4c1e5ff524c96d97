#include "trace/log_file.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "kemd/trace.h"
#include "tests/trace/trace_world.h"

namespace {

class LogFileTest : public TraceTest {
  protected:
    void Start(size_t limit) {
        Configure("MemoryTracesFlag = 0");
        setenv("OV_LOG_FILE_MAX_SIZE", std::to_string(limit).c_str(), 1);
        ASSERT_TRUE(Debug.Init("kemd"));
        m_limit = limit;
        model.clear();
        position = startupEnd = cycle = 0;
    }
    // Writes one record to the log, and to the model what the log must then hold.
    void Put(const std::string& text, const std::string& tag) {
        KemdMessage(tag.c_str(), "%s", text.c_str());
        Write(Record(text, tag));
        if (position <= m_limit) return;
        position = startupEnd;
        const std::string count = std::to_string(startupEnd);
        Write(Record("------ WRAP ----- Cycle=" + std::to_string(++cycle) +
                         ", CntInitEnd=" + count + ", CurrentByteCnt=" + count +
                         " (MaxCnt=" + std::to_string(m_limit) + ")",
                     tag));
    }
    void PutMany(int first, int last) {
        for (int i = first; i < last; ++i) {
            SetClock(kStart + i);
            Put(std::to_string(i) + std::string(static_cast<size_t>(i % 40), '-'),
                i % 2 == 0 ? "even" : "odd");
        }
        EXPECT_EQ("", Difference(model, ReadFile(kLog)));
    }
    std::string model;
    size_t position = 0, startupEnd = 0, cycle = 0;

  private:
    void Write(const std::string& record) {
        model.replace(position, record.size(), record);
        position += record.size();
    }
    size_t m_limit = 0;
};

TEST_F(LogFileTest, WrapsToItsStartDuringStartupAndAfterTheStartupPartLater) {
    Start(1745);
    PutMany(0, 5);
    Start(1745);  // again; one record ends exactly at the limit, which is not past it
    PutMany(0, 75);
    EXPECT_EQ(3u, cycle);
    Debug.InitDone();
    startupEnd = position;
    PutMany(75, 200);
    Debug.InitDone();  // a second one changes nothing
    PutMany(200, 300);
    EXPECT_GT(cycle, 10u);
}

TEST_F(LogFileTest, IsARegularFileThatAllMayReadOrTheNullDeviceOrIsReportedOnce) {
    const UniqueFd syslog(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    ASSERT_EQ(0, bind(syslog.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    const std::pair<void (*)(), bool> rows[] = {
        {[] { fs::create_symlink("/tmp/log", kLog); }, true},
        {[] { fs::create_symlink("/dev/null", kLog); }, true},
        {[] { mkfifo(kLog.c_str(), 0600); }, false},
        {[] { fs::remove_all("/var/log/orvmon"); }, false}};
    for (const auto& [prepare, opens] : rows) {
        TraceTest::SetUp();
        prepare();
        const mode_t saved = umask(0);
        Start(51200);
        umask(saved);
        Debug.Message("text");
        Debug.InitDone();
        std::array<char, 300> text{};
        EXPECT_EQ(opens, recv(syslog.Get(), text.data(), text.size() - 1, MSG_DONTWAIT) < 0);
        EXPECT_EQ(!opens, Contains(text.data(), ": ERROR: Error during opening " + kLog +
                                                    " --> proceed without it\n"));
        EXPECT_EQ(-1, recv(syslog.Get(), text.data(), text.size(), MSG_DONTWAIT));  // once
    }
    EXPECT_EQ(Record("text"), ReadFile("/tmp/log"));
    EXPECT_EQ(0644, static_cast<int>(fs::status("/tmp/log").permissions()));
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

}  // namespace
