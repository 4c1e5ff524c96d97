#include "kemdctl/facts/daemon_control.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/file_io.h"
#include "base/paths.h"
#include "kemdctl/facts/daemon_state.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/report.h"
#include "kemdctl/ui/text.h"

namespace {

using Clock = std::chrono::steady_clock;

UniqueFd Connect() {
    UniqueFd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(static_cast<char*>(address.sun_path), kControlSocket);
    if (connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
        0) {
        connection.Reset();
    }
    return connection;
}

// Why there is no connection.
ControlAnswer Explain(int error) {
    if (error == EACCES) {
        return {
            AnswerKind::kForbidden,
            {},
            std::string(kControlSocket) +
                " is for root, and for the group that /etc/kemd/kemd.ini names; run it as root"};
    }
    const DaemonState state = ReadDaemonState();
    if (!state.daemon) return {AnswerKind::kNotRunning, {}, "kemd does not run"};
    return {AnswerKind::kUnreachable,
            {},
            "kemd runs, process " + std::to_string(state.daemon->pid) +
                ", but cannot be asked: " + kControlSocket + ": " + std::strerror(error) +
                "; it still starts, has another switch library, or its trace says why"};
}

// A line, without its line feed; nothing, with errno, when none comes.
bool Receive(int connection, Clock::time_point deadline, std::string& line) {
    constexpr size_t kMostBytes = size_t{16} << 20;
    std::array<char, 16384> bytes{};
    while (line.size() < kMostBytes) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd polled{connection, POLLIN, 0};
        errno = ETIMEDOUT;
        const int ready = poll(&polled, 1, std::max(0, static_cast<int>(left.count())));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        const ssize_t count = recv(connection, bytes.data(), bytes.size(), 0);
        if (count == 0) errno = ECONNRESET;
        if (count <= 0) return false;
        line.append(bytes.data(), static_cast<size_t>(count));
        if (line.back() != '\n') continue;
        line.pop_back();
        return true;
    }
    errno = EMSGSIZE;
    return false;
}

ControlAnswer Unavailable(const std::string& problem) {
    return {AnswerKind::kUnavailable, {}, problem};
}

}  // namespace

std::string ControlRequestText(std::string_view name, const char* module, const char* text) {
    std::string request = "{\"request\":" + JsonQuoted(name);
    if (module != nullptr) request += ",\"module\":" + JsonQuoted(module);
    if (text != nullptr) request += ",\"text\":" + JsonQuoted(text);
    return request + "}\n";
}

ControlAnswer AskDaemon(const std::string& request, int timeoutSeconds) {
    const UniqueFd connection = Connect();
    if (!connection.IsOpen()) return Explain(errno);
    // One that is refused before it was read has an answer all the same.
    const bool isSent = send(connection.Get(), request.data(), request.size(), MSG_NOSIGNAL) ==
                        static_cast<ssize_t>(request.size());
    const int sendError = errno;
    std::string line;
    const auto deadline = Clock::now() + std::chrono::seconds(timeoutSeconds);
    if (!Receive(connection.Get(), deadline, line)) {
        const int error = isSent ? errno : sendError;
        if (error == ETIMEDOUT) {
            return Unavailable("no answer within " + std::to_string(timeoutSeconds) +
                               " s; kemdctl modules names a module that hangs");
        }
        return Unavailable(std::string("kemd has ended the connection: ") + std::strerror(error));
    }
    std::string fault;
    auto answer = ParseJson(line, fault);
    if (!answer) return Unavailable("the answer is no JSON: " + fault);
    if (const JsonValue* const result = answer->Find("result")) {
        return {AnswerKind::kAnswered, *result, {}};
    }
    return {AnswerKind::kRefused, {}, Printable(answer->TextOf("error"))};
}

int JudgeAnswer(const ControlAnswer& answer) {
    if (answer.kind == AnswerKind::kAnswered) return kYes;
    Complain("%s", answer.problem.c_str());
    return answer.kind == AnswerKind::kNotRunning ? kNotRunning : kError;
}

void StateAnswer(ReportWriter& report, std::string_view key, const JsonValue& value) {
    switch (value.kind) {
        case JsonValue::kNull:
            return report.Null(key);
        case JsonValue::kFlag:
            return report.Flag(key, value.flag);
        case JsonValue::kNumber:
            return report.Number(key, std::strtoll(value.text.c_str(), nullptr, 10));
        case JsonValue::kText:
            return report.Text(key, value.text);
        case JsonValue::kArray:
            return report.List(key, value.elements,
                               [&](const JsonValue& each) { StateAnswer(report, {}, each); });
        case JsonValue::kObject:
            return report.Object(key, [&] {
                for (const auto& [name, member] : value.members) StateAnswer(report, name, member);
            });
    }
}

std::string SinceText(const JsonValue& module) {
    const auto seconds = module.NumberOf("since");
    tm local{};
    char text[32] = "-";
    const time_t time = seconds.value_or(0);
    if (seconds && localtime_r(&time, &local) != nullptr) {
        std::strftime(text, sizeof text, "%F %T", &local);
    }
    return text;
}

std::string TextOr(const JsonValue& module, std::string_view name, const char* otherwise) {
    const std::string_view text = module.TextOf(name);
    return text.empty() ? otherwise : Printable(text);
}
