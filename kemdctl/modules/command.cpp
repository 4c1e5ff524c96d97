// kemdctl modules: the modules of the running daemon, and what can be done with them.
#include <algorithm>
#include <array>
#include <iterator>
#include <string>
#include <vector>

#include "kemdctl/commands.h"
#include "kemdctl/facts/daemon_control.h"
#include "kemdctl/modules/settings.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/table.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kHelp =
    R"(usage: kemdctl modules [SUBCOMMAND ...]

  list                 shows the modules of the running kemd and how they are
  show NAME            shows one of them
  start NAME           loads and starts it, then those that wait for it
  stop NAME            stops those that need it, then it; unloads it when that
                       is safe
  restart NAME         stop and start
  reload NAME          has it read its settings again
  request NAME TEXT    asks it for something that only it knows
  enable NAME          it is started with kemd, from the next start on
  disable NAME         it is not started any more; what runs goes on
  config NAME          shows its settings and where each value comes from

  --json   results as JSON

Without SUBCOMMAND: list. NAME is that of the module's file without ".so".
enable, disable and config work without kemd; the others ask it.
Exit status: 0 done, 1 no such module, 2 error, 3 kemd does not run.
)";

constexpr int kReadSeconds = 15;
constexpr int kChangeSeconds = 300;  // a module may take its time

std::string NumberText(const JsonValue& module, std::string_view name) {
    const auto number = module.NumberOf(name);
    return number ? std::to_string(*number) : "-";
}

TableRow RowOf(const JsonValue& module) {
    const std::string health = TextOr(module, "healthText", "");
    return {TextOr(module, "name", "-"),   TextOr(module, "version", "-"),
            TextOr(module, "state", "-"),  SinceText(module),
            NumberText(module, "pid"),     NumberText(module, "threads"),
            TextOr(module, "health", "-"), TextOr(module, "reason", health.c_str())};
}

int List(const CommandLine& /*line*/, ReportWriter& report) {
    const ControlAnswer answer = AskDaemon(ControlRequestText("modules"), kReadSeconds);
    if (const int code = JudgeAnswer(answer); code != kYes) return code;
    StateAnswer(report, {}, answer.result);
    const JsonValue* const modules = answer.result.Find("modules");
    if (modules == nullptr) return kYes;
    std::vector<TableRow> rows = {
        {"name", "version", "state", "since", "process", "threads", "health", ""}};
    std::transform(modules->elements.begin(), modules->elements.end(), std::back_inserter(rows),
                   RowOf);
    ShowTable(report, rows);
    return kYes;
}

int Show(const CommandLine& line, ReportWriter& report) {
    const ControlAnswer answer = AskDaemon(ControlRequestText("show", line.words[0]), kReadSeconds);
    if (const int code = JudgeAnswer(answer); code != kYes) {
        return answer.kind == AnswerKind::kRefused ? kNo : code;
    }
    const JsonValue& module = answer.result;
    StateAnswer(report, {}, module);
    const auto field = [&](const char* label, const std::string& text) {
        if (!text.empty() && text != "-") report.Field(label, text);
    };
    const auto join = [](const JsonValue* list) {
        std::string text;
        if (list == nullptr) return text;
        for (const JsonValue& each : list->elements) {
            text += (text.empty() ? "" : ", ") + Printable(each.text);
        }
        return text;
    };
    const std::string reason = TextOr(module, "reason", "");
    const std::string health = TextOr(module, "healthText", "");
    report.SetColumn(14);
    field("name", TextOr(module, "name", ""));
    field("version", TextOr(module, "version", ""));
    field("description", TextOr(module, "description", ""));
    field("state", TextOr(module, "state", "") + (reason.empty() ? "" : ": " + reason));
    field("since", SinceText(module));
    const bool isOwn = module.Find("isolated") != nullptr && module.NumberOf("pid").has_value();
    field("process", NumberText(module, "pid") + (isOwn ? ", its own" : ""));
    field("threads", NumberText(module, "threads"));
    field("health", TextOr(module, "health", "") + (health.empty() ? "" : ": " + health));
    field("starts after", join(module.Find("startAfter")));
    return kYes;
}

