#include "switch_library/registry_request.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <utility>

#include "kemd/registry.h"

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

std::string ReadChange(const JsonValue& object, RegistryChange& change) {
    const std::string_view kind = object.TextOf("change");
    const auto key = Bytes(object.Find("key"));
    const auto value = Bytes(object.Find("value"));
    const auto data = Bytes(object.Find("data"));
    const bool isSet = kind == "set";
    if (!isSet && kind != "delete" && kind != "clear" && kind != "make") return "an unknown change";
    if (!key || key->empty()) return "a key is missing or not hexadecimal";
    if (isSet && (!value || !data)) return "value or data are missing or not hexadecimal";
    if (!value && object.Find("value") != nullptr) return "a value is not hexadecimal";
    const std::string_view type = object.TextOf("type");
    const auto* const known = std::find_if(kTypes.begin(), kTypes.end(),
                                           [type](const auto& each) { return each.first == type; });
    if (isSet && known == kTypes.end()) return "an unknown type";
    if (isSet) change.type = known->second;
    if (change.type == kRegistryNumber && data->size() != sizeof(int32_t)) {
        return "a number has four bytes";
    }
    change.kind = isSet             ? RegistryChange::kSet
                  : kind == "clear" ? RegistryChange::kClear
                  : kind == "make"  ? RegistryChange::kMake
                  : value           ? RegistryChange::kDeleteValue
                                    : RegistryChange::kDeleteKey;
    change.key = *key;
    change.value = value.value_or("");
    change.data = data.value_or("");
    return {};
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

std::string Clear(CRegistry& cursor, const RegistryChange& change) {
    if (!Make(cursor, change.key)) return "no key " + change.key;
    std::array<char, 4096> name{};
    for (;;) {
        auto length = static_cast<uint32_t>(name.size());
        if (cursor.EnumKey(name.data(), &length, 0, nullptr) != 0) break;
        if (cursor.DeleteKey(name.data()) != 0) return "cannot delete what is below " + change.key;
    }
    for (;;) {
        auto length = static_cast<uint32_t>(name.size());
        uint32_t none = 0;
        if (cursor.EnumValue(name.data(), &length, 0, kRegistryAnyValue, nullptr, &none) != 0)
            break;
        if (length == 0 && TypeOf(cursor, "") == 0) break;  // one past the end
        if (cursor.DeleteValue(name.data()) != 0) return "cannot delete what is in " + change.key;
    }
    return {};
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
        case RegistryChange::kMake:
            return Make(cursor, change.key) ? "" : "cannot make the key " + change.key;
        case RegistryChange::kClear:
            return Clear(cursor, change);
    }
    return {};
}

}  // namespace

std::string ReadRegistryChanges(const JsonValue& list, std::vector<RegistryChange>& changes) {
    if (list.kind != JsonValue::kArray || list.elements.empty()) return "there are no changes";
    for (const JsonValue& object : list.elements) {
        std::string fault = ReadChange(object, changes.emplace_back());
        if (!fault.empty()) return "change " + std::to_string(changes.size()) + ": " + fault;
    }
    return {};
}

std::string ApplyRegistryChanges(const std::vector<RegistryChange>& changes, bool save,
                                 std::string& absent) {
    std::string fault;
    for (const RegistryChange& change : changes) {
        fault = Apply(change, absent);
        if (!fault.empty() || !absent.empty()) break;
    }
    if (!save && fault.empty()) return {};
    errno = 0;
    if (CRegistry::SaveTree() || !fault.empty()) return fault;
    return std::string("cannot save the registry: ") + std::strerror(errno != 0 ? errno : EIO);
}
