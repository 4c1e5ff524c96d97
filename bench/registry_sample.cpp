#include "bench/registry_sample.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>

namespace {

constexpr size_t kKeys = 10'000;
constexpr size_t kValues = 10;
constexpr size_t kFanOut[] = {5, 5, 7, 7, 7};  // 10,005 keys, of which the last 5 are left out
constexpr const char* kNouns[] = {"Fan",  "Power", "Drive", "Agent", "Adapter", "Sensor",
                                  "Rack", "Event", "Mail",  "Port",  "Volume",  "Backup"};
constexpr const char* kWords[] = {"State", "Limit", "Count", "Path", "Mode", "Speed", "Owner"};

class SampleMaker {
  public:
    explicit SampleMaker(Sample& sample) : m_sample(sample) {}

    void Fill(SampleKey& key, const std::string& path, size_t level) {
        if (level > 0) AddValues(key, path);
        if (level == std::size(kFanOut)) return;
        for (const std::string& name : Names(kFanOut[level], 10)) {
            if (m_keys++ >= kKeys) return;
            key.subkeyNames.push_back(strdup(name.c_str()));
            key.subkeys.push_back(std::make_unique<SampleKey>());
            std::string below = path;
            below.append(path.empty() ? "" : "\\").append(name);
            Fill(*key.subkeys.back(), below, level + 1);
        }
    }

  private:
    // Sorted, all different, 8 to 14 characters: "DriveLimit17". The number is one of 40: a value
    // must not have the name of a subkey.
    std::set<std::string> Names(size_t count, size_t firstNumber) {
        std::set<std::string> names;
        while (names.size() < count) {
            const std::string name = std::string(kNouns[m_random() % std::size(kNouns)]) +
                                     kWords[m_random() % std::size(kWords)] +
                                     std::to_string(m_random() % 40 + firstNumber);
            if (name.size() >= 8 && name.size() <= 14) names.insert(name);
        }
        return names;
    }

    void AddValues(SampleKey& key, const std::string& path) {
        std::string components = path + '\\';
        std::replace(components.begin(), components.end(), '\\', '\0');
        for (const std::string& name : Names(kValues, 50)) {
            const std::string text =
                "/var/opt/" + std::to_string(m_random() % 9'000'000 + 1'000'000);
            key.valueNames.push_back(strdup(name.c_str()));
            key.values.push_back(strdup(text.c_str()));
            m_sample.values.push_back({path, components, name, text});
        }
    }

    Sample& m_sample;
    std::mt19937 m_random{1};
    size_t m_keys = 0;
};

size_t Find(const std::vector<char*>& names, const char* name) {
    const auto found =
        std::lower_bound(names.begin(), names.end(), name,
                         [](const char* a, const char* b) { return std::strcmp(a, b) < 0; });
    if (found == names.end() || std::strcmp(*found, name) != 0) return names.size();
    return static_cast<size_t>(found - names.begin());
}

void WriteKey(FILE* file, const SampleKey& key) {
    for (size_t i = 0; i < key.values.size(); ++i) {
        std::fprintf(file, "%s=s=%s\n", key.valueNames[i], key.values[i]);
    }
    for (size_t i = 0; i < key.subkeys.size(); ++i) {
        std::fprintf(file, "[%s]\n", key.subkeyNames[i]);
        WriteKey(file, *key.subkeys[i]);
    }
    std::fputs("\n", file);
}

FILE* Create(const char* path) {
    FILE* const file = std::fopen(path, "we");
    if (file == nullptr) abort();
    return file;
}

void Close(FILE* file) {
    if (std::fclose(file) != 0) abort();
}

}  // namespace

const SampleKey* SampleKey::Subkey(const char* name) const {
    const size_t index = Find(subkeyNames, name);
    return index < subkeys.size() ? subkeys[index].get() : nullptr;
}

const char* SampleKey::Value(const char* name) const {
    const size_t index = Find(valueNames, name);
    return index < values.size() ? values[index] : nullptr;
}

Sample MakeSample() {
    Sample sample;
    SampleMaker(sample).Fill(sample.root, "", 0);
    return sample;
}

void WriteRegistryFile(const Sample& sample, const char* path) {
    FILE* const file = Create(path);
    std::fputs("[HKEY_LOCAL_MACHINE]\n", file);
    WriteKey(file, sample.root);
    std::fputs("\n", file);
    Close(file);
}

void WriteKeyFile(const Sample& sample, const char* path) {
    FILE* const file = Create(path);
    const std::string* group = nullptr;
    for (const SampleValue& value : sample.values) {
        if (group == nullptr || *group != value.path) {
            std::fprintf(file, "[%s]\n", value.path.c_str());
        }
        group = &value.path;
        std::fprintf(file, "%s=%s\n", value.name.c_str(), value.text.c_str());
    }
    Close(file);
}
