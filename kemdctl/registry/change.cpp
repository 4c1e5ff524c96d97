// Changing single entries of the store: set and delete.
#include <algorithm>
#include <string>

#include "base/line_reader.h"
#include "kemdctl/registry/command.h"
#include "kemdctl/registry/daemon_store.h"
#include "kemdctl/registry/store.h"
#include "kemdctl/registry/value.h"
#include "kemdctl/ui/text.h"
#include "services/registry/file_text.h"
#include "services/registry/node.h"
#include "services/registry/store.h"

namespace {

// Whether the text is read back as one line; the caller compares what that says.
bool IsOneLine(const std::string& line) {
    return line.size() <= LineReader::kMaxLine && line.find('\n') == line.size() - 1;
}

bool IsReadBack(const RegistryEntry& entry) {
    std::string text;
    AppendRegistryValue(text, entry);
    const RegistryLine line = DecodeRegistryLine(text);
    if (!IsOneLine(text) || line.kind != RegistryLine::kValue || line.name != entry.Name() ||
        line.type != entry.Type()) {
        return false;
    }
    if (line.type == kRegistryNumber) return DecodeRegistryNumber(line.data) == entry.Number();
    return entry.Data() ==
           (line.type == kRegistryBinary ? DecodeRegistryBinary(line.data) : line.data);
}

bool IsReadBack(std::string_view keyName) {
    const std::string text = "[" + std::string(keyName) + "]\n";
    const RegistryLine line = DecodeRegistryLine(text);
    return IsOneLine(text) && line.kind == RegistryLine::kHeader && line.name == keyName;
}

// Whether the file can hold the value; complains when it cannot.
bool IsStorable(const char* keyName, const RegistryEntry& value) {
    const KeyPath path = SplitPath(keyName);
    if (path.empty() || !IsRootKey(path[0])) {
        Complain("a key begins with one of HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER, HKEY_USERS,");
        Complain("HKEY_CLASSES_ROOT and HKEY_CURRENT_CONFIG");
        return false;
    }
    for (const std::string_view name : path) {
        if (IsReadBack(name)) continue;
        Complain("cannot store the key %s of %s: no \"]\", no line feed, %zu bytes at most",
                 Printable(name).c_str(), Printable(keyName).c_str(), LineReader::kMaxLine - 3);
        return false;
    }
    if (IsReadBack(value)) return true;
    Complain("cannot store the value %s of %s: no \"=\" and no leading \"[\" in its name,",
             Printable(value.Name()).c_str(), Printable(keyName).c_str());
    Complain("no line feed in name or data, %zu bytes at most for name, marker and data",
             LineReader::kMaxLine - 1);
    return false;
}

// The entry's type; 0 when there is none.
uint32_t EntryType(const RegistryKey& key, std::string_view name) {
    if (!key) return 0;
    const LockedNode locked(*key);
    const RegistryEntry* const entry = locked.Find(name);
    return entry != nullptr ? entry->Type() : 0;
}

bool Store(const char* keyName, const RegistryEntry& value) {
    CRegistry& cursor = Cursor();
    const RegistryHandle root(TheRegistryStore().Root());
    if (cursor.CreateKey(root, keyName) != 0) {
        Complain("cannot create %s: one of its parts has the name of a value, or its root key is",
                 Printable(keyName).c_str());
        Complain("missing from the store and must be imported first");
        return false;
    }
    const int32_t number = value.Number();
    const bool isNumber = value.Type() == kRegistryNumber;
    const void* const data = isNumber ? static_cast<const void*>(&number) : value.Data().data();
    const size_t size = isNumber ? sizeof number : value.Data().size();
    if (cursor.SetValue(std::string(value.Name()).c_str(), data, static_cast<uint32_t>(size),
                        value.Type()))
        return true;
    Complain("cannot set the value %s of %s", Printable(value.Name()).c_str(),
             Printable(keyName).c_str());
    return false;
}

}  // namespace

int RegistrySet(const CommandLine& line, ReportWriter& /*report*/) {
    const auto value = MakeValue(line.words[1], line.words[2], line.words[3]);
    if (!value || !IsStorable(line.words[0], *value)) return kError;
    WriterLock lock;
    if (!lock.Take()) return kError;
    if (const auto code = SetInDaemon(line.words[0], *value)) return *code;
    if (!LoadStore()) return kError;
    if (EntryType(FindKey(SplitPath(line.words[0])), value->Name()) == kRegistrySubkey) {
        Complain("%s has a key %s; delete that first", Printable(line.words[0]).c_str(),
                 Printable(value->Name()).c_str());
        return kError;
    }
    return Store(line.words[0], *value) ? SaveStore() : kError;
}

int RegistryDelete(const CommandLine& line, ReportWriter& /*report*/) {
    KeyPath path = SplitPath(line.words[0]);
    const bool isValue = line.words.size() == 2;
    if (!isValue && (path.empty() || (path.size() == 1 && IsRootKey(path[0])))) {
        Complain("a root key cannot be deleted");
        return kError;
    }
    const std::string name(isValue ? line.words[1] : path.back());
    const std::string what = (isValue ? "value " + Printable(name) + " in " : std::string("key ")) +
                             Printable(line.words[0]);
    if (!isValue) path.pop_back();
    WriterLock lock;
    if (!lock.Take()) return kError;
    if (const auto code = DeleteInDaemon(line.words[0], isValue ? line.words[1] : nullptr)) {
        return *code;
    }
    if (!LoadStore()) return kError;
    const RegistryKey key = FindKey(path);
    const uint32_t type = EntryType(key, name);
    if (type == 0 || (type == kRegistrySubkey) == isValue) {
        Complain("no %s", what.c_str());
        return kNo;
    }
    CRegistry& cursor = Cursor();
    const bool isDone =
        cursor.Open("", key) == 0 &&
        (isValue ? cursor.DeleteValue(name.c_str()) : cursor.DeleteKey(name.c_str())) == 0;
    if (isDone) return SaveStore();
    Complain("cannot delete the %s", what.c_str());
    return kError;
}