// start, stop, restart and reload.
int Change(const char* request, const CommandLine& line, ReportWriter& report) {
    const ControlAnswer answer =
        AskDaemon(ControlRequestText(request, line.words[0]), kChangeSeconds);
    if (const int code = JudgeAnswer(answer); code != kYes) return code;
    StateAnswer(report, {}, answer.result);
    for (const char* const done : {"stopped", "started"}) {
        const JsonValue* const modules = answer.result.Find(done);
        if (modules == nullptr) continue;
        for (const JsonValue& name : modules->elements) {
            report.Line(Printable(name.text) + " " + done);
        }
    }
    const std::string note = TextOr(answer.result, "note", "");
    if (!note.empty()) report.Line(Printable(line.words[0]) + ": " + note);
    return kYes;
}
int Start(const CommandLine& line, ReportWriter& report) {
    return Change("start", line, report);
}
int Stop(const CommandLine& line, ReportWriter& report) {
    return Change("stop", line, report);
}
int Restart(const CommandLine& line, ReportWriter& report) {
    return Change("restart", line, report);
}
int Reload(const CommandLine& line, ReportWriter& report) {
    return Change("reload", line, report);
}

int Request(const CommandLine& line, ReportWriter& report) {
    const ControlAnswer answer =
        AskDaemon(ControlRequestText("request", line.words[0], line.words[1]), kChangeSeconds);
    if (const int code = JudgeAnswer(answer); code != kYes) return code;
    StateAnswer(report, {}, answer.result);
    std::string_view reply = answer.result.TextOf("reply");
    while (!reply.empty()) {
        const std::string_view first = reply.substr(0, reply.find('\n'));
        reply.remove_prefix(std::min(first.size() + 1, reply.size()));
        report.Line(Printable(first));
    }
    return kYes;
}

int Enable(const CommandLine& line, ReportWriter& report) {
    return EnableModule(line.words[0], true, report);
}
int Disable(const CommandLine& line, ReportWriter& report) {
    return EnableModule(line.words[0], false, report);
}
int Config(const CommandLine& line, ReportWriter& report) {
    return ShowModuleConfig(line.words[0], report);
}

struct Subcommand {
    std::string_view name;
    size_t words;
    int (*run)(const CommandLine& line, ReportWriter& report);
};
constexpr std::array<Subcommand, 10> kSubcommands = {{{"list", 0, List},
                                                      {"show", 1, Show},
                                                      {"start", 1, Start},
                                                      {"stop", 1, Stop},
                                                      {"restart", 1, Restart},
                                                      {"reload", 1, Reload},
                                                      {"request", 2, Request},
                                                      {"enable", 1, Enable},
                                                      {"disable", 1, Disable},
                                                      {"config", 1, Config}}};

int UsageError(const std::string& what) {
    Complain("%s; see kemdctl modules --help", what.c_str());
    return kError;
}

}  // namespace

int RunModules(CommandLine& line, ReportWriter& report) {
    constexpr std::array<std::string_view, 1> kOptions = {"--json"};
    if (line.Has("--help")) {
        report.SetJson(false);
        Write(kHelp);
        return kYes;
    }
    const std::string_view name = line.words.empty() ? "list" : line.TakeCommand();
    const auto* const found =
        std::find_if(kSubcommands.begin(), kSubcommands.end(),
                     [name](const Subcommand& subcommand) { return subcommand.name == name; });
    if (found == kSubcommands.end()) return UsageError("unknown subcommand " + Printable(name));
    const std::string of = " for " + std::string(name);
    if (!line.HasOnly(kOptions)) return UsageError("these options do not fit" + of);
    if (line.words.size() < found->words) return UsageError("too few words" + of);
    if (line.words.size() > found->words) return UsageError("too many words" + of);
    return found->run(line, report);
}
