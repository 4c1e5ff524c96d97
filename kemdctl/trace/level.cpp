// kemdctl trace level: the trace level in force of the running daemon.
#include <array>
#include <charconv>
#include <string>
#include <string_view>

#include "kemdctl/facts/daemon_control.h"
#include "kemdctl/trace/reports.h"
#include "kemdctl/trace/time_word.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

int ShowOrSetLevel(CommandLine& line, ReportWriter& report) {
    constexpr std::array<std::string_view, 2> kOptions = {"--json", "--for"};
    constexpr int kSeconds = 15;
    const bool isTimed = line.Has("--for");
    const char* const span = line.TakeValue("--for");
    if (!line.HasOnly(kOptions)) return kError;
    const std::string_view word = line.words.size() == 2 ? line.words[1] : "";
    const bool isLevel = word.size() == 1 && word[0] >= '0' && word[0] <= '6';
    if (line.words.size() > 2 || (isTimed && word.empty()) || (!word.empty() && !isLevel)) {
        Complain("kemdctl trace level takes a level from 0 to 6, and then perhaps --for TIME");
        return kError;
    }
    const int64_t milliseconds = span != nullptr ? ParseSpan(span).value_or(0) : 0;
    if (isTimed && milliseconds < 1000) {
        Complain("--for takes a time from 1s on, such as 10m or 2h");
        return kError;
    }
    std::string request = "{\"request\":\"trace-level\"";
    if (isLevel) request += ",\"level\":" + std::string(word);
    if (isTimed) request += ",\"seconds\":" + std::to_string(milliseconds / 1000);
    const ControlAnswer answer = AskDaemon(request + "}\n", kSeconds);
    if (const int code = JudgeAnswer(answer); code != kYes) return code;
    StateAnswer(report, {}, answer.result);
    const std::string level = std::to_string(answer.result.NumberOf("level").value_or(0));
    const auto left = answer.result.NumberOf("seconds");
    const auto before = answer.result.NumberOf("then");
    report.Line(level + (left && before ? " for " + std::to_string(*left) + " s, then " +
                                              std::to_string(*before)
                                        : ""));
    return kYes;
}
