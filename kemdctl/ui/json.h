// Writes JSON to standard output piece by piece: the caller opens and closes objects and arrays,
// the commas come by themselves. Keeps no stack, so nesting costs nothing.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kemdctl/ui/command.h"

// A text as JSON has it, in quotes. Bytes that are no UTF-8 become U+FFFD; control characters, also
// those above ASCII, are escaped.
void AppendJson(std::string& to, std::string_view text);
std::string JsonQuoted(std::string_view text);

class JsonWriter {
  public:
    // '{' or '['.
    void Open(char bracket) {
        Separate();
        Write({&bracket, 1});
        m_needsComma = false;
    }
    void Close(char bracket) {
        Write({&bracket, 1});
        m_needsComma = true;
    }
    void Key(std::string_view name) {
        Text(name);
        Write(":");
        m_needsComma = false;
    }
    // As JsonQuoted.
    void Text(std::string_view text);
    void Number(int64_t number) {
        Separate();
        Write(std::to_string(number));
    }
    void Flag(bool value) {
        Separate();
        Write(value ? "true" : "false");
    }
    // The line feed behind everything.
    void Finish() { Write("\n"); }

  private:
    void Separate() {
        if (m_needsComma) Write(",");
        m_needsComma = true;
    }

    bool m_needsComma = false;
};
