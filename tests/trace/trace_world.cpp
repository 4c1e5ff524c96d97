#include "tests/trace/trace_world.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace {

const std::string kConfigDirectory = "/etc/norvik/OrvanaSuite/TraceConfig/";
time_t currentSecond = kStart;
int seekError = 0;
std::atomic<void (*)()> onRecord{nullptr};

// "NAME=NotSet" or the value that was set, for each name.
void PutVariables(Lines& lines, const Texts& set, const std::string& names) {
    std::istringstream stream(names);
    for (std::string name; stream >> name;) {
        lines.push_back(name + "=" + (set.contains(name) ? set.at(name) : "NotSet"));
    }
}

// "label : value" for each "label=value", or the value that was set.
void PutValues(Lines& lines, const Texts& set, const std::string& values) {
    std::istringstream stream(values);
    for (std::string line; std::getline(stream, line, ',');) {
        const size_t equals = line.find('=');
        const std::string label = line.substr(0, equals), usual = line.substr(equals + 1);
        lines.push_back(label + std::string(27 - label.size(), ' ') + ": " +
                        (set.contains(label) ? set.at(label) : usual));
    }
}

}  // namespace

// The program's own definitions take the place of the C library's.
extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    if (const auto call = onRecord.exchange(nullptr)) call();
    *now = {currentSecond, 123'456};
    return 0;
}
extern "C" time_t time(time_t* now) noexcept {
    if (now != nullptr) *now = currentSecond;
    return currentSecond;
}
extern "C" off_t lseek(int fd, off_t offset, int whence) noexcept {
    if (seekError == 0 || offset == 0) return syscall(SYS_lseek, fd, offset, whence);
    errno = seekError;
    return -1;
}
void FailSeeks(int error) {
    seekError = error;
}
void SetClock(time_t second) {
    currentSecond = second;
}
void OnNextRecord(void (*call)()) {
    onRecord = call;
}

std::string Prefix(const std::string& tag) {
    std::array<char, 300> text{};
    tm local{};
    const size_t length =
        strftime(text.data(), 30, "%F %H:%M:%S", gmtime_r(&currentSecond, &local));
    snprintf(text.data() + length, text.size() - length, ".123 [%08X] %-13s ",
             static_cast<unsigned>(pthread_self()), tag.c_str());
    return text.data();
}
std::string Record(const std::string& text, const std::string& tag) {
    return Prefix(tag) + text + "\n";
}
std::string Records(const Lines& texts) {
    std::string records;
    for (const std::string& text : texts) records += Record(text);
    return records;
}

std::string Difference(const std::string& expected, const std::string& found) {
    if (expected == found) return {};
    const auto [a, b] = std::mismatch(expected.begin(), expected.end(), found.begin(), found.end());
    const auto at = static_cast<size_t>(a - expected.begin());
    return "at " + std::to_string(at) + " of " + std::to_string(expected.size()) + " and " +
           std::to_string(found.size()) + " bytes\nexpected: " + expected.substr(at, 200) +
           "\nfound:    " + found.substr(at, 200);
}

int DescriptorOf(const std::string& path) {
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (fs::read_symlink(entry, error) == path) return std::stoi(entry.path().filename());
    }
    return -1;
}

void SetOrUnset(const char* variable, const char* value) {
    (void)(value != nullptr ? setenv(variable, value, 1) : unsetenv(variable));
}

void Send(CDebug& debug, const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    debug.MessageV(format, args, tag);
    va_end(args);
}

