// What all commands of kemdctl share: exit codes, the command line, messages and results.
#pragma once

#include <span>
#include <string_view>
#include <vector>

enum ExitCode : int {
    kYes = 0,    // or done
    kNo = 1,     // not there, or findings
    kError = 2,  // usage, files, permissions
    kNotRunning = 3,
};

// The command line, split: options may be anywhere, "--" ends them.
struct CommandLine {
    struct Option {
        std::string_view name;
        const char* value;  // after a "="; null: there is none
        size_t position;    // number of words before it
        bool isTaken;       // by TakeValue
        bool mayRepeat;     // by TakeValues
    };
    std::vector<const char*> words;
    std::vector<Option> options;

    CommandLine(int argc, char** argv);
    [[nodiscard]] bool Has(std::string_view option) const;
    // The value of an option, "--name=value" or "--name value"; that word is removed. Null when
    // there is neither.
    const char* TakeValue(std::string_view option);
    // The same for an option that may be repeated: a value for each time, or null.
    std::vector<const char*> TakeValues(std::string_view option);
    // Whether all options are among these, each once unless it may repeat, and with a value only if
    // that was taken; complains if not.
    [[nodiscard]] bool HasOnly(std::span<const std::string_view> known) const;
    // Whether no word is left; complains about the first one.
    [[nodiscard]] bool HasNoWords() const;
    // Removes and returns the first word; empty when there is none.
    std::string_view TakeCommand();

  private:
    const char* TakeValue(Option& option);
};

// Writes "kemdctl: ", the text and a line feed to standard error. Names and data that come from
// elsewhere go through Printable first.
void Complain(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The complaints so far, without notes, as one line.
std::string_view Complaints();

// Results, on standard output. After a failure nothing more is written; FinishOutput then
// complains, unless the reader has gone, and returns false.
void Write(std::string_view text);
// Sends out what was written so far.
void FlushOutput();
bool HasWriteFailed();
// Whether standard output is a terminal that shows colors, and NO_COLOR does not refuse them.
bool TerminalHasColor();
// Its width in characters; 0 when it is no terminal.
size_t TerminalWidth();
bool FinishOutput();
// Call this first: no file opened later takes the number of a closed standard descriptor, and a
// reader that goes away does not kill the process.
void PrepareStreams();
