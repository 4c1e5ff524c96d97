#include "kemdctl/registry/daemon_store.h"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "kemdctl/facts/daemon_control.h"
#include "kemdctl/registry/value.h"
#include "kemdctl/ui/command.h"
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

std::string Change(const char* kind, std::string_view key) {
    return std::string("{\"change\":\"") + kind + "\",\"key\":" + Hex(key);
}

std::string SetChange(std::string_view key, const RegistryEntry& value) {
    std::string data;
    if (value.Type() == kRegistryNumber) {
        const int32_t number = value.Number();
        data.resize(sizeof number);
        std::memcpy(data.data(), &number, sizeof number);
    } else {
        data = value.Data();
    }
    return Change("set", key) + ",\"value\":" + Hex(value.Name()) + ",\"type\":\"" +
           TypeName(value.Type()) + "\",\"data\":" + Hex(data) + "}";
}

std::optional<int> Ask(const std::string& changes, bool isLast) {
    const std::string request =
        "{\"request\":\"registry\",\"save\":" + std::string(isLast ? "true" : "false") +
        ",\"changes\":[" + changes + "]}\n";
    const ControlAnswer answer = AskDaemon(request, kSeconds);
    if (answer.kind == AnswerKind::kNotRunning || answer.kind == AnswerKind::kUnreachable) {
        return std::nullopt;
    }
    const std::string_view absent = answer.result.TextOf("absent");
    if (absent.empty()) return JudgeAnswer(answer);
    Complain("%s", Printable(absent).c_str());
    return kNo;
}

// Sends changes in requests that are not too long.
class Batch {
  public:
    // Nothing: no daemon can be asked.
    std::optional<int> Add(const std::string& change) {
        constexpr size_t kMost = 60'000;
        if (!m_changes.empty() && m_changes.size() + change.size() > kMost) {
            const auto code = Ask(std::exchange(m_changes, ""), false);
            if (code != kYes) return code;
        }
        m_changes += (m_changes.empty() ? "" : ",") + change;
        return kYes;
    }
    std::optional<int> Finish() { return Ask(m_changes, true); }

  private:
    std::string m_changes;
};

}  // namespace

std::optional<int> SetInDaemon(const char* key, const RegistryEntry& value) {
    return Ask(SetChange(key, value), true);
}

std::optional<int> DeleteInDaemon(const char* key, const char* value) {
    const std::string what = value != nullptr ? ",\"value\":" + Hex(value) : "";
    return Ask(Change("delete", key) + what + "}", true);
}

std::optional<int> ImportIntoDaemon(const RegistryKey& tree) {
    Batch batch;
    // The path of each key with a backslash at its end: slashes in it then belong to names.
    std::vector<std::pair<std::string, RegistryKey>> keys = {{"", tree}};
    while (!keys.empty()) {
        const auto [path, key] = std::move(keys.back());
        keys.pop_back();
        const bool isRoot = path.empty();
        const LockedNode locked(*key);
        for (const RegistryEntry& entry : locked.Entries()) {
            const std::string name = path + std::string(entry.Name()) + "\\";
            const bool isKey = entry.Type() == kRegistrySubkey;
            const auto code = batch.Add(isKey ? Change(isRoot ? "clear" : "make", name) + "}"
                                              : SetChange(path, entry));
            if (code != kYes) return code;
            if (isKey) keys.emplace_back(name, entry.Node());
        }
    }
    return batch.Finish();
}