Lines HeaderTexts(const Texts& set, const Texts& asRead, const Texts& inForce) {
    Lines lines = {"Orvana Environment:"};
    PutVariables(
        lines, set,
        "LD_LIBRARY_PATH OV_SYSTEM OV_OS OV_OS_MAJOR OV_OS_MINOR OV_VVOS OV_RELEASE OV_VENDOR "
        "OV_HOSTNAME OV_HOSTOSREVMAJOR OV_HOSTOSREVMINOR OV_SYSNAME OV_VERSION OV_NICKNAME "
        "OV_HWPLATFORM OV_RUNNINGONVM OV_RUNNINGONPAN OV_VMREL OV_ARCH OV_REPO OV_RAID_EXISTS "
        "OV_RAID_READY OV_RAID_VERSION OV_INSTALL_DATE OV_USE_SG_IO_HDR_T OV_AGENT_X_SOCKET "
        "OV_KEMD_REPLY_TIME OV_DAEMON_COREFILE_LIMIT OV_VME_WAIT_TIME_FOR_VMSERVER "
        "OV_SCS_PROVIDER_TRACE OV_SCS_NOSIGNAL OV_LOG_DYNAMIC_UPDATE OV_SCS_DEBUG_LEVEL "
        "OV_LOG_FILE_DIR OV_LOG_FILE_MAX_SIZE OV_LOG_RINGBUF_DIR OV_LOG_DEBUG_LEVEL "
        "OV_LOG_RINGBUF_WEIGHT OV_LOG_NOHDR_TOSDTERR KXA_OV_HOME KXA_SYSLOG_FIFO "
        "OV_LOG_RINGBUF_WEIGHT_KEMD");
    lines.emplace_back("Orvana Configuration File:");
    PutVariables(
        lines, set,
        "AgentPermission AgentShut ShutdownDelay UserGroup ScanTapeDevices TraceFileLimit "
        "NoAccountCheck InventoryRescan CDPollInterval AgentsToBeStarted WaitForKemdSockets "
        "WaitForKemdTerm InvAgtPollNetUtilization");
    lines.emplace_back("Debug values from ini file :");
    PutValues(lines, asRead,
              "DynamicUpdate=-1,DebugLevel=5,RingBufferSizeFactor=1,RingBufferSizeWeight=1,"
              "RingBufferDirectory=,No Header to LogFile=-1");
    lines.emplace_back("Internal Debug values      :");
    PutValues(lines, inForce,
              "Process PID=1,Trace Target=2,Trace Level=5,Trace Level Saved=5,"
              "Application Init Done=0,LogFile Path=/var/log/orvmon/log.kemd,"
              "LogFile Max Size=51200,Ring Buffer FD=,Ring Buffer Factor=1,Ring Buffer Weight=1,"
              "Ring Buffer Size=1048576,Ring Buffer Directory=/var/log/orvmon,"
              "Ring Buffer Path=/var/log/orvmon/log.kemd_a,No Header to LogFile=1");
    lines.emplace_back("# End of header.");
    return lines;
}

void TraceTest::SetUp() {
    clearenv();
    setenv("PATH", "/usr/bin", 1);
    setenv("TZ", "UTC", 1);
    SetClock(kStart);
    fs::remove_all(kConfigDirectory);
    fs::remove_all("/var/log/orvmon");
    fs::create_directories("/var/log/orvmon");
}

void TraceTest::WriteConfig(const std::string& name, const std::string& text, time_t modified) {
    WriteFile(kConfigDirectory + name, text);
    const std::array<timespec, 2> times = {{{modified, 0}, {modified, 0}}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, (kConfigDirectory + name).c_str(), times.data(), 0));
}
void TraceTest::Configure(const std::string& keys, time_t modified) {
    WriteConfig("kemd.ini", "[kemd]\n" + keys + "\n[EndOfFile]\n", modified);
}
bool TraceTest::StartRing(CDebug& object) {
    Configure(
        "FileDebugLevel=5\nRingBufferSizeFactor=1\nRingBufferSizeWeight=1\nMemoryTracesFlag=0");
    return object.Init("kemd");
}

SyslogReader::SyslogReader() : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {AF_UNIX, "/dev/log"};
    unlink(address.sun_path);
    EXPECT_EQ(0, bind(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
}
std::string SyslogReader::Next() {
    std::string text(4096, '\0');  // "<11>Nov 15 20:04:51 trace_test: text"
    const ssize_t length = recv(m_socket.Get(), text.data(), text.size(), MSG_DONTWAIT);
    text.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
    return text.empty() ? "" : text.erase(text.find('>') + 1, text.find(": ") - text.find('>'));
}
