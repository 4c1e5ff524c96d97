#include "tests/trace/trace_world.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>

namespace {

time_t currentSecond = kStart;
std::atomic<void (*)()> onRecord{nullptr};

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
