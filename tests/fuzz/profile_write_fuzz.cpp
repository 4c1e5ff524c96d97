// Changes a profile file step by step.
//
// An input: a digit, then one change on each line, "s|section|key|value", "d|section|key" or
// "D|section", an empty line, and what the file holds at first. "*" and one more byte in front of a
// value repeat it.
//
// With an even digit the file is empty at first, and what names and values cannot hold is taken out
// of them: every value can then be read back after every change. With an odd digit all bytes go
// ("~" is a line feed), and only what holds for every file is required.
#include <cctype>
#include <map>
#include <utility>
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

std::string Repeat(const std::string& text) {
    constexpr size_t kLongest = 900;
    if (text.size() < 2 || text.front() != '*') return text;
    std::string repeated;
    for (int i = 0; i < text[1] && repeated.size() < kLongest; ++i) repeated += text.substr(2);
    return repeated.substr(0, kLongest);
}

Step DecodeStep(std::string_view line) {
    const bool isKnown = line.front() == 's' || line.front() == 'D';
    Step step{isKnown ? line.front() : 'd', {}, {}, {}};
    TakeField(line, '|');
    step.section = TakeField(line, '|').c_str();  // up to a NUL, as the functions see it
    step.key = TakeField(line, '|').c_str();
    step.value = Repeat(TakeField(line, '|')).c_str();
    return step;
}

std::string Without(const std::string& text, std::string_view unwanted) {
    std::string kept;
    for (const char c : text) {
        if (unwanted.find(c) == unwanted.npos) kept += c;
    }
    return kept;
}

bool IsSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::string Trim(std::string text) {
    while (!text.empty() && IsSpace(text.back())) text.pop_back();
    while (!text.empty() && (IsSpace(text.front()) || text.front() == '[')) text.erase(0, 1);
    return text;
}

// Takes out what does not survive a file: ends of headers, keys and lines, comments, outer white
// space, values that are empty.
Step Storable(const Step& step) {
    Step storable = step;
    storable.section = Without(step.section, "];").substr(0, 900);
    storable.key = Trim(Without(step.key, "=;").substr(0, 100));
    storable.value = Trim(Without(step.value, ";").substr(0, 900));
    if (storable.value.empty()) storable.value = "0";
    return storable;
}

using Model = std::map<std::string, std::map<std::string, std::string>>;

// Whether the step succeeds, and what is there afterwards.
bool ApplyToModel(Model& model, const Step& step) {
    if (step.action == 's') {
        model[step.section][step.key] = step.value;
        return true;
    }
    if (step.action == 'D') return model.erase(step.section) == 1;
    const auto section = model.find(step.section);
    return section != model.end() && section->second.erase(step.key) == 1;
}

void CheckAll(const Model& model, const MemoryFile& file) {
    for (const auto& [section, entries] : model) {
        for (const auto& [key, value] : entries) {
            char text[1024];
            GetPrivateProfileString(section.c_str(), key.c_str(), "", text, sizeof text,
                                    file.Path());
            Require(value == text, "a value is not as it was set");
        }
    }
}

void RunStorable(const std::vector<Step>& steps, const MemoryFile& file) {
    file.Fill("");
    Model model;
    for (const Step& step : steps) {
        const Step storable = Storable(step);
        const bool done = ApplyToModel(model, storable);
        Require(storable.Apply(file) == done, "another result");
        char text[1024];
        const uint32_t length =
            GetPrivateProfileString(storable.section.c_str(), storable.key.c_str(), nullptr, text,
                                    sizeof text, file.Path());
        Require(step.action == 's' || length == 0, "a deleted value is still there");
        CheckAll(model, file);
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
        Require(done || before == after, "a change failed and is there all the same");
        Require(done || step.action != 's', "a value cannot be set");
        if (!done || step.action == 'D') continue;
        Require(LinesTakenAway(before, after) <= 1, "more than one line has gone");
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
        RunStorable(steps, file);
    } else {
        RunAnyBytes(steps, rest, file);
    }
    return 0;
}
