#include "base/json.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <utility>

#include "base/utf8.h"

static bool IsPlain(char c) {
    return c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
}

void AppendJson(std::string& to, std::string_view text) {
    to += '"';
    while (!text.empty()) {
        size_t plain = 0;
        while (plain < text.size() && IsPlain(text[plain])) ++plain;
        to.append(text.data(), plain);
        text.remove_prefix(plain);
        if (text.empty()) break;
        const size_t length = Utf8Length(text);
        const uint32_t codePoint = length == 0 ? 0xfffd : CodePoint(text.substr(0, length));
        if (length == 0) {
            to += "\xef\xbf\xbd";
        } else if (IsControl(codePoint)) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", codePoint & 0xffffU);
            to += code;
        } else {
            if (length == 1 && (text[0] == '"' || text[0] == '\\')) to += '\\';
            to += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    to += '"';
}

std::string JsonQuoted(std::string_view text) {
    std::string quoted;
    AppendJson(quoted, text);
    return quoted;
}

const JsonValue* JsonValue::Find(std::string_view name) const {
    const auto found =
        std::find_if(members.begin(), members.end(),
                     [name](const JsonMember& member) { return member.name == name; });
    return found != members.end() ? &found->value : nullptr;
}

std::string_view JsonValue::TextOf(std::string_view name) const {
    const JsonValue* const value = Find(name);
    return value != nullptr && value->kind == kText ? std::string_view(value->text) : "";
}

std::optional<int64_t> JsonValue::NumberOf(std::string_view name) const {
    const JsonValue* const value = Find(name);
    return value != nullptr ? value->Number() : std::nullopt;
}

std::optional<int64_t> JsonValue::Number() const {
    if (kind != kNumber) return std::nullopt;
    const char* const end = text.data() + text.size();
    int64_t number = 0;
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

namespace {

constexpr size_t kMostMembers = 256;  // looking for one that is there twice takes its time

// Each Take returns false with a fault, where the reading stands.
class JsonReader {
  public:
    explicit JsonReader(std::string_view text) : m_text(text) {}

    bool TakeDocument(JsonValue& value, unsigned depth) {
        if (!TakeValue(value, depth)) return false;
        SkipBlanks();
        return m_position == m_text.size() || Fail("something follows the document");
    }
    [[nodiscard]] std::string Fault() const {
        return std::string(m_fault) + " at byte " + std::to_string(m_position + 1);
    }

  private:
    bool Fail(const char* fault) {
        m_fault = fault;
        return false;
    }
    [[nodiscard]] char Next() const {
        return m_position < m_text.size() ? m_text[m_position] : '\0';
    }
    bool Skip(char c) {
        if (Next() != c || m_position == m_text.size()) return false;
        ++m_position;
        return true;
    }
    void SkipBlanks() {
        m_position = std::min(m_text.find_first_not_of(" \t\r\n", m_position), m_text.size());
    }
    size_t SkipDigits() {
        const size_t begin = m_position;
        while (Next() >= '0' && Next() <= '9') ++m_position;
        return m_position - begin;
    }

    bool TakeValue(JsonValue& value, unsigned depth);
    bool TakeArray(JsonValue& value, unsigned depth);
    bool TakeObject(JsonValue& value, unsigned depth);
    bool TakeWord(JsonValue& value);
    bool TakeNumber(JsonValue& value);
    bool TakeText(std::string& text);
    bool TakeEscape(std::string& text);
    bool TakeCodeUnit(uint32_t& unit);

    std::string_view m_text;
    size_t m_position = 0;
    const char* m_fault = "";
};

bool JsonReader::TakeValue(JsonValue& value, unsigned depth) {
    SkipBlanks();
    const char next = Next();
    if ((next == '{' || next == '[') && depth == 0) return Fail("too deep");
    if (next == '{') return TakeObject(value, depth - 1);
    if (next == '[') return TakeArray(value, depth - 1);
    if (next == '"') {
        value.kind = JsonValue::kText;
        return TakeText(value.text);
    }
    return next == '-' || (next >= '0' && next <= '9') ? TakeNumber(value) : TakeWord(value);
}

bool JsonReader::TakeArray(JsonValue& value, unsigned depth) {
    value.kind = JsonValue::kArray;
    Skip('[');
    SkipBlanks();
    if (Skip(']')) return true;
    do {
        if (!TakeValue(value.elements.emplace_back(), depth)) return false;
        SkipBlanks();
    } while (Skip(','));
    return Skip(']') || Fail("\",\" or \"]\" is missing");
}

bool JsonReader::TakeObject(JsonValue& value, unsigned depth) {
    value.kind = JsonValue::kObject;
    Skip('{');
    SkipBlanks();
    if (Skip('}')) return true;
    do {
        SkipBlanks();
        std::string name;
        if (Next() != '"') return Fail("a member's name is missing");
        if (!TakeText(name)) return false;
        if (value.members.size() == kMostMembers) return Fail("too many members");
        if (value.Find(name) != nullptr) return Fail("a member is there twice");
        SkipBlanks();
        if (!Skip(':')) return Fail("\":\" is missing");
        value.members.push_back({std::move(name), {}});
        if (!TakeValue(value.members.back().value, depth)) return false;
        SkipBlanks();
    } while (Skip(','));
    return Skip('}') || Fail("\",\" or \"}\" is missing");
}

bool JsonReader::TakeWord(JsonValue& value) {
    const std::string_view rest = m_text.substr(m_position);
    for (const std::string_view word : {"null", "true", "false"}) {
        if (!rest.starts_with(word)) continue;
        m_position += word.size();
        value.kind = word == "null" ? JsonValue::kNull : JsonValue::kFlag;
        value.flag = word == "true";
        return true;
    }
    return Fail("a value is missing");
}

bool JsonReader::TakeNumber(JsonValue& value) {
    value.kind = JsonValue::kNumber;
    const size_t begin = m_position;
    Skip('-');
    const bool isWhole = Skip('0') || SkipDigits() > 0;
    bool isSound = isWhole;
    if (Skip('.')) isSound = isSound && SkipDigits() > 0;
    if (Skip('e') || Skip('E')) {
        if (!Skip('-')) Skip('+');
        isSound = isSound && SkipDigits() > 0;
    }
    value.text = m_text.substr(begin, m_position - begin);
    return isSound || Fail("the number is not sound");
}

bool JsonReader::TakeText(std::string& text) {
    Skip('"');
    while (!Skip('"')) {
        const std::string_view rest = m_text.substr(m_position);
        const size_t length = Utf8Length(rest);
        if (length == 0) return Fail(rest.empty() ? "a text does not end" : "not UTF-8");
        if (static_cast<unsigned char>(rest[0]) < 0x20) return Fail("a control character");
        if (rest[0] == '\\') {
            if (!TakeEscape(text)) return false;
            continue;
        }
        text += rest.substr(0, length);
        m_position += length;
    }
    return true;
}

void AppendUtf8(std::string& text, uint32_t code) {
    const auto tail = [code](unsigned shift) {
        return static_cast<char>(0x80U | ((code >> shift) & 0x3fU));
    };
    if (code < 0x80) {
        text += static_cast<char>(code);
    } else if (code < 0x800) {
        text += {static_cast<char>(0xc0U | (code >> 6U)), tail(0)};
    } else if (code < 0x10000) {
        text += {static_cast<char>(0xe0U | (code >> 12U)), tail(6), tail(0)};
    } else {
        text += {static_cast<char>(0xf0U | (code >> 18U)), tail(12), tail(6), tail(0)};
    }
}

bool JsonReader::TakeEscape(std::string& text) {
    constexpr std::string_view kEscapes = "\"\\/bfnrt";
    constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    Skip('\\');
    if (const size_t escape = kEscapes.find(Next()); escape != kEscapes.npos) {
        ++m_position;
        text += kMeanings[escape];
        return true;
    }
    uint32_t code = 0;
    if (!TakeCodeUnit(code)) return false;
    if (code == 0) return Fail("a NUL in a text");
    if (code >= 0xd800 && code < 0xdc00) {
        uint32_t low = 0;
        if (!Skip('\\') || !TakeCodeUnit(low) || low < 0xdc00 || low > 0xdfff) {
            return Fail("half of a character");
        }
        code = 0x10000 + ((code - 0xd800) << 10U) + (low - 0xdc00);
    } else if (code >= 0xdc00 && code <= 0xdfff) {
        return Fail("half of a character");
    }
    AppendUtf8(text, code);
    return true;
}

// What follows the backslash of "\u0041".
bool JsonReader::TakeCodeUnit(uint32_t& unit) {
    if (!Skip('u')) return Fail("an unknown escape");
    const char* const begin = m_text.data() + m_position;
    const char* const end = begin + std::min<size_t>(4, m_text.size() - m_position);
    const auto [rest, error] = std::from_chars(begin, end, unit, 16);
    if (error != std::errc() || rest != begin + 4) return Fail("four digits are missing");
    m_position += 4;
    return true;
}

}  // namespace

std::optional<JsonValue> ParseJson(std::string_view text, std::string& fault, unsigned depth) {
    JsonReader reader(text);
    std::optional<JsonValue> value(std::in_place);
    if (reader.TakeDocument(*value, depth)) return value;
    fault = reader.Fault();
    return std::nullopt;
}
