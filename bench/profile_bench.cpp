// The cost of reading a value of the last section of a profile file with 1,000 sections of 10 keys,
// compared with two well-known readers of such files and with the least possible cost (the floor:
// read the whole file into a reused buffer and find the end of each line).
#include <fcntl.h>
#include <glib.h>
#include <ini.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/measure.h"
#include "kemd/profile.h"

namespace {

constexpr const char* kFile = "/tmp/profile.ini";
constexpr const char* kSection = "Adapter 0999";
constexpr const char* kKey = "FirmwareVersion";
constexpr const char* kValue = "4.10.999";

void WriteSample() {
    FILE* const file = std::fopen(kFile, "we");
    if (file == nullptr) abort();
    for (int i = 0; i < 1000; ++i) {
        std::fprintf(file,
                     "[Adapter %04d]\n"
                     "DisplayName = Storage adapter in slot %d\nVendorId = 0x10%02x\n"
                     "DeviceId = 0x%04x\nSerialNumber = SN-%08d\nPollInterval = %d\n"
                     "RetryCount = 3\nTemperatureLimit = %d\nEventMask = 0x0000%04x\n"
                     "FirmwareVersion = 4.10.%d\nLastScan = 2026-11-%02d 04:%02d:00\n\n",
                     i, i % 16, i % 256, i, i * 7919, 30 + i % 90, 60 + i % 20, i * 31, i,
                     1 + i % 28, i % 60);
    }
    if (std::fclose(file) != 0) abort();
}

void Check(const char* value) {
    if (value == nullptr || std::strcmp(value, kValue) != 0) abort();
}

void ReadFloor(int) {
    static std::string text;
    const int fd = open(kFile, O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0) abort();
    const auto size = static_cast<size_t>(status.st_size);
    if (text.size() < size) text.resize(size);
    if (read(fd, text.data(), size) != status.st_size) abort();
    close(fd);
    int lines = 0;
    const char* const end = text.data() + size;
    for (const char* line = text.data(); line < end; ++lines) {
        const auto* feed =
            static_cast<const char*>(std::memchr(line, '\n', static_cast<size_t>(end - line)));
        line = feed == nullptr ? end : feed + 1;
    }
    if (lines != 12'000) abort();
}

void ReadProfile(int) {
    char value[64];
    GetPrivateProfileString(kSection, kKey, "", value, sizeof value, kFile);
    Check(value);
}

int TakeEntry(void* user, const char* section, const char* key, const char* value) {
    if (std::strcmp(section, kSection) == 0 && std::strcmp(key, kKey) == 0) {
        *static_cast<std::string*>(user) = value;
    }
    return 1;
}

void ReadInih(int) {
    std::string value;
    if (ini_parse(kFile, TakeEntry, &value) != 0) abort();
    Check(value.c_str());
}

void ReadGKeyFile(int) {
    GKeyFile* const file = g_key_file_new();
    if (!g_key_file_load_from_file(file, kFile, G_KEY_FILE_NONE, nullptr)) abort();
    gchar* const value = g_key_file_get_string(file, kSection, kKey, nullptr);
    Check(value);
    g_free(value);
    g_key_file_free(file);
}

}  // namespace

int main() {
    WriteSample();
    std::vector<Contender> contenders = {
        Make("floor: open, fstat, read, close, memchr", ReadFloor),
        Make("GetPrivateProfileString", ReadProfile),
        Make("inih, ini_parse", ReadInih),
        Make("GKeyFile, load and get_string", ReadGKeyFile),
    };
    MeasureRounds(contenders, 51, 10);
    Report("one value of a profile file", contenders);
    std::printf("  inih takes %.1f x, GKeyFile %.1f x of GetPrivateProfileString\n",
                Ratio(contenders[2], contenders[1]), Ratio(contenders[3], contenders[1]));
    return 0;
}
