// A registry of 10,000 keys on five levels below HKEY_LOCAL_MACHINE, with 10 values each, as plain
// data for what registry_bench compares with: sorted arrays of C strings, one for each level.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct SampleKey {
    std::vector<char*> subkeyNames = {};  // sorted
    std::vector<std::unique_ptr<SampleKey>> subkeys = {};
    std::vector<char*> valueNames = {};  // sorted
    std::vector<char*> values = {};      // text

    // By binary search; null when there is none.
    [[nodiscard]] const SampleKey* Subkey(const char* name) const;
    [[nodiscard]] const char* Value(const char* name) const;
};

struct SampleValue {
    std::string path;        // "a\\b\\c"
    std::string components;  // "a\0b\0c\0"
    std::string name;
    std::string text;
};

struct Sample {
    SampleKey root;                   // HKEY_LOCAL_MACHINE
    std::vector<SampleValue> values;  // in the order of the tree
};

// The names and texts live to the end of the process.
Sample MakeSample();

// The sample as a registry file and as a file of sections.
void WriteRegistryFile(const Sample& sample, const char* path);
void WriteKeyFile(const Sample& sample, const char* path);
