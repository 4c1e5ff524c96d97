#include "kemdctl/registry/daemon_store.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "base/file_io.h"
#include "base/paths.h"
#include "kemdctl/facts/daemon_control.h"
#include "kemdctl/facts/process_facts.h"
#include "kemdctl/registry/value.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr int kSeconds = 60;

// Names and data need not be UTF-8.
std::string Hex(std::string_view bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text = "\"";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += {kDigits[byte >> 4U], kDigits[byte & 15U]};
    }
    return text + "\"";
}

std::string SetChange(const char* key, const RegistryEntry& value) {
    std::string data;
    if (value.Type() == kRegistryNumber) {
        const int32_t number = value.Number();
        data.resize(sizeof number);
        std::memcpy(data.data(), &number, sizeof number);
    } else {
        data = value.Data();
    }
    return "\"set\":{\"key\":" + Hex(key) + ",\"value\":" + Hex(value.Name()) + ",\"type\":\"" +
           TypeName(value.Type()) + "\",\"data\":" + Hex(data) + "}";
}

// `change`: a member of the request.
std::optional<int> Ask(const std::string& change) {
    const ControlAnswer answer = AskDaemon("{\"request\":\"registry\"," + change + "}\n", kSeconds);
    if (answer.kind == AnswerKind::kNotRunning || answer.kind == AnswerKind::kUnreachable) {
        return std::nullopt;
    }
    const std::string_view absent = answer.result.TextOf("absent");
    if (absent.empty()) return JudgeAnswer(answer);
    Complain("%s", Printable(absent).c_str());
    return kNo;
}

// The whole file; false with errno.
bool Copy(int file, const FileSink& write) {
    if (lseek(file, 0, SEEK_SET) != 0) return false;
    std::array<char, size_t{16} * 1024> buffer{};
    for (;;) {
        const ReadResult got = ReadFully(file, buffer.data(), buffer.size());
        if (got.error != 0) errno = got.error;
        if (got.error != 0 || !write({buffer.data(), got.count})) return false;
        if (got.count < buffer.size()) return true;
    }
}

}  // namespace

std::optional<int> SetInDaemon(const char* key, const RegistryEntry& value) {
    return Ask(SetChange(key, value));
}

std::optional<int> DeleteInDaemon(const char* key, const char* value) {
    const std::string what = value != nullptr ? ",\"value\":" + Hex(value) : "";
    return Ask("\"delete\":{\"key\":" + Hex(key) + what + "}");
}

std::optional<int> ImportIntoDaemon(int file) {
    if (FindDaemon() == 0) return std::nullopt;
    const auto copy = [file](const FileSink& write) { return Copy(file, write); };
    if (const int code = WriteOutputFile(kRegistryImportFile, 0600, copy); code != kYes)
        return code;
    const auto code = Ask("\"import\":" + JsonQuoted(kRegistryImportFile));
    (void)unlink(kRegistryImportFile);
    return code;
}
