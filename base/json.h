// JSON: quoting texts, and reading whole documents strictly. Any thread; throws std::bad_alloc.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A text as JSON has it, in quotes. Bytes that are no UTF-8 become U+FFFD; control characters, also
// those above ASCII, are escaped.
void AppendJson(std::string& to, std::string_view text);
std::string JsonQuoted(std::string_view text);

struct JsonMember;

// A value that was read. Members that do not fit its kind are empty.
struct JsonValue {
    enum Kind { kNull, kFlag, kNumber, kText, kArray, kObject };
    Kind kind = kNull;
    bool flag = false;
    std::string text;  // of a text, in UTF-8 without NULs; of a number as it stands there
    std::vector<JsonValue> elements;
    std::vector<JsonMember> members;  // in their order, each name once

    // The member of an object; null when there is none.
    [[nodiscard]] const JsonValue* Find(std::string_view name) const;
    // A whole number; nothing when it is none.
    [[nodiscard]] std::optional<int64_t> Number() const;
    // The member as a text or a number; empty or nothing when there is none of that kind.
    [[nodiscard]] std::string_view TextOf(std::string_view name) const;
    [[nodiscard]] std::optional<int64_t> NumberOf(std::string_view name) const;
};

struct JsonMember {
    std::string name;
    JsonValue value;
};

// One document of at most `depth` arrays and objects within each other, with nothing but blanks
// around it. Nothing, and `fault` says what is wrong at which byte, when it is not exactly that: no
// comments, no trailing commas, no bytes that are not UTF-8, no \u0000, no member twice, and
// at most 256 in an object.
std::optional<JsonValue> ParseJson(std::string_view text, std::string& fault, unsigned depth = 8);
