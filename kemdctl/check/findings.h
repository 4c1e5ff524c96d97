// What kemdctl check finds: gathered first, shown at the end.
#pragma once

#include <string>
#include <vector>

class JsonWriter;

enum class Severity { kOk, kWarning, kError };
const char* Name(Severity severity);

struct Finding {
    Severity severity;
    std::string what;    // printable
    std::string action;  // what to do about it, printable; empty: nothing
};

void ShowAsJson(JsonWriter& json, const Finding& finding);

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
    // Tells on standard error what could not be looked at, and why (an errno).
    void CannotLook(const std::string& path, int error);

    [[nodiscard]] const std::vector<Finding>& All() const { return m_all; }
    [[nodiscard]] bool IsClean() const;
    // Whether everything could be looked at.
    [[nodiscard]] bool IsComplete() const { return m_isComplete; }

  private:
    // The same thing may be found on several ways; it is told once.
    void Add(Severity severity, std::string what, std::string action);

    std::vector<Finding> m_all;
    bool m_isComplete = true;
};
