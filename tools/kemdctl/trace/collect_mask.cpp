#include "tools/kemdctl/trace/collect_mask.h"

#include <algorithm>
#include <cctype>

#include "tools/trace_reader/prefix.h"

namespace {

bool IsNamePart(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' || c == '.';
}

// Where the text of a record begins; npos when the line has no prefix.
size_t FindText(const std::string& line) {
    PrefixParser parser;
    if (!parser.ParseHead(line.data(), line.size()).isThere) return line.npos;
    TraceRecord record;
    record.line = line;
    parser.ParseRest(record);
    return line.size() - record.text.size();
}

// What a ring is found by must stay.
bool IsLayout(const std::string& line) {
    return line == "## TRACE-END ##" || line.find_first_not_of('.') == line.npos;
}

}  // namespace

bool SecretMask::IsSecretName(std::string_view name) {
    std::string upper(name);
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    constexpr std::string_view kWords[] = {"PASS", "SECRET", "TOKEN", "KEY", "CREDENTIAL"};
    return std::any_of(std::begin(kWords), std::end(kWords),
                       [&upper](std::string_view word) { return upper.find(word) != upper.npos; });
}

void SecretMask::Begin() {
    m_isInValue = m_isNextArgument = false;
}

void SecretMask::Hide(std::string& line, size_t begin, size_t end) {
    constexpr size_t kShortest = 8, kMostValues = 1000;
    if (begin >= end || line.compare(begin, end - begin, "NotSet") == 0) return;
    const std::string value = line.substr(begin, end - begin);
    const bool isHidden = value.find_first_not_of('*') == value.npos;
    if (!isHidden && value.size() >= kShortest && m_values.size() < kMostValues) {
        m_values.insert(value);
    }
    line.replace(begin, end - begin, end - begin, '*');
}

// argv[1] = "--name=value" or "--name", and then the value is the next one.
void SecretMask::MaskArgument(std::string& line, size_t begin) {
    const size_t open = line.find('"', begin), close = line.rfind('"');
    if (open == line.npos || open >= close) return;
    const std::string_view argument = std::string_view(line).substr(open + 1, close - open - 1);
    const size_t equals = argument.find('=');
    const bool isSecret = IsSecretName(argument.substr(0, equals));
    const bool isOption = argument.starts_with('-') && equals == argument.npos;
    if (m_isNextArgument) {
        Hide(line, open + 1, close);
    } else if (isSecret && equals != argument.npos) {
        Hide(line, open + 1 + equals + 1, close);
    }
    m_isNextArgument = isSecret && isOption;
}

size_t SecretMask::FindValueEnd(const std::string& line, size_t name, size_t value, bool isWhole) {
    if (isWhole) return line.size();
    const char before = name > 0 ? line[name - 1] : ' ';
    const char first = value < line.size() ? line[value] : ' ';
    const auto isQuote = [](char c) { return c == '"' || c == '\''; };
    const char quote = isQuote(before) ? before : isQuote(first) ? first : '\0';
    if (quote == '\0') return std::min(line.find_first_of(" \t", value), line.size());
    // A quote within the value is followed by more of it.
    for (size_t at = line.find(quote, value + 1); at != line.npos; at = line.find(quote, at + 1)) {
        if (at + 1 == line.size() || line[at + 1] == ' ') return at;
    }
    return line.size();
}

bool SecretMask::MaskAssignments(std::string& line, size_t begin) {
    for (size_t at = line.find('=', begin); at != line.npos; at = line.find('=', at + 1)) {
        size_t name = at;
        while (name > begin && IsNamePart(line[name - 1])) --name;
        if (!IsSecretName(std::string_view(line).substr(name, at - name))) continue;
        const bool isWhole = name == begin;
        const size_t end = FindValueEnd(line, name, at + 1, isWhole);
        Hide(line, at + 1, end);
        if (isWhole) return true;
        at = std::max(at, end - 1);
    }
    return false;
}

void SecretMask::Mask(std::string& line) {
    const size_t text = FindText(line);
    const bool hasPrefix = text != line.npos;
    const size_t begin = hasPrefix ? text : std::min(line.find_first_not_of(' '), line.size());
    if (hasPrefix) m_isInValue = false;
    if (m_isInValue && IsLayout(line)) m_isInValue = false;
    if (m_isInValue) {
        Hide(line, 0, line.size());
    } else if (std::string_view(line).substr(begin).starts_with("argv[")) {
        MaskArgument(line, begin);
    } else {
        m_isInValue = MaskAssignments(line, begin) && hasPrefix;
    }
    for (const std::string& value : m_values) {
        for (size_t at = line.find(value); at != line.npos; at = line.find(value, at)) {
            line.replace(at, value.size(), value.size(), '*');
        }
    }
}

std::string SecretMask::MaskText(std::string_view text) {
    Begin();
    std::string masked;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        std::string line(text.substr(at, end - at));
        Mask(line);
        masked += line;
        if (end < text.size()) masked += '\n';
        at = end + 1;
    }
    return masked;
}
