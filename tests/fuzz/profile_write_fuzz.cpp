// Changes a profile file step by step. A failed change leaves the file, and no change takes away
// another entry. What was set can be read back when all names and values are plain and the file was
// empty at first.
//
// An input: one change on each line, "s|section|key|value", "d|section|key" or "D|section" ("~" is
// a line feed), an empty line, and what the file holds at first.
#include <cctype>
#include <vector>

#include "kemd/profile.h"
#include "tests/fuzz/fuzz.h"

namespace {

struct Step {
    char action;
    std::string section;
    std::string key;
    std::string value;
};

Step DecodeStep(std::string_view line) {
    const bool isKnown = line.front() == 's' || line.front() == 'D';
    const char action = isKnown ? line.front() : 'd';
    TakeField(line, '|');
    const auto take = [&line] {
        std::string field = TakeField(line, '|').c_str();  // up to a NUL, as the functions see it
        std::replace(field.begin(), field.end(), '~', '\n');
        return field;
    };
    return {action, take(), take(), take()};
}

// Whether every file stores and returns the names and the value unchanged.
bool IsPlain(const Step& step) {
    const auto isPlain = [](const std::string& text) {
        return !text.empty() && text.size() <= 900 &&
               std::all_of(text.begin(), text.end(), [](unsigned char c) { return isalnum(c); });
    };
    return isPlain(step.section) && (step.action == 'D' || isPlain(step.key)) &&
           (step.action != 's' || isPlain(step.value));
}

// How many lines end between the first and the last byte that differ.
ptrdiff_t LinesTakenAway(std::string_view before, std::string_view after) {
    const auto front = std::mismatch(before.begin(), before.end(), after.begin(), after.end());
    before.remove_prefix(static_cast<size_t>(front.first - before.begin()));
    after.remove_prefix(static_cast<size_t>(front.second - after.begin()));
    const auto back = std::mismatch(before.rbegin(), before.rend(), after.rbegin(), after.rend());
    return std::count(back.first, before.rend(), '\n');
}

void Apply(const Step& step, const MemoryFile& file) {
    const std::string before = file.Text();
    const char* const keyOrNull = step.action == 'D' ? nullptr : step.key.c_str();
    const char* const valueOrNull = step.action == 's' ? step.value.c_str() : nullptr;
    const bool done =
        WritePrivateProfileString(step.section.c_str(), keyOrNull, valueOrNull, file.Path());
    const std::string after = file.Text();
    Require(done || before == after, "a failed change is in the file");
    Require(done || step.action != 's', "a value cannot be set");
    if (!done || step.action == 'D') return;
    Require(LinesTakenAway(before, after) <= 1, "more than one line is gone");
    const std::string entry = step.key + '=' + step.value + '\n';
    Require(step.action == 'd' || after.find(entry) != after.npos, "no entry was written");
}

void ReadBack(const Step& step, const MemoryFile& file) {
    char text[1024];
    GetPrivateProfileString(step.section.c_str(), step.key.c_str(), "", text, sizeof text,
                            file.Path());
    Require(text == (step.action == 's' ? step.value : ""), "a value is not as it was set");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMaxSteps = 40;
    static const MemoryFile file;
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    std::vector<Step> steps;
    while (steps.size() < kMaxSteps) {
        const std::string line = TakeField(rest, '\n');
        if (line.empty()) break;
        steps.push_back(DecodeStep(line));
    }
    file.Fill(rest);
    bool isPlain = rest.empty();
    for (const Step& step : steps) {
        isPlain = isPlain && IsPlain(step);
        Apply(step, file);
        if (isPlain) ReadBack(step, file);
    }
    return 0;
}
