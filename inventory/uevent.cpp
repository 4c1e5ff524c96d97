#include "inventory/uevent.h"

#include <algorithm>
#include <charconv>

void Uevent::Take(std::string_view text, char separator) {
    while (!text.empty()) {
        const std::string_view entry = text.substr(0, text.find(separator));
        text.remove_prefix(std::min(entry.size() + 1, text.size()));
        const size_t equals = entry.find('=');
        if (equals != entry.npos) {
            m_fields.emplace_back(entry.substr(0, equals), entry.substr(equals + 1));
        }
    }
}

std::optional<Uevent> Uevent::FromMessage(std::string_view message) {
    const std::string_view head = message.substr(0, message.find('\0'));
    const size_t at = head.find('@');
    if (at == head.npos || head.size() == message.size()) return std::nullopt;
    Uevent event;
    event.Take(message.substr(head.size() + 1), '\0');
    const bool agrees = event.Field("ACTION") == head.substr(0, at) &&
                        event.Field("DEVPATH") == head.substr(at + 1);
    if (!agrees || !event.Field("DEVPATH").starts_with('/')) return std::nullopt;
    return event;
}

Uevent Uevent::FromFile(std::string_view text) {
    Uevent event;
    event.Take(text, '\n');
    return event;
}

std::string_view Uevent::Field(std::string_view key) const {
    const auto found = std::find_if(m_fields.begin(), m_fields.end(),
                                    [key](const auto& field) { return field.first == key; });
    return found == m_fields.end() ? std::string_view() : found->second;
}

std::optional<uint32_t> Uevent::Number(std::string_view key) const {
    const std::string_view text = Field(key);
    uint32_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return std::nullopt;
    return number;
}
