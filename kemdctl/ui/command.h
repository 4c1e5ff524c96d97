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

// The command line, parted: options may stand anywhere, "--" ends them.
struct CommandLine {
    struct Option {
        std::string_view name;
        const char* value;  // behind a "="; null: none there
        size_t position;    // how many words stand before it
        bool isTaken;       // by TakeValue
        bool mayRepeat;     // by TakeValues
    };
    std::vector<const char*> words;
    std::vector<Option> options;

    CommandLine(int argc, char** argv);
    [[nodiscard]] bool Has(std::string_view option) const;
    // The value of an option, "--name=value" or "--name value", whose word is taken out; null when
    // there is neither.
    const char* TakeValue(std::string_view option);
    // The same for an option that may be repeated: a value for each time, null where there is none.
    std::vector<const char*> TakeValues(std::string_view option);
    // Whether all options are among these, each at most once unless it may repeat, and with a value
    // only if that was taken; complains when not.
    [[nodiscard]] bool HasOnly(std::span<const std::string_view> known) const;
    // Whether no word is left; complains of the first one.
    [[nodiscard]] bool HasNoWords() const;
    // The first word, which is taken out; empty when there is none.
    std::string_view TakeCommand();

  private:
    const char* TakeValue(Option& option);
};

// Writes "kemdctl: ", the text and a line feed to standard error. Names and data that come from
// elsewhere go through Printable first.
void Complain(const char* format, ...) __attribute__((format(printf, 1, 2)));
// What was complained of so far, without notes, as one line.
std::string_view Complaints();

// Results, on standard output. After a failure nothing more is written; FinishOutput then
// complains, unless nobody reads, and returns false.
void Write(std::string_view text);
// What was written goes out.
void FlushOutput();
bool HasWriteFailed();
bool FinishOutput();
// To be called first: results never end up in a file that was opened in the place of a standard
// descriptor, and a reader that goes away ends nothing.
void PrepareStreams();
