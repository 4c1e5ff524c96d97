#include "switch_library/registry_request.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <utility>

#include "kemd/registry.h"
#include "kemd/services.h"

namespace {

constexpr std::array<std::pair<std::string_view, uint32_t>, 4> kTypes = {{
    {"string", kRegistryString},
    {"expand", kRegistryExpandString},
    {"binary", kRegistryBinary},
    {"number", kRegistryNumber},
}};

// The registry's bytes need not be UTF-8, so they come in hexadecimal.
std::optional<std::string> Bytes(const JsonValue* member) {
    if (member == nullptr || member->kind != JsonValue::kText) return std::nullopt;
    const std::string& digits = member->text;
    if (digits.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
        const char* const begin = digits.data() + i;
        unsigned byte = 0;
        if (std::from_chars(begin, begin + 2, byte, 16).ptr != begin + 2) return std::nullopt;
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::string ReadSet(const JsonValue& json, RegistryChange& change) {
    const auto value = Bytes(json.Find("value"));
    auto data = Bytes(json.Find("data"));
    if (!value || !data) return "value or data are missing or not hexadecimal";
    const std::string_view type = json.TextOf("type");
    const auto* const known = std::find_if(kTypes.begin(), kTypes.end(),
                                           [type](const auto& each) { return each.first == type; });
    if (known == kTypes.end()) return "an unknown type";
    change.type = known->second;
    change.value = *value;
    change.data = std::move(*data);
    const bool isCut = change.type == kRegistryNumber && change.data.size() != sizeof(int32_t);
    return isCut ? "a number has four bytes" : "";
}

// Opens the key and makes what is missing below its root key.
bool Make(CRegistry& cursor, const std::string& key) {
    if (cursor.Open(key.c_str()) == 0) return true;
    const size_t end = key.find_first_of("\\/");
    return end != key.npos && cursor.Open(key.substr(0, end).c_str()) == 0 &&
           cursor.CreateKey(nullptr, key.c_str() + end + 1) == 0;
}

uint32_t TypeOf(CRegistry& cursor, const std::string& value) {
    std::string text;
    (void)cursor.QueryValue(&text, value.c_str());
    return cursor.ValueType();
}

std::string Set(CRegistry& cursor, const RegistryChange& change) {
    if (!Make(cursor, change.key)) return "cannot make the key " + change.key;
    if (TypeOf(cursor, change.value) == kRegistrySubkey) {
        return change.key + " has a key " + change.value + "; delete that first";
    }
    const bool isSet = cursor.SetValue(change.value.c_str(), change.data.data(),
                                       static_cast<uint32_t>(change.data.size()), change.type);
    return isSet ? "" : "cannot set the value " + change.value + " of " + change.key;
}

std::string DeleteValue(CRegistry& cursor, const RegistryChange& change, std::string& absent) {
    const bool isOpen = cursor.Open(change.key.c_str()) == 0;
    const uint32_t type = isOpen ? TypeOf(cursor, change.value) : 0;
    if (type == 0 || type == kRegistrySubkey) {
        absent = "no value " + change.value + " in " + change.key;
        return {};
    }
    if (cursor.DeleteValue(change.value.c_str()) == 0) return {};
    return "cannot delete the value " + change.value + " in " + change.key;
}

std::string DeleteKey(CRegistry& cursor, const RegistryChange& change, std::string& absent) {
    if (cursor.Open(change.key.c_str()) != 0) {
        absent = "no key " + change.key;
        return {};
    }
    std::string parent = change.key;
    // As a path separates: by slashes only when there is no backslash.
    const char separator = parent.find('\\') != parent.npos ? '\\' : '/';
    parent.erase(parent.find_last_not_of(separator) + 1);
    const size_t end = parent.rfind(separator);
    if (end == parent.npos) return "a root key cannot be deleted";
    const std::string name = parent.substr(end + 1);
    const bool isDone =
        cursor.Open(parent.substr(0, end).c_str()) == 0 && cursor.DeleteKey(name.c_str()) == 0;
    return isDone ? "" : "cannot delete the key " + change.key;
}

std::string Import(const std::string& file) {
    const int error = KemdRegistryImport(file.c_str());
    if (error == 0) return {};
    return "cannot import " + file + ": " +
           (error == ENODATA ? "it holds no registry" : std::strerror(error));
}

std::string Apply(const RegistryChange& change, std::string& absent) {
    CRegistry cursor;
    switch (change.kind) {
        case RegistryChange::kSet:
            return Set(cursor, change);
        case RegistryChange::kDeleteValue:
            return DeleteValue(cursor, change, absent);
        case RegistryChange::kDeleteKey:
            return DeleteKey(cursor, change, absent);
        case RegistryChange::kImport:
            return Import(change.file);
        case RegistryChange::kNone:
            break;
    }
    return {};
}

}  // namespace

std::string ReadRegistryChange(std::string_view kind, const JsonValue& json,
                               RegistryChange& change) {
    if (change.kind != RegistryChange::kNone) return "more than one change";
    if (kind == "import") {
        change.kind = RegistryChange::kImport;
        change.file = json.text;
        return json.kind == JsonValue::kText && json.text.substr(0, 1) == "/"
                   ? ""
                   : "import is no absolute path";
    }
    const auto key = Bytes(json.Find("key"));
    if (!key || key->empty()) return "a key is missing or not hexadecimal";
    change.key = *key;
    if (kind == "set") {
        change.kind = RegistryChange::kSet;
        return ReadSet(json, change);
    }
    const JsonValue* const value = json.Find("value");
    const auto name = Bytes(value);
    if (!name && value != nullptr) return "a value is not hexadecimal";
    change.kind = name ? RegistryChange::kDeleteValue : RegistryChange::kDeleteKey;
    change.value = name.value_or("");
    return {};
}

std::string ChangeRegistry(const RegistryChange& change, std::string& absent) {
    std::string fault = Apply(change, absent);
    if (!fault.empty() || !absent.empty()) return fault;
    const int error = KemdRegistrySave();
    if (error == 0) return {};
    return std::string(
               "the modules have the change, but it cannot be saved before the next one: ") +
           std::strerror(error);
}
