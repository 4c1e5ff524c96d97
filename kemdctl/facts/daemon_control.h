// Asks the running daemon over its control socket; see docs/control-interface.md.
#pragma once

#include <string>
#include <string_view>

#include "base/json.h"

class ReportWriter;

enum class AnswerKind {
    kAnswered,
    kRefused,      // by the daemon, which says why
    kUnreachable,  // the daemon runs without the socket
    kUnavailable,  // it does not answer
    kForbidden,    // to this user
    kNotRunning,
};

struct ControlAnswer {
    AnswerKind kind = AnswerKind::kUnavailable;
    JsonValue result;     // kAnswered
    std::string problem;  // otherwise, printable
};

// {"request":NAME,"module":...,"text":...}; null: not among them.
std::string ControlRequestText(std::string_view name, const char* module = nullptr,
                               const char* text = nullptr);

// Waits for the answer, at most so long; a module may take its time.
ControlAnswer AskDaemon(const std::string& request, int timeoutSeconds);

// The exit code for an answer; complains of one that is none.
int JudgeAnswer(const ControlAnswer& answer);

// For JSON: as it came.
void StateAnswer(ReportWriter& report, std::string_view key, const JsonValue& value);
// Of a module object: the local time of its state; the printable text of a member.
std::string SinceText(const JsonValue& module);
std::string TextOr(const JsonValue& module, std::string_view name, const char* otherwise);
