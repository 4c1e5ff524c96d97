// What the registry costs with 100,000 values in 10,000 keys on five levels: loading, looking one
// value up, saving, inserting into one large key, and the memory of the loaded tree.
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "bench/measure.h"
#include "bench/registry_sample.h"
#include "kemd/process_status.h"
#include "kemd/registry.h"

namespace {

constexpr const char* kDirectory = "/etc/orvmon";
constexpr const char* kRegistryFile = "/etc/orvmon/registry";
constexpr const char* kKeyFile = "/tmp/keyfile";

void CompareLoad() {
    std::vector<Contender> contenders = {
        Make("SetupTree, ends the tree before", [](int) { CRegistry::SetupTree(true); }),
        Make("g_key_file_load_from_file, free",
             [](int) {
                 GKeyFile* const file = g_key_file_new();
                 if (!g_key_file_load_from_file(file, kKeyFile, G_KEY_FILE_NONE, nullptr)) abort();
                 g_key_file_free(file);
             }),
    };
    MeasureRounds(contenders, 15, 1);
    Report("load", contenders);
}

const char* SearchArrays(const SampleKey& root, const SampleValue& value) {
    const SampleKey* key = &root;
    const char* const end = value.components.data() + value.components.size();
    for (const char* name = value.components.data(); name < end; name += std::strlen(name) + 1) {
        key = key->Subkey(name);
        if (key == nullptr) abort();
    }
    return key->Value(value.name.c_str());
}

void CompareLookUp(const Sample& sample) {
    std::vector<const SampleValue*> order;
    for (const SampleValue& value : sample.values) order.push_back(&value);
    std::shuffle(order.begin(), order.end(), std::mt19937{2});
    CRegistry registry;
    std::vector<Contender> contenders = {
        Make("binary searches in sorted arrays",
             [&](int i) {
                 const SampleValue& value = *order[static_cast<size_t>(i) % order.size()];
                 const char* const found = SearchArrays(sample.root, value);
                 if (found == nullptr || found[0] != '/') abort();
             }),
        Make("the same, and a copy of the text",
             [&](int i) {
                 char text[64];
                 const SampleValue& value = *order[static_cast<size_t>(i) % order.size()];
                 const std::string_view found = SearchArrays(sample.root, value);
                 text[found.copy(text, sizeof text - 1)] = '\0';
                 if (value.text != text) abort();
             }),
        Make("Open, QueryValue",
             [&](int i) {
                 char text[64];
                 const SampleValue& value = *order[static_cast<size_t>(i) % order.size()];
                 if (registry.Open(value.path.c_str(), HKEY_LOCAL_MACHINE) != 0 ||
                     registry.QueryValue(text, value.name.c_str(), sizeof text) != 0 ||
                     value.text != text) {
                     abort();
                 }
             }),
    };
    MeasureRounds(contenders, 15, 100'000);
    Report("look-up by path and name", contenders);
}

void Sync(const char* path, int flags) {
    const int fd = open(path, flags | O_CLOEXEC);
    if (fsync(fd) != 0) abort();
    close(fd);
}

void WriteBytes(const std::string& bytes) {
    const int fd = open("/etc/orvmon/bytes.new", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) abort();
    if (fsync(fd) != 0) abort();
    close(fd);
    if (std::rename("/etc/orvmon/bytes.new", "/etc/orvmon/bytes") != 0) abort();
    Sync(kDirectory, O_RDONLY | O_DIRECTORY);
}

void CompareSave() {
    std::ostringstream text;
    text << std::ifstream(kRegistryFile).rdbuf();
    const std::string bytes = text.str();
    CRegistry registry(HKEY_LOCAL_MACHINE);
    std::vector<Contender> contenders = {
        Make("write, fsync, rename, fsync", [&](int) { WriteBytes(bytes); }),
        Make("a change, SaveTree",
             [&](int i) {
                 if (registry.SetValue("Changed", i) != 0 || !CRegistry::SaveTree()) abort();
             }),
    };
    MeasureRounds(contenders, 31, 1);
    Report("save", contenders);
}

void MeasureInserts() {
    std::vector<std::string> names;
    names.reserve(20'000);
    for (int i = 0; i < 20'000; ++i) names.push_back("Counter" + std::to_string(100'000 + i));
    std::shuffle(names.begin(), names.end(), std::mt19937{3});
    std::vector<double> seconds;
    for (int round = 0; round < 5; ++round) {
        CRegistry registry(HKEY_LOCAL_MACHINE);
        registry.CreateKey(nullptr, "Large");
        const auto start = std::chrono::steady_clock::now();
        for (const std::string& name : names) registry.SetValue(name.c_str(), "/var/opt/1234567");
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        seconds.push_back(took.count());
        if (registry.Open("", HKEY_LOCAL_MACHINE) != 0 || registry.DeleteKey("Large") != 0) abort();
    }
    std::printf("20,000 values into one key, random order\n  median %.3f s\n", Median(seconds));
}

uint64_t ResidentBytes() {
    uint64_t bytes = 0;
    ReadProcStatusValue(getpid(), bytes, "VmRSS:", 0);
    return bytes;
}

// Runs in a new process, whose heap is unused.
int MeasureMemory() {
    const uint64_t before = ResidentBytes();
    CRegistry::SetupTree(false);
    const uint64_t growth = ResidentBytes() - before;
    std::printf("memory of the loaded tree\n  %lu bytes, the file has %ju\n", growth,
                std::filesystem::file_size(kRegistryFile));
    return 0;
}

void MeasureMemoryInChild(const char* program) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        execl("/proc/self/exe", program, "memory", nullptr);
        _exit(1);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) abort();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2) return MeasureMemory();
    std::filesystem::create_directories(kDirectory);
    const Sample sample = MakeSample();
    WriteRegistryFile(sample, kRegistryFile);
    WriteKeyFile(sample, kKeyFile);
    std::printf("%zu values, file of %zu bytes\n", sample.values.size(),
                static_cast<size_t>(std::filesystem::file_size(kRegistryFile)));
    MeasureMemoryInChild(argv[0]);
    // Look-ups first: until it is loaded again, the tree is in memory as a fresh start leaves it.
    CompareLookUp(sample);
    CompareSave();
    CompareLoad();
    MeasureInserts();
    return 0;
}
