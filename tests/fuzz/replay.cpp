// replay DIRECTORY - runs a fuzz target's function over every file of its corpus.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/world.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : "")) {
        const std::string input = ReadFile(entry.path());
        std::printf("%s: %zu bytes\n", entry.path().filename().c_str(), input.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
        ++files;
    }
    return files > 0 ? 0 : 1;
}
