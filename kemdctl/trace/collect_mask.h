// Makes values that look like secrets unreadable in texts that leave the machine: after NAME=
// where the name has PASS, SECRET, TOKEN, KEY or CREDENTIAL in it, after such an option of a
// command line, and wherever else a value of eight characters or more that was learnt stands.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

class SecretMask {
  public:
    // A text begins: what was left open in the one before is over.
    void Begin();
    // Masks a line, without its line feed, in place: its length stays, so that offsets in trace
    // files do. Values are learnt meanwhile, up to 64 of them, but not from the first record of a
    // text on: what records say may be anything, such as a date. A value that comes later than what
    // repeats it is to be learnt first, by masking a copy.
    void Mask(std::string& line);

    // The lines of a text.
    [[nodiscard]] std::string MaskText(std::string_view text);

    [[nodiscard]] static bool IsSecretName(std::string_view name);

  private:
    void MaskArgument(std::string& line, size_t begin);
    // True: what begins at `begin` is an assignment, whose value goes to the end of the line.
    bool MaskAssignments(std::string& line, size_t begin);
    [[nodiscard]] static size_t FindValueEnd(const std::string& line, size_t name, size_t value,
                                             bool isWhole);
    void MaskOptions(std::string& line, size_t begin);
    void MaskValues(std::string& line, size_t begin) const;
    void Hide(std::string& line, size_t begin, size_t end);
    void Learn(std::string_view value);

    bool m_isInValue = false;  // of several lines
    bool m_isNextArgument = false;
    bool m_learns = true;
    std::vector<std::string> m_values;  // the longest first
};
