#include "inventory/udev_database.h"

#include <cerrno>
#include <charconv>

#include "base/file_io.h"
#include "base/text.h"
#include "inventory/host_inventory.h"

namespace {

// "\x20" is a blank.
std::string Decoded(std::string_view text) {
    std::string decoded;
    while (!text.empty()) {
        uint8_t byte = 0;
        const bool isEscape =
            text.size() >= 4 && text.starts_with("\\x") &&
            std::from_chars(text.data() + 2, text.data() + 4, byte, 16).ptr == text.data() + 4;
        decoded += isEscape ? static_cast<char>(byte) : text.front();
        text.remove_prefix(isEscape ? 4 : 1);
    }
    return decoded;
}

}  // namespace

void NoteNoUdev(KemdInventory& inventory) {
    inventory.Note("/run/udev/data",
                   "no udev: labels, UUIDs and types of file systems that are not mounted, and "
                   "what only udev asks drives for, are unknown");
}

UdevRecord::UdevRecord(KemdInventory& inventory, const std::string& key) {
    const std::string path = "/run/udev/data/" + key;
    const std::optional<std::string> text = ReadTextFile(path);
    const int error = errno;
    m_isThere = text.has_value();
    if (!text) {
        if (error != ENOENT && error != ENOTDIR) inventory.NoteError(path, error);
        return;
    }
    Read(*text);
}

UdevRecord::UdevRecord(std::string_view text) : m_isThere(true) {
    Read(text);
}

void UdevRecord::Read(std::string_view text) {
    while (!text.empty()) {
        const std::string_view line = TakeLine(text);
        const size_t equals = line.find('=');
        if (!line.starts_with("E:") || equals == line.npos) continue;
        m_properties.emplace(line.substr(2, equals - 2), line.substr(equals + 1));
    }
}

std::string UdevRecord::Property(std::string_view name) const {
    const auto found = m_properties.find(name);
    if (found == m_properties.end()) return {};
    const bool isEncoded = name.ends_with("_ENC") || name == "ID_PART_ENTRY_NAME";
    return isEncoded ? Decoded(found->second) : found->second;
}
