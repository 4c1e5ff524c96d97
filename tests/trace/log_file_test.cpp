#include "trace/log_file.h"

#include <sys/stat.h>

#include <cerrno>

#include "tests/trace/trace_world.h"

namespace {

class LogFileTest : public TraceTest {
  protected:
    void Start(size_t limit) {
        Configure("MemoryTracesFlag = 0");
        setenv("OV_LOG_FILE_MAX_SIZE", std::to_string(limit).c_str(), 1);
        ASSERT_TRUE(debug.Init("kemd"));
        m_limit = limit;
        model.clear();
        position = startupEnd = cycle = 0;
    }
    // Writes one record, to the model as the file's contract has it.
    void Put(const std::string& text, const std::string& tag) {
        Send(debug, tag.c_str(), "%s", text.c_str());
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
    Start(1745);  // again; a record ends exactly at the limit, which does not pass it
    PutMany(0, 75);
    EXPECT_EQ(3u, cycle);
    debug.InitDone();
    startupEnd = position;
    PutMany(75, 200);
    debug.InitDone();  // a second one changes nothing
    PutMany(200, 300);
    EXPECT_GT(cycle, 10u);
}

TEST_F(LogFileTest, OpenFailureGoesToTheSystemLogOnceAndNothingElseFails) {
    SyslogReader syslog;
    for (const auto& prepare : std::vector<void (*)()>{
             [] { fs::remove_all("/var/log/orvmon"); }, [] { fs::create_directory(kLog); },
             [] { mkfifo(kLog.c_str(), 0600); }, [] { fs::create_symlink("/dev/zero", kLog); }}) {
        TraceTest::SetUp();
        prepare();
        Start(51200);
        debug.Message("lost");
        debug.SetTraceTarget(kTargetLog);
        debug.Trace(0, "lost");
        debug.InitDone();
        EXPECT_EQ("<11> ERROR: Error during opening " + kLog + " --> proceed without it\n",
                  syslog.Next());
        EXPECT_EQ("", syslog.Next());
    }
}

TEST_F(LogFileTest, MayBeALinkToARegularFileWhichAllMayReadOrToTheNullDevice) {
    SyslogReader syslog;
    for (const char* target : {"/tmp/log", "/dev/null"}) {
        TraceTest::SetUp();
        fs::create_symlink(target, kLog);
        const mode_t saved = umask(0);
        Start(51200);
        umask(saved);
        debug.Message("text");
        debug.InitDone();
        EXPECT_EQ("", syslog.Next()) << target;
    }
    EXPECT_EQ(Record("text"), ReadFile("/tmp/log"));
    EXPECT_EQ(0644, static_cast<int>(fs::status("/tmp/log").permissions()));  // all may read it
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(LogFileTest, FailedSeekGoesToTheSystemLogAndTheFileIsRewound) {
    SyslogReader syslog;
    Start(300);
    debug.Message("start-up");
    debug.InitDone();
    const std::string count = std::to_string(Record("start-up").size());
    FailSeeks(EOVERFLOW);
    debug.Message("%s", std::string(300, 'x').c_str());
    FailSeeks(0);
    EXPECT_EQ("<11> ERROR: fseek failed for " + kLog + " (errno=75) --> rewind it\n",
              syslog.Next());
    EXPECT_TRUE(ReadFile(kLog).starts_with(Record("------ WRAP ----- Cycle=1, CntInitEnd=" + count +
                                                  ", CurrentByteCnt=" + count + " (MaxCnt=300)")));
}

}  // namespace
