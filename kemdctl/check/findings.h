// What kemdctl check and status find to be wrong: gathered first, shown at the end.
#pragma once

#include <string>
#include <vector>

class ReportWriter;

enum class Severity { kOk, kWarning, kError };
const char* Name(Severity severity);

struct Finding {
    Severity severity;
    std::string what;    // printable
    std::string action;  // what to do about it, printable; empty: nothing

    // An object of an array. Text for people is the command's.
    void Put(ReportWriter& report) const;
};

class Findings {
  public:
    void Ok(std::string what, std::string action = {}) {
        Add(Severity::kOk, std::move(what), std::move(action));
    }
    void Warning(std::string what, std::string action) {
        Add(Severity::kWarning, std::move(what), std::move(action));
    }
    void Error(std::string what, std::string action) {
        Add(Severity::kError, std::move(what), std::move(action));
    }
    // Reports on standard error what could not be looked at, and why (an errno number).
    void CannotLook(const std::string& path, int error);

    [[nodiscard]] const std::vector<Finding>& All() const { return m_all; }
    // Warnings and errors.
    [[nodiscard]] std::vector<Finding> Problems() const;
    // Whether everything could be looked at.
    [[nodiscard]] bool IsComplete() const { return m_isComplete; }

  private:
    // Several look-ups may find the same; it is kept once.
    void Add(Severity severity, std::string what, std::string action);

    std::vector<Finding> m_all;
    bool m_isComplete = true;
};
