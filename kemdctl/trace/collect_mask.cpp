#include "kemdctl/trace/collect_mask.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "base/text.h"
#include "trace/texts.h"
#include "trace_reader/record.h"

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
    constexpr std::string_view kTrailer = TrimEnd(trace_text::kTrailer);
    return line == kTrailer || line.find_first_not_of('.') == line.npos;
}

bool IsQuote(char c) {
    return c == '"' || c == '\'';
}

std::string_view Unquoted(std::string_view text) {
    while (!text.empty() && IsQuote(text.front())) text.remove_prefix(1);
    while (!text.empty() && IsQuote(text.back())) text.remove_suffix(1);
    return text;
}

// The first of these characters that no backslash stands before; the size when there is none.
size_t FindBare(std::string_view line, size_t from, std::string_view characters) {
    for (size_t at = from; at < line.size(); ++at) {
        if (line[at] == '\\') {
            ++at;
        } else if (characters.find(line[at]) != characters.npos) {
            return at;
        }
    }
    return line.size();
}

// "argv[1] = ...", as headers have it.
bool IsArgument(std::string_view text) {
    return text.starts_with("argv[") && text.size() > 5 && text[5] >= '0' && text[5] <= '9';
}

// --name, in whatever quotes.
bool IsSecretOption(std::string_view word) {
    word = Unquoted(word);
    return word.starts_with('-') && word.find('=') == word.npos && SecretMask::IsSecretName(word);
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
    m_learns = true;
}

void SecretMask::Hide(std::string& line, size_t begin, size_t end) {
    if (begin >= end || line.compare(begin, end - begin, "NotSet") == 0) return;
    if (m_learns) Learn(Unquoted(std::string_view(line).substr(begin, end - begin)));
    line.replace(begin, end - begin, end - begin, '*');
}

// Longest first: masking a part of a value would leave the rest of it readable.
void SecretMask::Learn(std::string_view value) {
    constexpr size_t kShortest = 8, kMostValues = 64;
    const bool isHidden = value.find_first_not_of('*') == value.npos;
    const bool isKnown = std::find(m_values.begin(), m_values.end(), value) != m_values.end();
    if (isHidden || isKnown || value.size() < kShortest || m_values.size() >= kMostValues) return;
    const auto place =
        std::find_if(m_values.begin(), m_values.end(),
                     [value](const std::string& each) { return each.size() < value.size(); });
    m_values.emplace(place, value);
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
    const char quote = IsQuote(before) ? before : IsQuote(first) ? first : '\0';
    if (quote == '\0') return FindBare(line, value, " \t");
    // A quote within the value is followed by more of it.
    size_t at = FindBare(line, IsQuote(before) ? value : value + 1, {&quote, 1});
    while (at + 1 < line.size() && line[at + 1] != ' ') at = FindBare(line, at + 1, {&quote, 1});
    return at;
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

// --name VALUE, as command lines have it that were packed into one line.
void SecretMask::MaskOptions(std::string& line, size_t begin) {
    bool isValue = false;
    for (size_t at = begin; (at = line.find_first_not_of(" \t", at)) != line.npos;) {
        size_t end = FindBare(line, at, " \t");
        if (isValue && IsQuote(line[at])) end = FindValueEnd(line, 0, at, false);
        const bool isEnd = line.compare(at, end - at, ";") == 0;
        const bool isOption = IsSecretOption(std::string_view(line).substr(at, end - at));
        if (isValue && !isEnd) Hide(line, at, end);
        isValue = isOption;
        at = end;
    }
}

// What was learnt, in all but the prefix of a record: time and thread are what it is found by.
void SecretMask::MaskValues(std::string& line, size_t begin) const {
    for (const std::string& value : m_values) {
        char* at = line.data() + begin;
        const char* const end = line.data() + line.size();
        const auto find = [&] {
            return memmem(at, static_cast<size_t>(end - at), value.data(), value.size());
        };
        while ((at = static_cast<char*>(find())) != nullptr) {
            at = std::fill_n(at, value.size(), '*');
        }
    }
}

void SecretMask::Mask(std::string& line) {
    const size_t text = FindText(line);
    const bool hasPrefix = text != line.npos;
    const size_t begin = hasPrefix ? text : std::min(line.find_first_not_of(' '), line.size());
    if (hasPrefix) m_isInValue = m_learns = false;
    if (m_isInValue && IsLayout(line)) m_isInValue = false;
    if (m_isInValue) {
        Hide(line, 0, line.size());
    } else if (IsArgument(std::string_view(line).substr(begin))) {
        MaskArgument(line, begin);
    } else {
        MaskOptions(line, begin);
        m_isInValue = MaskAssignments(line, begin) && hasPrefix;
    }
    MaskValues(line, hasPrefix ? text : 0);
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
