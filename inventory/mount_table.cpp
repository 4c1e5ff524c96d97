#include "inventory/mount_table.h"

#include <sys/stat.h>

#include <charconv>

#include "base/text.h"

namespace {

// The next word of the line; empty at its end.
std::string_view TakeWord(std::string_view& line) {
    line = TrimStart(line, " \t");
    const std::string_view word = line.substr(0, line.find_first_of(" \t"));
    line.remove_prefix(word.size());
    return word;
}

bool IsOctal(std::string_view digits) {
    return digits.size() == 3 && digits[0] <= '3' &&
           digits.find_first_not_of("01234567") == digits.npos;
}

// "\040" is a blank: the kernel writes blanks, line feeds, backslashes and '#' so.
std::string Unescaped(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const bool isEscape = text[0] == '\\' && IsOctal(text.substr(1, 3));
        result +=
            isEscape
                ? static_cast<char>((text[1] - '0') * 64 + (text[2] - '0') * 8 + (text[3] - '0'))
                : text[0];
        text.remove_prefix(isEscape ? 4 : 1);
    }
    return result;
}

template <typename Number>
bool TakeNumber(std::string_view text, Number& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

bool TakeDevice(std::string_view text, MountEntry& entry) {
    const size_t colon = text.find(':');
    return colon != text.npos && TakeNumber(text.substr(0, colon), entry.major) &&
           TakeNumber(text.substr(colon + 1), entry.minor);
}

// Without "rw" and "ro", which both lists have: only what is writable in both is.
void AppendOptions(std::string& to, std::string_view options, bool& isReadOnly) {
    while (!options.empty()) {
        const std::string_view option = options.substr(0, options.find(','));
        options.remove_prefix(std::min(option.size() + 1, options.size()));
        isReadOnly = isReadOnly || option == "ro";
        if (!option.empty() && option != "rw" && option != "ro") to.append(",").append(option);
    }
}

std::string MergedOptions(std::string_view ofMount, std::string_view ofFilesystem) {
    std::string options;
    bool isReadOnly = false;
    AppendOptions(options, ofMount, isReadOnly);
    AppendOptions(options, ofFilesystem, isReadOnly);
    return (isReadOnly ? "ro" : "rw") + options;
}

bool ParseMount(std::string_view line, MountEntry& entry) {
    if (!TakeNumber(TakeWord(line), entry.id)) return false;
    (void)TakeWord(line);  // the parent's number
    if (!TakeDevice(TakeWord(line), entry)) return false;
    entry.root = Unescaped(TakeWord(line));
    entry.target = Unescaped(TakeWord(line));
    const std::string_view options = TakeWord(line);
    // Optional words up to a dash.
    std::string_view word = TakeWord(line);
    while (!word.empty() && word != "-") word = TakeWord(line);
    if (word.empty()) return false;
    entry.type = Unescaped(TakeWord(line));
    // An empty source is an empty word between two blanks.
    const bool hasSource = !line.starts_with("  ");
    if (hasSource) entry.source = Unescaped(TakeWord(line));
    entry.options = Unescaped(MergedOptions(options, TakeWord(line)));
    return !entry.target.empty() && !entry.type.empty();
}

bool ParseSwap(std::string_view line, SwapEntry& entry) {
    constexpr uint64_t kKilobyte = 1024;
    entry.path = Unescaped(TakeWord(line));
    entry.isFile = TakeWord(line) == "file";
    if (!TakeNumber(TakeWord(line), entry.size) || !TakeNumber(TakeWord(line), entry.used)) {
        return false;
    }
    entry.size *= kKilobyte;
    entry.used *= kKilobyte;
    entry.priority = TakeWord(line);
    return true;
}

template <typename Entry, typename Parse>
std::vector<Entry> ParseLines(std::string_view text, Parse parse) {
    std::vector<Entry> entries;
    while (!text.empty()) {
        Entry entry;
        if (parse(TakeLine(text), entry)) entries.push_back(std::move(entry));
    }
    return entries;
}

}  // namespace

std::string HostMountsProcess() {
    struct stat own {};
    struct stat first {};
    const bool isKnown =
        stat("/proc/self/ns/mnt", &own) == 0 && stat("/proc/1/ns/mnt", &first) == 0;
    return isKnown && own.st_ino != first.st_ino ? "/proc/1" : "/proc/self";
}

std::string HostPath(const std::string& path) {
    return HostMountsProcess() == "/proc/1" ? "/proc/1/root" + path : path;
}

std::vector<MountEntry> ParseMounts(std::string_view text) {
    return ParseLines<MountEntry>(text, ParseMount);
}

std::vector<SwapEntry> ParseSwaps(std::string_view text) {
    return ParseLines<SwapEntry>(text, ParseSwap);
}
