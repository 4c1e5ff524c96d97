// Reads arbitrary bytes as a profile file: the answer fits its buffer, ends in it and comes from
// the file or the default.
//
// An input: a digit for the size of the buffer, a digit for the question, the section, a line feed,
// the key, a line feed, the file.
#include <vector>

#include "kemd/profile.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const MemoryFile file;
    constexpr uint32_t kSizes[] = {0, 1, 2, 3, 4, 5, 16, 64, 1024, 4096};
    if (size < 2) return 0;
    std::string_view rest(reinterpret_cast<const char*>(data) + 2, size - 2);
    const uint32_t bufferSize = kSizes[static_cast<uint8_t>(data[0] - '0') % std::size(kSizes)];
    const std::string section = TakeField(rest, '\n');
    const std::string key = TakeField(rest, '\n');
    // 0: a value, 1: without a default, 2: the keys, 3: the sections
    const int question = static_cast<uint8_t>(data[1] - '0') % 4;
    file.Fill(rest);

    // Of exactly the size, for the sanitizers.
    std::vector<char> actual(bufferSize, '~');
    const uint32_t length = GetPrivateProfileString(
        question == 3 ? nullptr : section.c_str(), question >= 2 ? nullptr : key.c_str(),
        question == 1 ? nullptr : "by default", actual.data(), bufferSize, file.Path());
    Require(length == 0 || length < bufferSize, "longer than its buffer");
    Require(bufferSize == 0 || actual[length] == '\0', "no end");
    const std::string_view text(actual.data(), length);
    const bool isDefault = std::string_view("by default").starts_with(text);
    for (std::string_view names = text; !names.empty();) {
        const std::string name = TakeField(names, '\0');
        Require(isDefault || rest.find(name) != rest.npos, "a text that is not in the file");
    }
    return 0;
}
