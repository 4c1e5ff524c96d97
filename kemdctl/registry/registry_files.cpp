// Whole registry files: check, export, import and restore.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>

#include "base/file_io.h"
#include "base/paths.h"
#include "kemdctl/registry/registry_check.h"
#include "kemdctl/registry/registry_command.h"
#include "kemdctl/registry/registry_store.h"
#include "kemdctl/ui/json.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/text.h"
#include "services/registry/file.h"
#include "services/registry/store.h"

namespace {

// Standard input as a file that can be read twice.
UniqueFd SpoolInput() {
    std::FILE* const spool = std::tmpfile();
    if (spool == nullptr) return {};
    UniqueFd file(fcntl(fileno(spool), F_DUPFD_CLOEXEC, 0));
    (void)std::fclose(spool);
    char buffer[16 * 1024];
    ssize_t count = -1;
    while ((count = read(STDIN_FILENO, buffer, sizeof buffer)) > 0) {
        if (!WriteFully(file.Get(), {buffer, static_cast<size_t>(count)})) return {};
    }
    return count == 0 && lseek(file.Get(), 0, SEEK_SET) == 0 ? std::move(file) : UniqueFd();
}

}  // namespace

int RegistryCheck(const CommandLine& line) {
    const char* const path = line.words[0];
    const UniqueFd file = OpenRegularFile(path, O_RDONLY);
    if (!file.IsOpen()) return FileError("open", path);
    JsonWriter json;
    const bool withJson = line.Has("--json");
    bool isClean = true;
    if (withJson) json.Open('[');
    const bool isRead =
        CheckRegistry(file.Get(), true, [&](size_t number, const std::string& what) {
            isClean = false;
            if (!withJson) {
                Write(Printable(path) + ":" + std::to_string(number) + ": " + what + "\n");
                return;
            }
            json.Open('{');
            json.Key("line");
            json.Number(static_cast<int64_t>(number));
            json.Key("message");
            json.Text(what);
            json.Close('}');
        });
    if (!isRead) return FileError("read", path);
    if (withJson) {
        json.Close(']');
        json.Finish();
    }
    return isClean ? kYes : kNo;
}

int RegistryExport(const CommandLine& line) {
    if (!LoadStore()) return kError;
    if (!line.words.empty() && std::string_view(line.words[0]) != "-") {
        return WriteOutputFile(line.words[0], 0644, [](const FileSink& write) {
            return WriteRegistry(*TheRegistryStore().Root(), write);
        });
    }
    (void)WriteRegistry(*TheRegistryStore().Root(), [](std::string_view text) {
        Write(text);
        return !HasWriteFailed();
    });
    return kYes;
}

int RegistryImport(const CommandLine& line) {
    const char* const path = line.words[0];
    const bool isInput = std::string_view(path) == "-";
    const UniqueFd file = isInput ? SpoolInput() : OpenRegularFile(path, O_RDONLY);
    if (!file.IsOpen()) return FileError("read", path);
    size_t findings = 0;
    constexpr size_t kShown = 20;
    const bool isRead = CheckRegistry(file.Get(), false, [&](size_t number, const auto& what) {
        if (++findings > kShown) return;
        Complain("%s:%zu: %s", Printable(path).c_str(), number, what.c_str());
    });
    if (!isRead || lseek(file.Get(), 0, SEEK_SET) != 0) return FileError("read", path);
    if (findings > 0 && !line.Has("--force")) {
        Complain("%zu findings: nothing was imported; --force imports all the same", findings);
        return kNo;
    }
    WriterLock lock;
    if (!lock.Take()) return kError;
    if (!LoadStore()) {
        if (TheRegistryStore().LoadError() != 0) return kError;
        Complain("note: what %s has becomes the store", Printable(path).c_str());
    }
    LineReader lines(file.Get());
    const int error = ParseRegistry(lines, *TheRegistryStore().Root());
    if (error != 0) {
        Complain("cannot import %s: %s", Printable(path).c_str(), LoadErrorText(error).c_str());
        return kError;
    }
    TheRegistryStore().MarkDirty();
    return SaveStore();
}

int RegistryRestore(const CommandLine& line) {
    const char* const source = line.Has("--default") ? kRegistryDefaultFile : kRegistryOldFile;
    WriterLock lock;
    if (!lock.Take()) return kError;
    // Into the empty tree: with the live store loaded, its other keys would stay.
    const RegistryKey root = TheRegistryStore().Root();
    int error = RestoreRegistryFile(source, *root);
    const bool hasRootKey = std::any_of(kRootKeyNames.begin(), kRootKeyNames.end(),
                                        [](const char* name) { return FindKey({name}); });
    if (error == 0 && !hasRootKey) error = ENODATA;
    if (error != 0) {
        Complain("cannot restore %s: %s", source, LoadErrorText(error).c_str());
        return kError;
    }
    TheRegistryStore().MarkDirty();
    return SaveStore();
}
