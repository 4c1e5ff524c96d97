// Changes a profile file step by step.
//
// An input: a digit, then one change on each line, "s|section|key|value", "d|section|key" or
// "D|section", an empty line, and what the file holds at first.
//
// With an even digit the file is empty at first, and steps count only when their names and values
// are plain: what was set can be read back. With an odd digit all bytes go ("~" is a line feed),
// and only what holds for every file is required.
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

    [[nodiscard]] bool Apply(const MemoryFile& file) const {
        const char* const keyOrNull = action == 'D' ? nullptr : key.c_str();
        const char* const valueOrNull = action == 's' ? value.c_str() : nullptr;
        return WritePrivateProfileString(section.c_str(), keyOrNull, valueOrNull, file.Path());
    }
};

Step DecodeStep(std::string_view line) {
    const bool isKnown = line.front() == 's' || line.front() == 'D';
    Step step{isKnown ? line.front() : 'd', {}, {}, {}};
    TakeField(line, '|');
    step.section = TakeField(line, '|').c_str();  // up to a NUL, as the functions see it
    step.key = TakeField(line, '|').c_str();
    step.value = TakeField(line, '|').c_str();
    return step;
}

// Whether every file stores and returns the names and the value unchanged.
bool IsPlain(const Step& step) {
    const auto isPlain = [](const std::string& text) {
        return !text.empty() && text.size() <= 900 &&
               std::all_of(text.begin(), text.end(), [](unsigned char c) { return isalnum(c); });
    };
    return isPlain(step.section) && isPlain(step.key) &&
           (step.action != 's' || isPlain(step.value));
}

void RunPlain(const std::vector<Step>& steps, const MemoryFile& file) {
    file.Fill("");
    for (const Step& step : steps) {
        if (!IsPlain(step)) continue;
        const bool done = step.Apply(file);
        char text[1024];
        GetPrivateProfileString(step.section.c_str(), step.key.c_str(), "", text, sizeof text,
                                file.Path());
        Require(done || step.action != 's', "a value cannot be set");
        Require(step.value == text || step.action != 's', "a value is not as it was set");
        Require(*text == '\0' || step.action == 's', "a deleted value is still there");
    }
}

std::string WithLineFeeds(std::string text) {
    std::replace(text.begin(), text.end(), '~', '\n');
    return text;
}

// How many lines end between the first and the last byte that differ.
ptrdiff_t LinesTakenAway(std::string_view before, std::string_view after) {
    const auto front = std::mismatch(before.begin(), before.end(), after.begin(), after.end());
    before.remove_prefix(static_cast<size_t>(front.first - before.begin()));
    after.remove_prefix(static_cast<size_t>(front.second - after.begin()));
    const auto back = std::mismatch(before.rbegin(), before.rend(), after.rbegin(), after.rend());
    return std::count(back.first, before.rend(), '\n');
}

void RunAnyBytes(const std::vector<Step>& steps, std::string_view content, const MemoryFile& file) {
    file.Fill(content);
    for (Step step : steps) {
        step.section = WithLineFeeds(step.section);
        step.key = WithLineFeeds(step.key);
        step.value = WithLineFeeds(step.value);
        const std::string before = file.Text();
        const bool done = step.Apply(file);
        const std::string after = file.Text();
        Require(done || before == after, "a failed change is in the file");
        Require(done || step.action != 's', "a value cannot be set");
        if (!done || step.action == 'D') continue;
        Require(LinesTakenAway(before, after) <= 1, "more than one line is gone");
        const std::string entry = step.key + '=' + step.value + '\n';
        Require(step.action == 'd' || after.find(entry) != after.npos, "no entry was written");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMaxSteps = 40;
    static const MemoryFile file;
    if (size == 0) return 0;
    std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::vector<Step> steps;
    while (steps.size() < kMaxSteps) {
        const std::string line = TakeField(rest, '\n');
        if (line.empty()) break;
        steps.push_back(DecodeStep(line));
    }
    if (data[0] % 2 == 0) {
        RunPlain(steps, file);
    } else {
        RunAnyBytes(steps, rest, file);
    }
    return 0;
}
