// Makes values that look like secrets unreadable in texts that leave the machine: behind NAME=
// where the name has PASS, SECRET, TOKEN, KEY or CREDENTIAL in it, behind such an option of a
// command line, and wherever else a value of eight characters or more that was found so stands.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <string_view>

class SecretMask {
  public:
    // A text begins: what was left open in the one before is over.
    void Begin();
    // Masks a line, without its line feed, in place: its length stays, so that offsets in trace
    // files do. Values are learnt meanwhile: for those that come later in texts than others that
    // repeat them, everything is to be masked twice.
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
    void Hide(std::string& line, size_t begin, size_t end);

    bool m_isInValue = false;  // of several lines
    bool m_isNextArgument = false;
    std::set<std::string> m_values;
};
