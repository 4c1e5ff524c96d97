// What a command found, described once and rendered as text for people or as one JSON document. A
// command states its values, which the JSON shows, and beside them the lines that people read; it
// never asks which of the two is wanted. Everything goes to standard output as it comes, so a
// result may be of any length.
//
// main owns the report and finishes it: it completes the document of a command that stopped in the
// middle, and adds the complaints of a command that failed.
#pragma once

#include <concepts>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kemdctl/ui/command.h"

class ReportWriter {
  public:
    explicit ReportWriter(bool asJson) : m_asJson(asJson) {}
    ReportWriter(const ReportWriter&) = delete;
    ReportWriter& operator=(const ReportWriter&) = delete;
    ~ReportWriter() = default;

    // For a command that has another option for JSON; before the first value.
    void SetJson(bool asJson) { m_asJson = asJson; }
    // The command writes JSON of its own, an object a line: an error adds one more.
    void SetStream() { m_isStream = true; }

    // Values, for the JSON alone. The key is empty in an array, and for the document itself, which
    // is an object or an array. A number that is not there is left out.
    void Text(std::string_view key, std::string_view text);
    void Flag(std::string_view key, bool value) { Put(key, value ? "true" : "false"); }
    void Null(std::string_view key) { Put(key, "null"); }
    template <std::integral Integer>
    void Number(std::string_view key, Integer number) {
        if (m_asJson) Put(key, std::to_string(number));
    }
    template <std::integral Integer>
    void Number(std::string_view key, const std::optional<Integer>& number) {
        if (number) Number(key, *number);
    }
    // Those of an object that is JSON already.
    void Members(std::string_view object);
    // Null for what is no number.
    void Real(std::string_view key, double number);
    // `fill` states the members.
    template <typename Fill>
    void Object(std::string_view key, Fill fill) {
        OpenObject(key);
        fill();
        Close();
    }
    // An array; `show` states one element.
    template <typename Elements, typename Show>
    void List(std::string_view key, const Elements& elements, Show show) {
        OpenArray(key);
        for (const auto& element : elements) show(element);
        Close();
    }
    // For a result whose nesting is not that of the code. Close ends the innermost.
    void OpenObject(std::string_view key = {}) { Open(key, '{'); }
    void OpenArray(std::string_view key = {}) { Open(key, '['); }
    void Close();

    // For people alone: a line, printable, without its line feed. A function that returns the text
    // is called only when it is shown.
    void Line(std::string_view text);
    template <std::invocable Make>
    void Line(Make make) {
        if (!m_asJson) Line(std::string_view(make()));
    }
    // Lines that take work to make: `show` writes them, when they are shown.
    template <std::invocable Show>
    void ForPeople(Show show) {
        if (!m_asJson) show();
    }
    // A line "label:  text"; the texts form a column.
    void Field(std::string_view label, std::string_view text);
    void SetColumn(size_t column) { m_column = column; }

    // The end, whatever has happened: the document is completed. After a failure it carries the
    // complaints, as the member "error" of the object, or of one more object of the array; a
    // command that stated nothing has {"error": ...} as its document.
    void Finish(int exitCode);

  private:
    void Put(std::string_view key, std::string_view json);
    void Begin(std::string_view key);
    void Open(std::string_view key, char bracket);

    bool m_asJson;
    bool m_isStream = false;
    bool m_needsComma = false;
    bool m_hasError = false;  // stated by the command
    size_t m_column = 0;
    std::string m_open;   // the closing brackets; the document's own waits for Finish
    std::string m_value;  // one value, so that it is written whole or not at all
};
